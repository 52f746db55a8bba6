#pragma once

#include <string>
#include <string_view>

#include "rules/document.h"

namespace fiscorad {

/// Whether `signedDocument` is what a device makes of `sent`: every text of every element that was sent
/// stands in it, in the same order. A device adds elements, changes blanks and drops empty elements, and may
/// cut a document whose answer would grow beyond a megabyte. Of a cancellation, the sale that it names must
/// be `saleKey`. False if either is not well-formed. The encodings may differ.
bool hasContentOf(std::string_view signedDocument, std::string_view sent, std::string_view saleKey);

}  // namespace fiscorad
