#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "fiscal/operations.h"

namespace call {

/// Whether an answer to `operation` can contain a document.
bool mayHoldDocument(const manipulaDados::Operation& operation);

/// How much of documents and signatures a terminal shows.
enum class Extent { Elided, Full };

/// An answer, taken apart into its fields.
class Answer {
  public:
    /// `body` is what `operation` was answered with, or empty; it outlives the object.
    Answer(const manipulaDados::Operation& operation, const std::string& body);

    /// In Base64; empty if the answer contains none.
    std::string_view document() const;

    /// Prints the status and the fields with their names: to a terminal in lines that fit it, without control
    /// characters; elsewhere byte for byte.
    void print(int status, Extent extent) const;

  private:
    std::vector<std::string_view> m_fields;
    const manipulaDados::AnswerLayout& m_layout;
};

}  // namespace call
