#include "journal/packing.h"

#include <zlib.h>

#include <cerrno>

#include "i18n.h"
#include "journal/Journal.h"

namespace fiscorad {
namespace {

/// What zlib can look back to.
constexpr std::size_t WINDOW = 32768;

const Bytef* bytes(std::string_view text) { return reinterpret_cast<const Bytef*>(text.data()); }
Bytef* bytes(std::string& text) { return reinterpret_cast<Bytef*>(text.data()); }
uInt length(std::string_view text) { return static_cast<uInt>(text.size()); }

std::string_view endOf(std::string_view dictionary) {
    return dictionary.size() > WINDOW ? dictionary.substr(dictionary.size() - WINDOW) : dictionary;
}

}  // namespace

std::string pack(std::string_view text, std::string_view dictionary) {
    z_stream stream{};
    if (deflateInit(&stream, Z_BEST_COMPRESSION) != Z_OK) throw JournalError(tool::systemError(ENOMEM));
    const std::string_view end = endOf(dictionary);
    if (!end.empty()) deflateSetDictionary(&stream, bytes(end), length(end));
    std::string packed(deflateBound(&stream, text.size()), '\0');
    stream.next_in = const_cast<Bytef*>(bytes(text));
    stream.avail_in = length(text);
    stream.next_out = bytes(packed);
    stream.avail_out = length(packed);
    const int result = deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) throw JournalError(tool::systemError(ENOMEM));
    return packed;
}

std::string unpack(std::string_view packed, std::size_t size, std::string_view dictionary) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) throw JournalError(tool::systemError(ENOMEM));
    std::string text(size, '\0');
    char spare = 0;  // an empty text has no bytes to point to
    stream.next_in = const_cast<Bytef*>(bytes(packed));
    stream.avail_in = length(packed);
    stream.next_out = text.empty() ? reinterpret_cast<Bytef*>(&spare) : bytes(text);
    stream.avail_out = length(text);
    int result = inflate(&stream, Z_FINISH);
    if (result == Z_NEED_DICT) {
        const std::string_view end = endOf(dictionary);
        if (inflateSetDictionary(&stream, bytes(end), length(end)) == Z_OK)
            result = inflate(&stream, Z_FINISH);
    }
    const bool whole = result == Z_STREAM_END && stream.total_out == size;
    inflateEnd(&stream);
    if (!whole) throw JournalError(tool::tr("a text in the journal is damaged"));
    return text;
}

}  // namespace fiscorad
