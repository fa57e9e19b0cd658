#pragma once

// The message catalog: localized texts looked up by catalog name and key,
// with arguments filled in, plus the UTF-8 <-> UTF-16 conversions every
// layer uses for paths and XML text.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tsappinstall/export.hpp"

namespace resource_core {

// The alternative index is part of the contract with the catalog: 0 is an
// unfilled slot, 1 an 8-bit string, 2 a UTF-16 string, 3 a double.
using MessageArgument = std::variant<long, std::string, std::u16string, double>;

// A message key in a named catalog with its arguments. Identifier classes
// derive from it and add no data.
class TSAPP_API BaseMsgID {
  public:
    BaseMsgID(std::string_view catalog, std::string_view key, std::uint32_t argumentCount);

    std::vector<MessageArgument> arguments;
    std::string catalog;
    std::string key;
};

}  // namespace resource_core

namespace fl::i18n {

// Raised by the conversions for text that is not valid in its encoding.
class TSAPP_API ConversionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class TSAPP_API MessageCatalog {
  public:
    // The text of id.key in id.catalog, in the language of the process's
    // LC_MESSAGES locale (English when that language has no translation),
    // with "{N}" replaced by argument N. A key or catalog that is not
    // compiled in yields a text that names it; this never throws for a
    // missing message.
    static std::u16string get_message(const resource_core::BaseMsgID& id);

    // The same lookup for an explicit language ("en", "de", ...); the
    // locale-driven overload calls it.
    static std::u16string get_message(const resource_core::BaseMsgID& id,
                                      std::string_view language);

    // The two-letter language the catalog would use right now.
    static std::string current_language();
};

// UTF-16 -> UTF-8. Throws ConversionError on an unpaired surrogate.
TSAPP_API std::string to_string(const std::u16string& text);
// UTF-8 -> UTF-16. Throws ConversionError on a malformed sequence.
TSAPP_API std::u16string to_ustring(const std::string& text);
TSAPP_API std::u16string to_ustring(const char* text);

// Bytes from outside (a file name, a manifest's or an index's text) as text
// that is safe to show on one line of a terminal: valid UTF-8 stays as it
// is, a line feed, a tab and a carriage return are written "\n", "\t" and
// "\r", and a byte that is not part of a valid sequence and every other
// control character (C0, DEL, C1) "\xNN", one escape a byte:
// "caf\xe9.tsappinstall" for a name in Latin-1.
TSAPP_API std::string shown(const std::string& bytes);

// UTF-8 text in lower case, letter by letter, by Unicode's simple case
// mapping ("Ärger" -> "ärger"), whatever locale the process runs in:
// for matching what a person typed without regard to case. Bytes that
// are not valid UTF-8 stay as they are.
TSAPP_API std::string folded(const std::string& text);

// The candidates a person most likely meant by `typed`, for a "did you
// mean" line: those fewest edits away (an insert, a delete, a replace or a
// swap of two neighbours, letter by letter, case ignored), when that is at
// most a third of its length (at least 2), in the order given, each once;
// none when none is that close.
TSAPP_API std::vector<std::string> nearest(const std::string& typed,
                                           const std::vector<std::string>& candidates);

}  // namespace fl::i18n
