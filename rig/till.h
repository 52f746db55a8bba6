#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// What the applications of the rig share.
namespace till {

constexpr std::size_t SALE_BYTES = 1048576;

struct Sale {
    std::string document;
    /// Of each item, the beginning of its element as it stands in the document.
    std::vector<std::string> products;
    std::string total;
};

/// A sale of SALE_BYTES with random items, so that its frame still fills many writes of the library.
Sale writeSale(unsigned seed);

/// What is wrong with the status of the last call, or with the session number or the code of its answer;
/// empty if nothing is.
std::string faultInHead(int session, const std::string& code, const std::vector<std::string>& answerFields);

}  // namespace till
