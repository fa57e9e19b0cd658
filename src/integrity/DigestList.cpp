// The digest part's text, in sha256sum's line format.

#include <algorithm>
#include <string_view>
#include <unordered_set>

#include "platform/extract/ExtractionPaths.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace tsappinstall::integrity {
namespace {

constexpr std::size_t kHexDigits = 64;
const std::string kNameGap = "  ";

bool isLowerHex(std::string_view text) {
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

// What sha256sum escapes; a line naming such a file starts with "\".
bool needsEscape(std::string_view name) {
    return name.find_first_of("\\\n\r") != std::string_view::npos;
}

std::string escaped(const std::string& name) {
    std::string out;
    for (char c : name) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else
            out += c;
    }
    return out;
}

[[noreturn]] void badLine(std::size_t line, const std::string& why) {
    throw IntegrityError("line " + std::to_string(line) + " of the digest list " + why,
                         FaultKind::MalformedDigestList);
}

std::string unescaped(std::string_view name, std::size_t line) {
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] != '\\') {
            out += name[i];
            continue;
        }
        const char next = i + 1 < name.size() ? name[++i] : '\0';
        if (next != '\\' && next != 'n' && next != 'r')
            badLine(line, "holds an escape sha256sum does not write");
        out += next == 'n' ? '\n' : next == 'r' ? '\r' : '\\';
    }
    return out;
}

// Names that no part can have, or that version 1 lists could not escape.
bool isPlainName(const std::string& name, int version) {
    if (name.empty() || name.front() == '/' || name.find('\0') != std::string::npos) return false;
    return version == 2 || !needsEscape(name);
}

// The lines of a text that ends with a line break, numbered from 1; each
// a view into the text.
class Lines {
  public:
    explicit Lines(const std::string& text) : text_(text) {}
    bool next(std::string_view& line) {
        if (at_ >= text_.size()) return false;
        const std::size_t end = text_.find('\n', at_);
        line = std::string_view(text_).substr(at_, end - at_);
        at_ = end + 1;
        ++number_;
        return true;
    }
    std::size_t number() const { return number_; }

  private:
    const std::string& text_;
    std::size_t at_ = 0;
    std::size_t number_ = 0;
};

DigestEntry parseLine(std::string_view line, std::size_t number, int version) {
    const bool escapes = version == 2 && !line.empty() && line.front() == '\\';
    const std::string_view body = escapes ? line.substr(1) : line;
    if (body.size() < kHexDigits + 3 || !isLowerHex(body.substr(0, kHexDigits)) ||
        body[kHexDigits] != ' ' || (body[kHexDigits + 1] != ' ' && body[kHexDigits + 1] != '*'))
        badLine(number, "is not \"<64 lower-case hex digits>  <name>\"");
    const std::string_view written = body.substr(kHexDigits + 2);
    DigestEntry entry{escapes ? unescaped(written, number) : std::string(written),
                      std::string(body.substr(0, kHexDigits))};
    if (!isPlainName(entry.name, version)) badLine(number, "names no item: \"" + entry.name + "\"");
    if (escapes != needsEscape(entry.name))
        badLine(number, "is not escaped as sha256sum escapes it");
    return entry;
}

// Version 2's second line: the content types, which is no file.
std::string contentTypesComment(std::string_view line, std::size_t number) {
    const std::string end = kNameGap + CONTENT_TYPES_ITEM;
    if (line.size() != 2 + kHexDigits + end.size() || line.compare(0, 2, "# ") != 0 ||
        !isLowerHex(line.substr(2, kHexDigits)) || line.compare(2 + kHexDigits, end.size(), end))
        badLine(number, "is not \"# <64 lower-case hex digits>  [Content_Types].xml\"");
    return std::string(line.substr(2, kHexDigits));
}

// The version the first line names; it must name one this library reads.
int versionOf(const std::string& text) {
    if (text.empty() || text.front() != '#') return 1;
    if (text.compare(0, std::string(DIGESTS_HEADER).size() + 1, DIGESTS_HEADER + std::string("\n")))
        badLine(1, "is not \"" + std::string(DIGESTS_HEADER) + "\"");
    return 2;
}

void formatLine(std::string& text, const std::string& sha256, const std::string& name) {
    text += needsEscape(name) ? "\\" + sha256 + kNameGap + escaped(name) : sha256 + kNameGap + name;
    text += '\n';
}

}  // namespace

std::string formatDigestList(const DigestList& list) {
    std::string text;
    if (list.version == 2) {
        text = std::string(DIGESTS_HEADER) + "\n";
        text += "# " + list.contentTypesSha256 + kNameGap + CONTENT_TYPES_ITEM + "\n";
    } else if (!list.contentTypesSha256.empty()) {
        formatLine(text, list.contentTypesSha256, CONTENT_TYPES_ITEM);
    }
    for (const DigestEntry& entry : list.parts) formatLine(text, entry.sha256, entry.name);
    return text;
}

DigestList parseDigestList(const std::string& text) {
    if (!text.empty() && text.back() != '\n')
        badLine(1 + std::count(text.begin(), text.end(), '\n'), "does not end with a line break");
    DigestList list;
    list.version = versionOf(text);
    Lines lines(text);
    std::string_view line;
    if (list.version == 2) {
        lines.next(line);
        if (!lines.next(line)) badLine(2, "is missing: it names [Content_Types].xml");
        list.contentTypesSha256 = contentTypesComment(line, lines.number());
    }
    // Reserved to as many entries as the text can hold, the list never
    // moves its names, so the set of names seen can hold views of them. An
    // entry's line is at least 68 bytes (64 digits, the gap, a name, the
    // break), so a list of bare line breaks reserves no more than its own
    // size.
    const std::size_t most = std::min<std::size_t>(std::count(text.begin(), text.end(), '\n'),
                                                   text.size() / (kHexDigits + 4));
    list.parts.reserve(most);
    std::unordered_set<std::string_view> names;
    names.reserve(most);
    while (lines.next(line)) {
        DigestEntry entry = parseLine(line, lines.number(), list.version);
        if (names.count(entry.name)) badLine(lines.number(), "lists \"" + entry.name + "\" again");
        if (list.version == 1 && entry.name == CONTENT_TYPES_ITEM) {
            list.contentTypesSha256 = entry.sha256;
            names.insert(CONTENT_TYPES_ITEM);
        } else {
            if (list.parts.size() == list.parts.capacity())
                badLine(lines.number(), "lists more than the text can hold");
            list.parts.push_back(std::move(entry));
            names.insert(list.parts.back().name);
        }
    }
    return list;
}

std::string listedName(const std::string& partName, int version) {
    if (partName.empty() || partName.front() != '/')
        throw opc::Exception("\"" + partName + "\" is not a part name");
    if (version == 1) return partName.substr(1);
    return opc::detail::filePathFor(partName);
}

}  // namespace tsappinstall::integrity
