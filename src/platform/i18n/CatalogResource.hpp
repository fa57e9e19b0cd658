#pragma once

// Parsing of compiled-in catalog resource texts (format: see the comment at
// the top of any *.catalog file).

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace fl::i18n::detail {

// language -> key -> UTF-16 text
using LanguageTable =
    std::map<std::string, std::map<std::string, std::u16string, std::less<>>, std::less<>>;

struct Catalog {
    std::string name;
    LanguageTable languages;
};

// Throws std::runtime_error naming the line for malformed resource text.
Catalog parse_catalog(std::string_view source);

// The resource texts compiled into the library (generated at build time).
const std::vector<std::string_view>& compiled_catalog_sources();

// Replaces {N} with argument N and {{ / }} with a single brace. A
// placeholder without an argument is kept as written.
std::u16string fill_placeholders(const std::u16string& text,
                                 const std::vector<std::u16string>& args);

}  // namespace fl::i18n::detail
