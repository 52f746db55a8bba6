// A day at the till in C++, with the classes: query, sale, cancellation, the device's log. README.md says
// how to build and run it. Exit status: 0 all done, 1 stopped, 2 not started, 3 a document is pending.
#include <fiscora/encoding/Base64.h>
#include <fiscora/fiscal/UCManipulaDadosSat.h>
#include <fiscora/transaction/DoTransaction.h>
#include <fiscora_status.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

enum ExitStatus { STOPPED = 1, NOT_STARTED = 2, DOCUMENT_PENDING = 3 };
constexpr int ATTEMPTS = 2;
constexpr int QUERIES = 5;
constexpr std::chrono::seconds PAUSE{2};
constexpr const char* PENDING = "pendente.txt";

/// The fields of an answer; missing ones are empty. The bytes are as the device sent them: UTF-8 or, with
/// some devices, Latin-1, which iconv(3) converts.
using Answer = std::vector<std::string>;
enum Field { EEEEE = 1, LOG = 5, DOCUMENT = 6, KEY = 8, FIELDS = 32 };

std::string readFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Exits with `status`, or with DOCUMENT_PENDING if pendente.txt exists.
[[noreturn]] void stop(ExitStatus status, const char* why) {
    std::cout << why << std::endl;
    if (!std::filesystem::exists(PENDING)) std::exit(status);
    std::cout << "Antes de enviar outro documento, consulte a sessão e apague pendente.txt (README.md): "
              << readFile(PENDING) << std::endl;
    std::exit(DOCUMENT_PENDING);
}

/// Writes the whole file or leaves the old one as it was.
void writeFile(const std::string& path, const std::string& content) {
    std::ofstream file("gravando.tmp", std::ios::binary);
    file << content;
    file.close();
    if (!file) throw std::runtime_error("Não foi possível gravar gravando.tmp");
    std::filesystem::rename("gravando.tmp", path);
}

std::string sixDigits(int session) { return std::to_string(1'000'000 + session).substr(1); }

/// A number that no call has used, not even in an earlier run: a device books one document per number.
int nextSession() {
    unsigned last = 0;
    if (!(std::ifstream("sessao.txt") >> last)) last = static_cast<unsigned>(std::time(nullptr));
    const auto session = static_cast<int>((last + 1) % 1'000'000);
    writeFile("sessao.txt", sixDigits(session) + "\n");
    return session;
}

bool codeBeginsWith(const Answer& answer, const std::string& digits) {
    return answer[EEEEE].rfind(digits, 0) == 0;
}

Answer expect(std::optional<Answer> answer, const char* eeeee) {
    if (!answer || !codeBeginsWith(*answer, eeeee)) stop(STOPPED, "Não foi feito: o programa termina aqui");
    return *std::move(answer);
}

class Till {
  public:
    explicit Till(const char* activationCode) : m_code(activationCode) {}

    void workADay(const std::string& sale, const std::string& form) {
        const int first = nextSession();
        expect(receive("ConsultarSAT", first, m_sat.ConsultarSAT(first)), "08000");

        const std::string key = book("06000", "EnviarDadosVenda", [&](int session) {
            return m_sat.EnviarDadosVenda(session, m_code, sale.c_str());
        });

        const std::string request = std::regex_replace(form, std::regex("CHAVE"), key);
        book("07000", "CancelarUltimaVenda", [&](int session) {
            return m_sat.CancelarUltimaVenda(session, m_code, key.c_str(), request.c_str());
        });

        const int log = nextSession();
        save("sat.log", expect(receive("ExtrairLogs", log, m_sat.ExtrairLogs(log, m_code)), "15000")[LOG]);

        // Has no C function: the answer to the last document, whatever its session number.
        const int last = nextSession();
        expect(receive("ConsultarUltimaSessaoFiscal", last, m_sat.ConsultarUltimaSessaoFiscal(last, m_code)),
               "07000");
    }

  private:
    using Send = std::function<const char*(int session)>;

    /// Copies the answer, because the next call overwrites it, and reports it. Returns it if it is complete,
    /// in time, and has this call's number in field 0, or the number asked about, which some devices put
    /// there.
    std::optional<Answer> receive(const char* operation, int session, const char* result,
                                  std::optional<int> asked = std::nullopt) {
        const std::string text = result;
        const int status = m_sat.CodigoErro();
        std::cout << operation << ", sessão " << sixDigits(session) << ": ";
        const std::regex wanted("(" + sixDigits(session) + "|" + sixDigits(asked.value_or(session)) +
                                ")\\|[0-9]{5}\\|");
        const auto atStart = std::regex_constants::match_continuous;
        if (status != FISCORA_STATUS_OK || !std::regex_search(text, wanted, atStart)) {
            std::cout << "status " << status << ". "
                      << (status == FISCORA_STATUS_OK ? "Resposta ilegível ou de outra sessão."
                                                      : fiscora_status_text(status))
                      << std::endl;
            return std::nullopt;
        }
        Answer answer = split(text + std::string(FIELDS, '|'), '|');
        // In the answer to a document, CCCC comes before the message.
        const bool document = codeBeginsWith(answer, "06") || codeBeginsWith(answer, "07");
        std::cout << answer[EEEEE] << ' ' << answer[document ? 3 : 2] << std::endl;
        return answer;
    }

    /// Sends a document; sends it again only if the device says that it never got it.
    std::optional<Answer> deliver(const char* operation, const Send& send) {
        for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
            const int session = nextSession();
            writeFile(PENDING, operation + (' ' + sixDigits(session)));
            sync();  // pendente.txt must survive a power cut during the call
            auto answer = receive(operation, session, send(session));
            if (answer || m_sat.CodigoErro() == FISCORA_STATUS_BAD_REQUEST) return answer;
            answer = askAbout(session);
            if (answer) return answer;
        }
        return std::nullopt;
    }

    /// The device's answer in a session whose answer was lost; nothing if it does not know the session.
    std::optional<Answer> askAbout(int lost) {
        std::cout << "Não envie de novo: consultando a sessão " << sixDigits(lost) << std::endl;
        for (int query = 0; query < QUERIES; ++query) {
            const int session = nextSession();
            const char* const result = m_sat.ConsultarNumeroSessao(session, m_code, lost);
            auto answer = receive("ConsultarNumeroSessao", session, result, lost);
            if (answer && codeBeginsWith(*answer, "11003")) return std::nullopt;
            if (answer && !codeBeginsWith(*answer, "11"))
                return answer;  // 11...: query refused, perhaps busy
            std::this_thread::sleep_for(PAUSE);
        }
        stop(DOCUMENT_PENDING, "O equipamento não disse o que houve");
    }

    static void save(const std::string& path, const std::string& base64) {
        const std::string content = Base64::decode(base64);  // stops at the first invalid byte
        const auto* const bytes = reinterpret_cast<const unsigned char*>(content.data());
        if (content.empty() || Base64::encode(bytes, static_cast<std::uint32_t>(content.size())) != base64)
            throw std::runtime_error(path + ": Base64 danificado");
        writeFile(path, content);
        std::cout << "Gravado: " << path << std::endl;
    }

    /// Books a document, saves the signed copy and returns its access key.
    std::string book(const char* eeeee, const char* operation, const Send& send) {
        const auto answer = deliver(operation, send);
        if (answer && codeBeginsWith(*answer, eeeee)) {
            const std::string& key = (*answer)[KEY];
            if (!std::regex_match(key, std::regex("CFe[0-9]{44}")))  // it becomes a file name
                throw std::runtime_error("chave inválida: " + key);
            save(key + ".xml", (*answer)[DOCUMENT]);
            sync();
        }
        std::filesystem::remove(PENDING);
        return expect(answer, eeeee)[KEY];
    }

    const char* m_code;
    manipulaDados::ManipulaDadosSat m_sat;
};

}  // namespace

int main() {
    try {
        if (std::filesystem::exists(PENDING)) stop(DOCUMENT_PENDING, "Nada foi enviado");
        const char* const code = std::getenv("CODIGO_DE_ATIVACAO");
        if (code == nullptr) stop(NOT_STARTED, "Informe o código de ativação em CODIGO_DE_ATIVACAO");
        const std::string sale = readFile("venda.xml");
        const std::string form = readFile("cancelamento.xml");
        if (sale.empty() || form.empty())
            stop(NOT_STARTED, "Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual");
        if (form.find("CHAVE") == std::string::npos)
            stop(NOT_STARTED, "Falta a palavra CHAVE em cancelamento.xml");
        std::cout << "Biblioteca fiscora, driver " << getVersion() << std::endl;
        Till(code).workADay(sale, form);
        return EXIT_SUCCESS;
    } catch (const std::exception& problem) {
        std::cerr << problem.what() << std::endl;
        stop(STOPPED, "Não foi possível continuar");
    }
}
