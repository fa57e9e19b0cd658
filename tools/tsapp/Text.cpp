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

std::filesystem::path nativePath(const std::string& path) {
    std::string normal = std::filesystem::absolute(path).lexically_normal().string();
    if (normal.size() > 1 && normal.back() == '/') normal.pop_back();
    return normal;
}

std::string isoLocalTime(const boost::posix_time::ptime& time) {
    if (time.is_special()) return {};
    return boost::posix_time::to_iso_extended_string(time);
}

}  // namespace tsapp::tool
