#include "tsappinstall/timeconv/UtcText.hpp"

#include <ctime>

namespace tsappinstall {

std::string formatUtc(std::int64_t secondsSinceEpoch) {
    const std::time_t t = static_cast<std::time_t>(secondsSinceEpoch);
    std::tm parts{};
    gmtime_r(&t, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::optional<std::int64_t> parseUtc(const std::string& text) {
    std::tm parts{};
    const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    if (end == nullptr || *end != '\0' || text.size() != 20) return std::nullopt;
    return static_cast<std::int64_t>(timegm(&parts));
}

}  // namespace tsappinstall
