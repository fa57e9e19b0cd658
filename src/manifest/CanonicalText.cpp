#include "manifest/CanonicalText.hpp"

#include <boost/lexical_cast.hpp>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Conversions.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

namespace manifest_seal {
namespace {

using Serializer = AppManifestSerializer;

// Whether the writer may treat `c`, at `i` in `value`, otherwise than as
// itself: controls, C1 characters, non-characters, lone surrogates.
bool unusual(const std::u16string& value, std::size_t i) {
    const char16_t c = value[i];
    if (c >= 0xD800 && c <= 0xDBFF)
        return i + 1 == value.size() || value[i + 1] < 0xDC00 || value[i + 1] > 0xDFFF;
    if (c >= 0xDC00 && c <= 0xDFFF) return i == 0 || value[i - 1] < 0xD800 || value[i - 1] > 0xDBFF;
    return c == 0xFFFE || c == 0xFFFF || (c < 0x20 && c != '\t' && c != '\n' && c != '\r') ||
           (c >= 0x7F && c < 0xA0);
}

// Appends `value` with the writer's escapes: in text & < > and carriage
// return; in attribute values & < " and the three whitespace controls.
// False for a character the writer may treat otherwise.
bool appendEscaped(std::u16string& out, const std::u16string& value, bool attribute) {
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (unusual(value, i)) return false;
        switch (value[i]) {
            case '&':
                out += u"&amp;";
                break;
            case '<':
                out += u"&lt;";
                break;
            case '>':
                out += attribute ? u">" : u"&gt;";
                break;
            case '"':
                out += attribute ? u"&quot;" : u"\"";
                break;
            case '\r':
                out += u"&#xD;";
                break;
            case '\t':
                out += attribute ? u"&#x9;" : u"\t";
                break;
            case '\n':
                out += attribute ? u"&#xA;" : u"\n";
                break;
            default:
                out += value[i];
        }
    }
    return true;
}

// The writer's layout: the root's children one to a line after a blank
// line, their children one to a line below them, two spaces a level.
class Writer {
  public:
    std::u16string text;
    bool ok = true;

    void open(const char16_t* name, int depth) {
        startTag(name, depth);
        text += '>';
    }
    void close(const char16_t* name, int depth) {
        text += '\n';
        text.append(static_cast<std::size_t>(depth) * 2, ' ');
        endTag(name);
    }
    void element(const char16_t* name, const std::u16string& value, int depth) {
        open(name, depth);
        ok = ok && appendEscaped(text, value, false);
        endTag(name);
    }
    void list(const char16_t* name, const char16_t* item,
              const std::vector<std::u16string>& values) {
        if (values.empty()) return empty(name);
        open(name, 1);
        for (const std::u16string& value : values) element(item, value, 2);
        close(name, 1);
    }
    void empty(const char16_t* name) {
        startTag(name, 1);
        text += u"/>";
    }
    void attribute(const char16_t* name, const std::u16string& value) {
        text += ' ';
        text += name;
        text += u"=\"";
        ok = ok && appendEscaped(text, value, true);
        text += '"';
    }
    void startTag(const char16_t* name, int depth) {
        if (depth > 0) text += depth == 1 ? u"\n\n" : u"\n";
        text.append(static_cast<std::size_t>(depth) * 2, ' ');
        text += '<';
        text += name;
    }
    void endTag(const char16_t* name) {
        text += u"</";
        text += name;
        text += '>';
    }
};

}  // namespace

std::u16string numFilesText(std::uint64_t count) {
    return fl::i18n::to_ustring(boost::lexical_cast<std::string>(count));
}

std::u16string createdText(const boost::posix_time::ptime& local) {
    return opc::convertTimeToString(convertLocalTimeToUTC(local));
}

std::optional<std::string> canonicalText(const AppManifest& m) {
    Writer w;
    w.text = u"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n";
    w.startTag(Serializer::APPPROPERTIES_ELEMENT, 0);
    w.attribute(u"xmlns", Serializer::NAMESPACE);
    w.text += '>';
    w.element(Serializer::ENTRYPOINT_ELEMENT, m.entryPoint, 1);
    w.element(Serializer::NAME_ELEMENT, m.name, 1);
    w.element(Serializer::VERSION_ELEMENT, m.version, 1);
    w.element(Serializer::CREATEDBYTESSALRELEASE_ELEMENT, m.createdByTESSALRelease, 1);
    w.element(Serializer::GUID_ELEMENT, fl::i18n::to_ustring(m.GUID), 1);
    const std::pair<const char16_t*, const std::u16string*> optional[] = {
        {Serializer::SUMMARY_ELEMENT, &m.summary},
        {Serializer::DESCRIPTION_ELEMENT, &m.description},
        {Serializer::MINTESSALVER_ELEMENT, &m.minTESSALVer},
        {Serializer::MAXTESSALVER_ELEMENT, &m.maxTESSALVer}};
    for (const auto& [name, value] : optional)
        if (!value->empty()) w.element(name, *value, 1);
    if (!m.authorName.empty()) {
        w.open(Serializer::AUTHOR_ELEMENT, 1);
        w.element(Serializer::NAME_ELEMENT, m.authorName, 2);
        w.element(Serializer::CONTACT_ELEMENT, m.authorContact, 2);
        w.element(Serializer::ORGANIZATION_ELEMENT, m.authorOrganization, 2);
        w.close(Serializer::AUTHOR_ELEMENT, 1);
    }
    w.list(Serializer::SUPPORTEDPLATFORMS_ELEMENT, Serializer::PLATFORM_ELEMENT,
           m.supportedPlatforms);
    if (m.requiredProducts.empty()) {
        w.empty(Serializer::REQUIREDPRODUCTS_ELEMENT);
    } else {
        w.open(Serializer::REQUIREDPRODUCTS_ELEMENT, 1);
        for (const RequiredProduct& product : m.requiredProducts) {
            w.startTag(Serializer::PRODUCT_ELEMENT, 2);
            w.attribute(Serializer::IDENTIFIER_ATTRIBUTE, product.identifier);
            w.attribute(Serializer::NAME_ATTRIBUTE, product.name);
            w.attribute(Serializer::VERSION_ATTRIBUTE, product.version);
            w.text += u"/>";
        }
        w.close(Serializer::REQUIREDPRODUCTS_ELEMENT, 1);
    }
    if (!m.pathEntries.empty())
        w.list(Serializer::PATHENTRIES_ELEMENT, Serializer::PATH_ELEMENT, m.pathEntries);
    w.element(Serializer::NUMFILES_ELEMENT, numFilesText(m.numFiles), 1);
    w.element(Serializer::CREATED_ELEMENT, createdText(m.created), 1);
    if (!m.appEntries.empty())
        w.list(Serializer::APPENTRIES_ELEMENT, Serializer::APPFILE_ELEMENT, m.appEntries);
    w.text += u"\n\n";
    w.endTag(Serializer::APPPROPERTIES_ELEMENT);
    w.text += '\n';
    if (!w.ok) return std::nullopt;
    return fl::i18n::to_string(w.text);
}

}  // namespace manifest_seal
