#include "Text.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsapp::tool {

std::string utf8(const std::u16string& text) {
    return fl::i18n::to_string(text);
}

std::u16string utf16(const std::string& text) {
    return fl::i18n::to_ustring(text);
}

std::string isoLocalTime(const boost::posix_time::ptime& time) {
    if (time.is_special()) return {};
    return boost::posix_time::to_iso_extended_string(time);
}

}  // namespace tsapp::tool
