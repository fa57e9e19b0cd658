#include <boost/locale/encoding_utf.hpp>

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

}  // namespace fl::i18n
