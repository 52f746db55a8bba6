#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "fiscal/UCManipulaDadosSat.h"
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

    /// Whether this answers the call that was made with `arguments`, numeroSessao first: field 0 is its
    /// session number, or the one it asks about, and field 1 has five digits. Not so with a late answer to
    /// another call, or with one that could not be decompressed.
    bool answers(const std::vector<manipulaDados::Argument>& arguments) const;
    /// Whether its code says that the operation was done.
    bool isSuccess() const;

    /// In Base64; empty if the answer contains none.
    std::string_view document() const;

    /// Prints the status and the fields with their names: to a terminal in lines that fit it, without control
    /// characters; elsewhere byte for byte.
    void print(int status, Extent extent) const;

  private:
    const manipulaDados::Operation& m_operation;
    std::vector<std::string_view> m_fields;
    const manipulaDados::AnswerLayout& m_layout;
};

}  // namespace call
