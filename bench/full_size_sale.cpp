// Makes one sale of the largest possible document and prints the status and this process's peak resident
// memory, in KiB. Run it under `fiscora sim`.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "fiscora.h"
#include "sale_document.h"

namespace {

/// Not getrusage's ru_maxrss: that includes the memory of the program that started this one.
long peakResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        long size = 0;
        if (word == "VmHWM:" && status >> size) return size;
    }
    return -1;
}

}  // namespace

int main() {
    const std::string sale = saleDocument(FISCORA_ANSWER_MAX_BYTES);
    EnviarDadosVenda(1, "12345678", sale.c_str());
    std::printf("%d %ld\n", CodigoErro(), peakResidentKiB());
    return CodigoErro() == FISCORA_STATUS_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
