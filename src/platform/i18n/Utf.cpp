#include <locale.h>
#include <wctype.h>
#include <boost/locale/encoding_utf.hpp>
#include <boost/locale/utf.hpp>

#include "platform/base/Ascii.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace fl::i18n {

namespace conv = boost::locale::conv;

std::string to_string(const std::u16string& text) {
    try {
        return conv::utf_to_utf<char>(text, conv::stop);
    } catch (const conv::conversion_error&) {
        throw ConversionError("invalid UTF-16 text: unpaired surrogate");
    }
}

std::u16string to_ustring(const std::string& text) {
    try {
        return conv::utf_to_utf<char16_t>(text, conv::stop);
    } catch (const conv::conversion_error&) {
        throw ConversionError("invalid UTF-8 text: malformed byte sequence");
    }
}

std::u16string to_ustring(const char* text) {
    return to_ustring(std::string(text != nullptr ? text : ""));
}

namespace {

bool is_control(boost::locale::utf::code_point c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0);
}

void append_escaped(std::string& out, std::string::const_iterator from,
                    std::string::const_iterator to) {
    for (; from != to; ++from) {
        const auto byte = static_cast<unsigned char>(*from);
        out += "\\x" + opc::detail::lower_hex(&byte, 1);
    }
}

}  // namespace

std::string shown(const std::string& bytes) {
    namespace utf = boost::locale::utf;
    std::string out;
    out.reserve(bytes.size());
    for (auto at = bytes.begin(); at != bytes.end();) {
        const auto start = at;
        const utf::code_point c = utf::utf_traits<char>::decode(at, bytes.end());
        if (c == utf::illegal || c == utf::incomplete) {
            at = start + 1;
            append_escaped(out, start, at);
        } else if (c == '\n' || c == '\t' || c == '\r') {
            out += c == '\n' ? "\\n" : c == '\t' ? "\\t" : "\\r";
        } else if (is_control(c)) {
            append_escaped(out, start, at);
        } else {
            out.append(start, at);
        }
    }
    return out;
}

namespace {

// The C library's Unicode case table, whatever locale the process runs
// in: the "C.UTF-8" locale has it, the "C" locale only ASCII's.
locale_t unicodeCase() {
    static const locale_t locale = [] {
        locale_t made = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        return made != static_cast<locale_t>(nullptr) ? made
                                                      : ::newlocale(LC_CTYPE_MASK, "C", nullptr);
    }();
    return locale;
}

}  // namespace

std::string folded(const std::string& text) {
    namespace utf = boost::locale::utf;
    const locale_t locale = unicodeCase();
    std::string out;
    out.reserve(text.size());
    for (auto at = text.begin(); at != text.end();) {
        const auto start = at;
        const utf::code_point c = utf::utf_traits<char>::decode(at, text.end());
        if (c == utf::illegal || c == utf::incomplete) {
            at = start + 1;
            out.append(start, at);
            continue;
        }
        const auto lower =
            static_cast<utf::code_point>(::towlower_l(static_cast<wint_t>(c), locale));
        utf::utf_traits<char>::encode(lower, std::back_inserter(out));
    }
    return out;
}

}  // namespace fl::i18n
