/// A till's application: asks the device for its state and sends it a sale of 1 MiB, in turn, and checks that
/// every answer matches its request.
///
///     driver_exchange COUNT ACTIVATION_CODE
///
/// Prints a line for each failure and, for each kind of call, "total NAME COUNT FAILED WORST", the last in
/// milliseconds. Exit status 1 if a call failed.

#include <fiscora.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "encoding/Base64.h"
#include "till.h"
#include "transaction/DoTransaction.h"

namespace {

using till::Sale;

std::string faultInDocument(const Sale& sale, const std::string& document) {
    std::size_t position = 0;
    for (const std::string& product : sale.products) {
        position = document.find(product, position);
        if (position == std::string::npos) return "document without " + product;
    }
    if (document.find("<det ", position + 1) != std::string::npos)
        return "document with more items than the sale";
    return {};
}

/// The calls of one kind.
struct Tally {
    std::string name;
    int calls = 0;
    int failed = 0;
    std::chrono::milliseconds worst{0};

    /// Times `call`; returns the fields of its answer.
    std::vector<std::string> timed(const std::function<const char*()>& call) {
        const auto start = std::chrono::steady_clock::now();
        const std::string answer = call();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        worst = std::max(worst, std::chrono::duration_cast<std::chrono::milliseconds>(elapsed));
        ++calls;
        return split(answer, '|');
    }

    void note(int session, const std::string& fault) {
        if (fault.empty()) return;
        ++failed;
        std::cout << name << ' ' << session << ": " << fault << '\n';
    }
};

std::string faultInQuery(Tally& tally, int session) {
    return till::faultInHead(session, "08000", tally.timed([&] { return ConsultarSAT(session); }));
}

std::string faultInSale(Tally& tally, int session, const char* activationCode) {
    constexpr std::size_t DOCUMENT = 6, TOTAL = 9, FIELDS = 12;
    const Sale sale = till::writeSale(static_cast<unsigned>(session));
    const auto fields =
        tally.timed([&] { return EnviarDadosVenda(session, activationCode, sale.document.c_str()); });
    if (std::string fault = till::faultInHead(session, "06000", fields); !fault.empty()) return fault;
    if (fields.size() != FIELDS) return std::to_string(fields.size()) + " fields";
    if (fields[TOTAL] != sale.total) return "total " + fields[TOTAL] + " for " + sale.total;
    return faultInDocument(sale, Base64::decode(fields[DOCUMENT]));
}

}  // namespace

int main(int argc, char** argv) {
    const int count = argc == 3 ? std::atoi(argv[1]) : 0;
    if (count < 1) {
        std::cerr << "usage: driver_exchange COUNT ACTIVATION_CODE\n";
        return 2;
    }
    Tally queries{"ConsultarSAT"}, sales{"EnviarDadosVenda"};
    for (int i = 1; i <= count; ++i) {
        queries.note(2 * i, faultInQuery(queries, 2 * i));
        sales.note(2 * i + 1, faultInSale(sales, 2 * i + 1, argv[2]));
    }
    for (const Tally* tally : {&queries, &sales}) {
        std::cout << "total " << tally->name << ' ' << tally->calls << ' ' << tally->failed << ' '
                  << tally->worst.count() << '\n';
    }
    return queries.failed + sales.failed > 0;
}
