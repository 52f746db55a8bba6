#pragma once

#include <deque>
#include <string>
#include <vector>

#include "rules/document.h"

namespace crash {

/// What a till was told of a document's state.
struct Told {
    std::string state;
    std::string accessKey;       ///< if it was "emitida"
    std::string signedDocument;  ///< if it came along
};

/// Whether nothing changes any more.
inline bool isLastWord(const Told& told) {
    const auto state = fiscorad::stateNamed(told.state);
    return state && fiscorad::isFinal(*state);
}

/// A document that a till has handed in, or may have: its connection can have broken before the service had
/// it.
struct HandedIn {
    std::string key;  ///< empty: handed in without one, by the form API
    fiscorad::Kind kind = fiscorad::Kind::Sale;
    std::string body;     ///< no two documents have the same
    std::string saleKey;  ///< of a cancellation
    bool byForm = false;
    std::vector<Told> told;  ///< in the order in which it was told

    bool isFinal() const { return !told.empty() && isLastWord(told.back()); }
    /// Final, or only a person can change it.
    bool isSettled() const { return isFinal() || (!told.empty() && told.back().state == "a-decidir"); }
};

/// Of all tills of a shop.
using Records = std::deque<HandedIn>;

}  // namespace crash
