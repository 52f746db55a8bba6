#include "call/Answer.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "fields.h"
#include "i18n.h"
#include "status_names.h"
#include "terminal_text.h"

namespace call {
namespace {

using manipulaDados::AnswerLayout;
using manipulaDados::Operation;
using tool::filled;
using tool::tr;
using tool::width;

constexpr std::size_t NAME_COLUMNS = 19;
constexpr std::size_t LEAST_VALUE_COLUMNS = 20;
constexpr std::size_t LONGEST_WORD = 80;  ///< longer than any word, shorter than any signature
constexpr std::size_t ELIDED_COLUMNS = 20;

bool isNumber(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// Such as "0 (FISCORA_STATUS_OK: the device answered)".
std::string described(int status) {
    const std::string name(tool::statusName(status));
    return std::to_string(status) + " (" + (name.empty() ? "" : "FISCORA_STATUS_" + name + ": ") +
           tr(tool::statusMeaning(status)) + ")";
}

/// The lines of a value on a terminal, if `columns` are left for it.
std::vector<std::string> linesOf(const std::string& value, std::size_t columns, Extent extent) {
    if (value.find(' ') != std::string::npos || width(value) <= LONGEST_WORD)
        return tool::wrapped(value, columns);
    if (extent == Extent::Full) return {value};  // on one line, so that it can be copied
    const std::string start = tool::cut(value, ELIDED_COLUMNS);
    return tool::wrapped(start + " " + filled(tr("(%zu bytes; --full shows all)"), value.size()), columns);
}

void printField(const std::string& name, std::string_view value, Extent extent) {
    if (value.empty()) {
        std::cout << name << '\n';
        return;
    }
    const std::string label = tool::leftAligned(name, std::max(NAME_COLUMNS, width(name) + 1));
    if (isatty(STDOUT_FILENO) == 0) {
        std::cout << label << value << '\n';
        return;
    }
    const std::size_t taken = width(label);
    const std::size_t columns =
        std::max(tool::terminalColumns(STDOUT_FILENO), taken + LEAST_VALUE_COLUMNS) - taken;
    std::string indent = label;
    for (const auto& line : linesOf(tool::withoutControls(tool::toUtf8(value)), columns, extent)) {
        std::cout << indent << line << '\n';
        indent = std::string(NAME_COLUMNS, ' ');
    }
}

}  // namespace

bool mayHoldDocument(const Operation& operation) {
    return operation.answer.fields == nullptr || operation.answer.documentField != AnswerLayout::NO_FIELD;
}

Answer::Answer(const Operation& operation, const std::string& body)
    : m_operation(operation),
      m_fields(body.empty() ? std::vector<std::string_view>() : fieldsOf(body)),
      m_layout(manipulaDados::layoutOf(operation, m_fields.size() > 1 ? m_fields[1] : "")) {}

bool Answer::answers(const std::vector<manipulaDados::Argument>& arguments) const {
    constexpr std::size_t SESSION_DIGITS = 6;
    constexpr std::size_t CODE_DIGITS = 5;
    if (m_fields.size() < 2 || !isNumber(m_fields[0]) || m_fields[0].size() > SESSION_DIGITS ||
        !isNumber(m_fields[1]) || m_fields[1].size() != CODE_DIGITS)
        return false;
    // It brings an earlier answer, and nobody here knows the session number of that.
    if (m_operation.command == std::string_view(manipulaDados::CMD_CONSULTA_ULTIMA_SESSAO_FISCAL))
        return true;
    const int number = std::stoi(std::string(m_fields[0]));
    for (std::size_t i = 0; i < arguments.size(); ++i)
        if (m_operation.parameters[i].kind == manipulaDados::Kind::SessionNumber &&
            std::get<int>(arguments[i]) == number)
            return true;
    return false;
}

bool Answer::isSuccess() const { return m_fields.size() > 1 && m_operation.succeededWith(m_fields[1]); }

std::string_view Answer::document() const {
    const std::size_t field = m_layout.documentField;
    return field != AnswerLayout::NO_FIELD && field < m_fields.size() ? m_fields[field] : std::string_view();
}

void Answer::print(int status, Extent extent) const {
    printField("status", described(status), extent);
    const auto names = fieldsOf(m_layout.fields);
    for (std::size_t i = 0; i < m_fields.size(); ++i)
        printField(i < names.size() ? std::string(names[i]) : filled(tr("field %zu"), i), m_fields[i],
                   extent);
    std::cout.flush();
}

}  // namespace call
