#include "CatalogResource.hpp"

#include <stdexcept>

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace fl::i18n::detail {
namespace {

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return {};
    const auto last = s.find_last_not_of(" \t\r");
    return s.substr(first, last - first + 1);
}

[[noreturn]] void fail(std::size_t lineNo, const char* what) {
    throw std::runtime_error("message catalog resource, line " + std::to_string(lineNo) + ": " +
                             what);
}

}  // namespace

Catalog parse_catalog(std::string_view source) {
    Catalog catalog;
    std::string language;
    std::size_t lineNo = 0;
    while (!source.empty()) {
        const auto end = source.find('\n');
        const std::string_view line = trim(source.substr(0, end));
        source = end == std::string_view::npos ? std::string_view{} : source.substr(end + 1);
        ++lineNo;
        if (line.empty() || line.front() == '#') continue;
        if (line.front() == '[') {
            if (line.back() != ']' || line.size() < 3) fail(lineNo, "bad language header");
            language = std::string(line.substr(1, line.size() - 2));
            catalog.languages[language];
            continue;
        }
        const auto eq = line.find('=');
        if (eq == std::string_view::npos) fail(lineNo, "expected KEY = TEXT");
        const std::string key(trim(line.substr(0, eq)));
        const std::string text(trim(line.substr(eq + 1)));
        if (key.empty()) fail(lineNo, "empty key");
        if (language.empty()) {
            if (key != "catalog") fail(lineNo, "entry before any [language]");
            catalog.name = text;
            continue;
        }
        if (!catalog.languages[language].emplace(key, to_ustring(text)).second) {
            fail(lineNo, "duplicate key");
        }
    }
    if (catalog.name.empty()) fail(lineNo, "no catalog name");
    return catalog;
}

std::u16string fill_placeholders(const std::u16string& text,
                                 const std::vector<std::u16string>& args) {
    std::u16string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t c = text[i];
        if ((c == u'{' || c == u'}') && i + 1 < text.size() && text[i + 1] == c) {
            out += c;
            ++i;
            continue;
        }
        if (c == u'{') {
            std::size_t j = i + 1;
            std::size_t index = 0;
            while (j < text.size() && text[j] >= u'0' && text[j] <= u'9' && j - i <= 4) {
                index = index * 10 + static_cast<std::size_t>(text[j] - u'0');
                ++j;
            }
            if (j > i + 1 && j < text.size() && text[j] == u'}' && index < args.size()) {
                out += args[index];
                i = j;
                continue;
            }
        }
        out += c;
    }
    return out;
}

}  // namespace fl::i18n::detail
