#include "Text.hpp"

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <iterator>

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

std::string counted(std::uint64_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

namespace {

// Characters, not bytes: a UTF-8 continuation byte starts none.
std::size_t widthOf(const std::string& text) {
    std::size_t width = 0;
    for (unsigned char c : text) width += (c & 0xC0) != 0x80;
    return width;
}

}  // namespace

void printColumns(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i) {
            if (widths.size() <= i) widths.push_back(0);
            widths[i] = std::max(widths[i], widthOf(row[i]));
        }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - widthOf(row[i]) + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);  // an empty last cell leaves no blanks
        std::cout << line << '\n';
    }
}

std::string sizeText(std::uint64_t bytes) {
    static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) return std::to_string(bytes) + " B";
    double size = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (size /= 1024; size >= 1024 && unit + 1 < std::size(kUnits); size /= 1024) ++unit;
    char text[32];
    std::snprintf(text, sizeof text, size < 10 ? "%.1f %s" : "%.0f %s", size, kUnits[unit]);
    return text;
}

bool byName(const std::string& a, const std::string& b) {
    const std::string foldedA = fl::i18n::folded(a), foldedB = fl::i18n::folded(b);
    return foldedA != foldedB ? foldedA < foldedB : a < b;
}

std::string isoLocalTime(const boost::posix_time::ptime& time) {
    if (time.is_special()) return {};
    return boost::posix_time::to_iso_extended_string(time);
}

// "2026-11-26 14:05" in the local time zone.
std::string localMinute(std::int64_t seconds) {
    const auto t = static_cast<std::time_t>(seconds);
    std::tm local{};
    char text[32] = "";
    if (::localtime_r(&t, &local) != nullptr)
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

}  // namespace tsapp::tool
