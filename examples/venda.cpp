// Queries the device and makes a sale, with the library's class. README.md explains exit status 3.
#include <fiscora/encoding/Base64.h>
#include <fiscora/fiscal/UCManipulaDadosSat.h>
#include <fiscora_status.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

enum ExitStatus { NOT_SOLD = 1, OUTCOME_UNKNOWN = 3 };
enum Field { EEEEE = 1, DOCUMENT = 6, KEY = 8, FIELDS = 32 };
static manipulaDados::ManipulaDadosSat device;
static int stop(ExitStatus status, const char* why) { return std::cout << why << std::endl, status; }

/// The answer's fields, copied; all are empty if it is not this call's, or only says that the device is busy.
static std::vector<std::string> receive(const std::string& operation, int session,
                                        const std::string& answer) {
    const std::string digits = std::to_string(1'000'000 + session).substr(1);
    const int status = device.CodigoErro();
    std::cout << operation << ", sessão " << digits << ": " << fiscora_status_text(status) << ' '
              << answer.substr(0, 40) << std::endl;
    const bool own =
        std::regex_match(answer.substr(0, 13), std::regex(digits + "\\|(?!..09[89])[0-9]{5}\\|"));
    std::istringstream text(status == FISCORA_STATUS_OK && own ? answer : "");
    std::vector<std::string> fields(FIELDS);
    for (auto& field : fields) std::getline(text, field, '|');
    return fields;
}

int main() {
    const char* const code = std::getenv("CODIGO_DE_ATIVACAO");
    std::ifstream file("venda.xml", std::ios::binary);
    const std::string sale(std::istreambuf_iterator<char>(file), {});
    if (code == nullptr || sale.empty()) return stop(NOT_SOLD, "Faltam CODIGO_DE_ATIVACAO ou venda.xml");
    int session = static_cast<int>(std::random_device()() % 1'000'000);
    if (receive("ConsultarSAT", session, device.ConsultarSAT(session))[EEEEE] != "08000")
        return stop(NOT_SOLD, "O equipamento não está em operação");
    session = (session + 1) % 1'000'000;
    if (std::filesystem::exists("pendente.txt") || !(std::ofstream("pendente.txt") << session << std::endl))
        return stop(OUTCOME_UNKNOWN, "Resolva primeiro a venda de pendente.txt: veja README.md");
    const auto fields =
        receive("EnviarDadosVenda", session, device.EnviarDadosVenda(session, code, sale.c_str()));
    if (fields[EEEEE].empty() && device.CodigoErro() != FISCORA_STATUS_BAD_REQUEST)
        return stop(OUTCOME_UNKNOWN, "Não venda de novo: não se sabe se esta foi feita. Veja README.md");
    if (fields[EEEEE] == "06000") {
        const bool valid = std::regex_match(fields[KEY], std::regex("CFe[0-9]{44}"));
        std::ofstream document(valid ? fields[KEY] + ".xml" : "", std::ios::binary);
        if (!(document << Base64::decode(fields[DOCUMENT]) << std::flush))
            return stop(OUTCOME_UNKNOWN, "A venda foi feita, mas não pôde ser gravada");
        std::cout << "Gravado: " << fields[KEY] << ".xml" << std::endl;
    }
    std::filesystem::remove("pendente.txt");
    return fields[EEEEE] == "06000" ? EXIT_SUCCESS : NOT_SOLD;
}
