// A day at the till in C++, with the classes: status, sale, cancellation, the device's log. README.md says
// how to build and run it. Exit status: 0 all done, 1 not done, 2 nothing begun, 3 nobody knows what became
// of a document.
#include <fiscora/encoding/Base64.h>
#include <fiscora/fiscal/UCManipulaDadosSat.h>
#include <fiscora/transaction/DoTransaction.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

enum ExitStatus { NOT_DONE = 1, NOT_BEGUN = 2, UNKNOWN = 3 };
constexpr int SENDINGS = 2;
constexpr int QUESTIONS = 5;
constexpr std::chrono::seconds PAUSE{2};

/// Fields of an answer; those that it has not are empty. Bytes as the device sent them, UTF-8 or, from some
/// devices, Latin-1: iconv(3) converts.
using Answer = std::vector<std::string>;
enum Field { EEEEE = 1, LOG = 5, DOCUMENT = 6, KEY = 8, FIELDS = 32 };

/// Ends the day.
struct Stop {
    ExitStatus status;
    std::string why;
};

const char* explain(int status) {
    switch (status) {
        case FISCORA_STATUS_OK: return "resposta ilegível ou de outra sessão";
        case FISCORA_STATUS_NO_ANSWER: return "sem equipamento ou resposta danificada: verifique o cabo";
        case FISCORA_STATUS_READ_ERROR: return "a linha caiu: verifique o cabo e a energia do equipamento";
        case FISCORA_STATUS_REFUSED: return "resposta de outro comando: desligue e ligue o equipamento";
        case FISCORA_STATUS_BAD_REQUEST: return "pedido grande demais, nada foi enviado: corrija os dados";
        case FISCORA_STATUS_TIMEOUT: return "sem resposta a tempo: o equipamento pode estar ocupado";
        default: return "status desconhecido";
    }
}

std::string sixDigits(int session) { return std::to_string(1'000'000 + session).substr(1); }

/// A number that no call had before, in no earlier run either: a device books one document a number.
int nextSession() {
    unsigned last = 0;
    if (!(std::ifstream("sessao.txt") >> last)) last = static_cast<unsigned>(std::time(nullptr));
    const auto session = static_cast<int>((last + 1) % 1'000'000);
    std::ofstream file("sessao.txt");
    if (!(file << sixDigits(session) << std::endl))
        throw Stop{NOT_DONE, "Não foi possível gravar sessao.txt"};
    return session;
}

/// Whether EEEEE begins with these digits.
bool says(const Answer& answer, const std::string& digits) { return answer[EEEEE].rfind(digits, 0) == 0; }

Answer expect(std::optional<Answer> answer, const char* eeeee) {
    if (!answer || !says(*answer, eeeee)) throw Stop{NOT_DONE, "Não foi feito: o dia termina aqui"};
    return *std::move(answer);
}

class Till {
  public:
    explicit Till(const char* activationCode) : m_code(activationCode) {}

    void workADay(const std::string& sale, const std::string& form) {
        const int first = nextSession();
        expect(receive("ConsultarSAT", first, m_sat.ConsultarSAT(first)), "08000");

        const Answer sold =
            expect(book("EnviarDadosVenda",
                        [&](int session) { return m_sat.EnviarDadosVenda(session, m_code, sale.c_str()); }),
                   "06000");
        save(sold[KEY] + ".xml", sold[DOCUMENT]);

        const std::string request = std::regex_replace(form, std::regex("CHAVE"), sold[KEY]);
        const Answer cancelled = expect(book("CancelarUltimaVenda",
                                             [&](int session) {
                                                 return m_sat.CancelarUltimaVenda(
                                                     session, m_code, sold[KEY].c_str(), request.c_str());
                                             }),
                                        "07000");
        save(cancelled[KEY] + ".xml", cancelled[DOCUMENT]);

        const int log = nextSession();
        save("sat.log", expect(receive("ExtrairLogs", log, m_sat.ExtrairLogs(log, m_code)), "15000")[LOG]);

        // Without a flat function, so only C++ has it: the answer to the last document, whatever its session.
        const int last = nextSession();
        expect(receive("ConsultarUltimaSessaoFiscal", last, m_sat.ConsultarUltimaSessaoFiscal(last, m_code)),
               "07000");
    }

  private:
    /// Copies the answer, since the next call overwrites it, and reports it. None where there is none in
    /// time, whole, and under the number of this very call or the one that it asks about, which some devices
    /// put there.
    std::optional<Answer> receive(const char* operation, int session, const char* result,
                                  std::optional<int> asked = std::nullopt) {
        const std::string text = result;
        const int status = m_sat.CodigoErro();
        std::cout << operation << ", sessão " << sixDigits(session) << ": ";
        const std::regex wanted("(" + sixDigits(session) + "|" + sixDigits(asked.value_or(session)) +
                                ")\\|[0-9]{5}\\|");
        const auto atStart = std::regex_constants::match_continuous;
        if (status != FISCORA_STATUS_OK || !std::regex_search(text, wanted, atStart)) {
            std::cout << "status " << status << ", " << explain(status) << std::endl;
            return std::nullopt;
        }
        Answer answer = split(text + std::string(FIELDS, '|'), '|');
        const bool document = says(answer, "06") || says(answer, "07");
        std::cout << answer[EEEEE] << ' ' << answer[document ? 3 : 2] << std::endl;  // CCCC stands between
        return answer;
    }

    /// Sends a document until the device has answered, a second time only where it knows nothing of the
    /// first.
    std::optional<Answer> book(const char* operation, const std::function<const char*(int session)>& send) {
        for (int sending = 0; sending < SENDINGS; ++sending) {
            const int session = nextSession();
            auto answer = receive(operation, session, send(session));
            if (answer || m_sat.CodigoErro() == FISCORA_STATUS_BAD_REQUEST) return answer;
            answer = askAbout(session);
            if (answer) return answer;
        }
        return std::nullopt;
    }

    /// What the device answered in a session whose answer is missing; none where it knows nothing of it.
    std::optional<Answer> askAbout(int lost) {
        std::cout << "Não envie de novo: perguntando pela sessão " << sixDigits(lost) << std::endl;
        for (int question = 0; question < QUESTIONS; ++question) {
            const int session = nextSession();
            const char* const result = m_sat.ConsultarNumeroSessao(session, m_code, lost);
            auto answer = receive("ConsultarNumeroSessao", session, result, lost);
            if (answer && says(*answer, "11003")) return std::nullopt;
            if (answer && !says(*answer, "11")) return answer;  // else it is refused, by a busy device say
            std::this_thread::sleep_for(PAUSE);
        }
        throw Stop{UNKNOWN, "Sessão " + sixDigits(lost) +
                                " pendente: pergunte por ela antes de enviar outro documento"};
    }

    static void save(const std::string& path, const std::string& base64) {
        std::ofstream file(path, std::ios::binary);
        if (!(file << Base64::decode(base64) << std::flush))
            throw Stop{NOT_DONE, "Não foi possível gravar " + path};
        std::cout << "Gravado: " << path << std::endl;
    }

    const char* m_code;
    manipulaDados::ManipulaDadosSat m_sat;
};

std::string readFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw Stop{NOT_BEGUN, "Faltam venda.xml e cancelamento.xml na pasta atual"};
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main() {
    try {
        const char* const code = std::getenv("CODIGO_DE_ATIVACAO");
        if (code == nullptr) throw Stop{NOT_BEGUN, "Informe o código de ativação em CODIGO_DE_ATIVACAO"};
        const std::string sale = readFile("venda.xml");
        const std::string form = readFile("cancelamento.xml");
        std::cout << "Biblioteca fiscora, driver " << getVersion() << std::endl;
        Till(code).workADay(sale, form);
        return EXIT_SUCCESS;
    } catch (const Stop& stop) {
        std::cout << stop.why << std::endl;
        return stop.status;
    }
}
