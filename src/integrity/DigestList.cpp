// The digest part's text, in sha256sum's line format.

#include <algorithm>
#include <set>

#include "tsappinstall/integrity/Digests.hpp"

namespace tsappinstall::integrity {
namespace {

constexpr std::size_t kHexDigits = 64;

bool isLowerHex(const std::string& text) {
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

// Names sha256sum would have to escape, or that no item can have.
bool isPlainName(const std::string& name) {
    if (name.empty() || name.front() == '/') return false;
    for (char c : name) {
        if (c == '\\' || c == '\r' || c == '\0') return false;
    }
    return true;
}

[[noreturn]] void badLine(std::size_t line, const std::string& why) {
    throw IntegrityError("line " + std::to_string(line) + " of the digest list " + why);
}

}  // namespace

std::string formatDigestList(const std::vector<DigestEntry>& entries) {
    std::string text;
    for (const DigestEntry& entry : entries) text += entry.sha256 + "  " + entry.item + "\n";
    return text;
}

std::vector<DigestEntry> parseDigestList(const std::string& text) {
    if (!text.empty() && text.back() != '\n')
        badLine(1 + std::count(text.begin(), text.end(), '\n'), "does not end with a line break");
    std::vector<DigestEntry> entries;
    std::set<std::string> names;
    std::size_t number = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        ++number;
        if (line.size() < kHexDigits + 3 || !isLowerHex(line.substr(0, kHexDigits)) ||
            line[kHexDigits] != ' ' || (line[kHexDigits + 1] != ' ' && line[kHexDigits + 1] != '*'))
            badLine(number, "is not \"<64 lower-case hex digits>  <name>\"");
        DigestEntry entry{line.substr(kHexDigits + 2), line.substr(0, kHexDigits)};
        if (!isPlainName(entry.item)) badLine(number, "names no item: \"" + entry.item + "\"");
        if (!names.insert(entry.item).second) badLine(number, "lists \"" + entry.item + "\" again");
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::string partNameOfItem(const std::string& item) {
    return item == CONTENT_TYPES_ITEM ? item : "/" + item;
}

}  // namespace tsappinstall::integrity
