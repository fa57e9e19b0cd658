#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

#include <clocale>
#include <sstream>

#include "CatalogResource.hpp"
#include "platform/base/Ascii.hpp"

namespace resource_core {

BaseMsgID::BaseMsgID(std::string_view catalogName, std::string_view keyName,
                     std::uint32_t argumentCount)
    : arguments(argumentCount, MessageArgument{0L}), catalog(catalogName), key(keyName) {}

}  // namespace resource_core

namespace fl::i18n {
namespace {

const std::vector<detail::Catalog>& catalogs() {
    // Parsed once; the sources are constant data of this library.
    static const std::vector<detail::Catalog> parsed = [] {
        std::vector<detail::Catalog> all;
        for (std::string_view source : detail::compiled_catalog_sources()) {
            all.push_back(detail::parse_catalog(source));
        }
        return all;
    }();
    return parsed;
}

const std::u16string* find_text(const resource_core::BaseMsgID& id, std::string_view language) {
    for (const detail::Catalog& catalog : catalogs()) {
        if (catalog.name != id.catalog) continue;
        const auto lang = catalog.languages.find(language);
        if (lang == catalog.languages.end()) return nullptr;
        const auto text = lang->second.find(id.key);
        return text == lang->second.end() ? nullptr : &text->second;
    }
    return nullptr;
}

std::u16string argument_text(const resource_core::MessageArgument& argument) {
    struct Visitor {
        std::u16string operator()(long v) const { return to_ustring(std::to_string(v)); }
        std::u16string operator()(const std::string& v) const { return to_ustring(v); }
        std::u16string operator()(const std::u16string& v) const { return v; }
        std::u16string operator()(double v) const {
            std::ostringstream out;
            out.imbue(std::locale::classic());
            out << v;
            return to_ustring(out.str());
        }
    };
    return std::visit(Visitor{}, argument);
}

}  // namespace

std::string MessageCatalog::current_language() {
    const char* name = std::setlocale(LC_MESSAGES, nullptr);
    if (name == nullptr) return "en";
    std::string language;
    for (const char* p = name; *p != '\0' && *p != '_' && *p != '.' && *p != '@'; ++p) {
        language += opc::detail::ascii_lower(*p);
    }
    if (language.empty() || language == "c" || language == "posix") return "en";
    return language;
}

std::u16string MessageCatalog::get_message(const resource_core::BaseMsgID& id) {
    return get_message(id, current_language());
}

std::u16string MessageCatalog::get_message(const resource_core::BaseMsgID& id,
                                           std::string_view language) {
    const std::u16string* text = find_text(id, language);
    if (text == nullptr && language != "en") text = find_text(id, "en");
    if (text == nullptr) {
        return to_ustring("[no text for message " + id.key + " in catalog " + id.catalog + "]");
    }
    std::vector<std::u16string> args;
    args.reserve(id.arguments.size());
    for (const auto& argument : id.arguments) args.push_back(argument_text(argument));
    return detail::fill_placeholders(*text, args);
}

}  // namespace fl::i18n
