// Built by find_package against an installed copy: an operation that only the class has.
#include <fiscora.h>
#include <fiscora/fiscal/UCManipulaDadosSat.h>

#include <iostream>
#include <string>

int main() {
    manipulaDados::ManipulaDadosSat device;
    const std::string answer = device.ConsultarStatusOperacionalMFE(2, "12345678");
    std::cout << "classes: status " << device.CodigoErro() << ", " << answer.substr(0, 40) << "...\n";
    return device.CodigoErro() == FISCORA_STATUS_OK && answer.rfind("000002|10000|", 0) == 0 ? 0 : 1;
}
