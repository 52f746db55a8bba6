#pragma once

#include <string>
#include <utility>

namespace doctor {

enum class Verdict { Ok, Warning, Error, Skipped };

/// What one check found out, in the user's language.
struct Finding {
    Verdict verdict;
    std::string found;        ///< without a full stop
    std::string advice = {};  ///< what to do, in whole sentences; empty if there is nothing to do
};

inline Finding ok(std::string found) { return {Verdict::Ok, std::move(found)}; }
inline Finding warning(std::string found, std::string advice) {
    return {Verdict::Warning, std::move(found), std::move(advice)};
}
inline Finding error(std::string found, std::string advice) {
    return {Verdict::Error, std::move(found), std::move(advice)};
}
inline Finding skipped(std::string reason) { return {Verdict::Skipped, std::move(reason)}; }

}  // namespace doctor
