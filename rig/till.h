#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Code that the rig's applications share.
namespace till {

constexpr std::size_t SALE_BYTES = 1048576;

struct Sale {
    std::string document;
    /// The start of each item's element, as in the document.
    std::vector<std::string> products;
    std::string total;
};

/// A sale of SALE_BYTES with random items, so that its frame still fills many writes of the library.
Sale writeSale(unsigned seed);

/// The problem with the last call's status, or with the session number or code in its answer; empty if there
/// is none.
std::string faultInHead(int session, const std::string& code, const std::vector<std::string>& answerFields);

}  // namespace till
