#pragma once

// Conversions between the library's UTF-16 text and the terminal's UTF-8.

#include <boost/date_time/posix_time/ptime.hpp>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tsapp::tool {

std::string utf8(const std::u16string& text);
std::u16string utf16(const std::string& text);

// The absolute, lexically normal form of a path the user gave, without a
// trailing separator: what messages show and the library is handed.
std::filesystem::path nativePath(const std::string& path);

// "1 package", "2 packages": a count and its noun, plural by "s".
std::string counted(std::uint64_t count, const std::string& noun);

// Rows in columns two spaces apart, each as wide as its widest cell
// (counted in characters, the cells being shown() text), the last one
// not padded; the first row is the header.
void printColumns(const std::vector<std::vector<std::string>>& rows);

// "84 B", "2.5 KiB", "1.3 MiB": a size for people, in binary units.
std::string sizeText(std::uint64_t bytes);

// Whether `a` sorts before `b` as people read names: case ignored
// (fl::i18n::folded()), then as bytes, so that the order is total.
bool byName(const std::string& a, const std::string& b);

// "2026-11-26 14:05" in the local time zone.
std::string localMinute(std::int64_t seconds);

// "2026-11-23T14:05:09" for a local time; empty for not-a-date-time.
std::string isoLocalTime(const boost::posix_time::ptime& time);

}  // namespace tsapp::tool
