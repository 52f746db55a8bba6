#include "rules/content.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <map>
#include <pugixml.hpp>
#include <sstream>
#include <vector>

#include "terminal_text.h"

namespace fiscorad {
namespace {

/// Beyond this, a device may leave out what does not fit its answer, from the end.
constexpr std::size_t MAY_BE_CUT = 1'000'000;

/// The texts of all elements, by the path of their names, each in the document's order.
using Texts = std::map<std::string, std::vector<std::string>>;

std::string withoutExtraBlanks(const char* text) {
    std::istringstream words(text);
    std::string result;
    for (std::string word; words >> word;) result += result.empty() ? word : " " + word;
    return tool::toUtf8(result);
}

void collect(const pugi::xml_node& element, const std::string& path, Texts& texts) {
    const std::string here = path + "/" + element.name();
    const std::string text = withoutExtraBlanks(element.child_value());
    if (!text.empty()) texts[here].push_back(text);
    for (const pugi::xml_node& child : element.children())
        if (child.type() == pugi::node_element) collect(child, here, texts);
}

struct Parsed {
    Parsed(std::string_view xml, pugi::xml_encoding encoding)
        : wellFormed(document.load_buffer(xml.data(), xml.size(), pugi::parse_default, encoding)) {
        if (wellFormed) collect(document.document_element(), "", texts);
    }

    pugi::xml_document document;
    bool wellFormed;
    Texts texts;
};

bool hasContentOf(std::string_view signedDocument, std::string_view sent, std::string_view saleKey,
                  pugi::xml_encoding encoding) {
    const Parsed device(signedDocument, encoding);
    const Parsed till(sent, encoding);
    if (!device.wellFormed || !till.wellFormed) return false;
    const bool mayBeCut = signedDocument.size() > MAY_BE_CUT;
    for (const auto& [path, given] : till.texts) {
        const auto found = device.texts.find(path);
        if (found == device.texts.end()) {
            if (!mayBeCut) return false;
            continue;
        }
        const auto& booked = found->second;
        const bool complete = booked.size() == given.size() || (mayBeCut && booked.size() < given.size());
        if (!complete || !std::equal(booked.begin(), booked.end(), given.begin())) return false;
    }
    const std::string cancelled =
        device.document.document_element().child("infCFe").attribute("chCanc").value();
    return cancelled == saleKey;
}

}  // namespace

bool hasContentOf(std::string_view signedDocument, std::string_view sent, std::string_view saleKey) {
    // As both documents declare; or else as bytes, which a device may keep without their declaration.
    return hasContentOf(signedDocument, sent, saleKey, pugi::encoding_auto) ||
           hasContentOf(signedDocument, sent, saleKey, pugi::encoding_utf8);
}

}  // namespace fiscorad
