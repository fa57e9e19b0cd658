#pragma once

// Conversions between the library's UTF-16 text and the terminal's UTF-8.

#include <boost/date_time/posix_time/ptime.hpp>
#include <filesystem>
#include <string>

namespace tsapp::tool {

std::string utf8(const std::u16string& text);
std::u16string utf16(const std::string& text);

// The absolute, lexically normal form of a path the user gave, without a
// trailing separator: what messages show and the library is handed.
std::filesystem::path nativePath(const std::string& path);

// "2026-11-23T14:05:09" for a local time; empty for not-a-date-time.
std::string isoLocalTime(const boost::posix_time::ptime& time);

}  // namespace tsapp::tool
