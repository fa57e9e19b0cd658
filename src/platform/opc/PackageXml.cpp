#include "platform/opc/PackageXml.hpp"

#include "platform/base/Ascii.hpp"
#include "platform/opc/OpcNames.hpp"

#include <unordered_set>

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/XercesHelper.hpp"

using namespace xercesc;

namespace opc::model::detail {
namespace {

constexpr const char16_t* kContentTypesNamespace = opc::names::kContentTypesNamespaceU16;
constexpr const char16_t* kRelationshipsNamespace = opc::names::kRelationshipsNamespaceU16;

using opc::detail::ascii_lower;

bool equals(const XMLCh* text, const char16_t* expected) {
    return text != nullptr && std::u16string(text) == expected;
}

bool is_named(const DOMElement* element, const char16_t* ns, const char16_t* localName) {
    return equals(element->getNamespaceURI(), ns) && equals(element->getLocalName(), localName);
}

bool is_blank(const XMLCh* text) {
    for (; text != nullptr && *text != 0; ++text) {
        if (*text != u' ' && *text != u'\t' && *text != u'\r' && *text != u'\n') return false;
    }
    return true;
}

// The child elements of `root`; text other than white space is refused.
std::vector<const DOMElement*> child_elements(const DOMElement* root, const std::string& where) {
    std::vector<const DOMElement*> children;
    for (const DOMNode* node = root->getFirstChild(); node != nullptr;
         node = node->getNextSibling()) {
        const auto type = node->getNodeType();
        if (type == DOMNode::ELEMENT_NODE) {
            children.push_back(static_cast<const DOMElement*>(node));
        } else if ((type == DOMNode::TEXT_NODE || type == DOMNode::CDATA_SECTION_NODE) &&
                   !is_blank(node->getNodeValue())) {
            throw opc::Exception(opc::Reason::NotPackage,
                                 where + " holds text outside its elements");
        }
    }
    return children;
}

std::u16string attribute(const DOMElement* element, const char16_t* name,
                         const std::string& where) {
    const DOMAttr* node = element->getAttributeNode(name);
    if (node == nullptr) {
        throw opc::Exception(opc::Reason::NotPackage, where + ": an element lacks its " +
                                                          fl::i18n::to_string(name) + " attribute");
    }
    return node->getValue();
}

// Parses the stream; the document belongs to `parser`.
const DOMElement* parse_root(DOMLSParser* parser, InputStream& stream, const std::u16string& name) {
    return XercesHelper::readDocumentFromStream(parser, stream, true, name, u"")
        ->getDocumentElement();
}

bool is_token_char(char c) {
    static const std::string kSeparators = "()<>@,;:\\\"/[]?={} \t";
    return c > 0x20 && c < 0x7F && kSeparators.find(c) == std::string::npos;
}

std::size_t skip_token(const std::string& text, std::size_t pos) {
    while (pos < text.size() && is_token_char(text[pos])) ++pos;
    return pos;
}

std::size_t skip_spaces(const std::string& text, std::size_t pos) {
    while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t')) ++pos;
    return pos;
}

// A quoted string from the opening quote; returns the position after it,
// or npos when it does not close.
std::size_t skip_quoted(const std::string& text, std::size_t pos) {
    for (++pos; pos < text.size(); ++pos) {
        if (text[pos] == '\\') {
            ++pos;
        } else if (text[pos] == '"') {
            return pos + 1;
        }
    }
    return std::string::npos;
}

}  // namespace

bool isValidMediaType(const std::string& text) {
    std::size_t pos = skip_token(text, 0);
    if (pos == 0 || pos == text.size() || text[pos] != '/') return false;
    const std::size_t subtype = pos + 1;
    pos = skip_token(text, subtype);
    if (pos == subtype) return false;
    while (pos < text.size()) {
        pos = skip_spaces(text, pos);
        if (pos == text.size() || text[pos] != ';') return false;
        const std::size_t name = skip_spaces(text, pos + 1);
        pos = skip_token(text, name);
        if (pos == name || pos == text.size() || text[pos] != '=') return false;
        const std::size_t value = pos + 1;
        pos = value < text.size() && text[value] == '"' ? skip_quoted(text, value)
                                                        : skip_token(text, value);
        if (pos == std::string::npos || pos == value) return false;
    }
    return true;
}

namespace {

// A valid media type with type, subtype and parameter names in lower case
// and no white space around ";": the form two equal ones share.
std::string comparable_media_type(const std::string& text) {
    std::size_t pos = skip_token(text, skip_token(text, 0) + 1);
    std::string form = ascii_lower(text.substr(0, pos));
    while (pos < text.size()) {
        const std::size_t name = skip_spaces(text, skip_spaces(text, pos) + 1);
        const std::size_t value = skip_token(text, name) + 1;
        pos = text[value] == '"' ? skip_quoted(text, value) : skip_token(text, value);
        form +=
            ";" + ascii_lower(text.substr(name, value - name)) + text.substr(value, pos - value);
    }
    return form;
}

}  // namespace

bool sameMediaType(const std::string& a, const std::string& b) {
    return isValidMediaType(a) && isValidMediaType(b) &&
           comparable_media_type(a) == comparable_media_type(b);
}

const std::string* ContentTypes::find(const PartName& name) const {
    const auto byName = overrides_.find(name.key());
    if (byName != overrides_.end()) return &byName->second;
    const std::string extension = name.extension();
    if (extension.empty()) return nullptr;
    const auto byExtension = defaults_.find(ascii_lower(extension));
    return byExtension != defaults_.end() ? &byExtension->second : nullptr;
}

void ContentTypes::addDefault(const std::string& extension, std::string contentType) {
    if (!defaults_.emplace(ascii_lower(extension), std::move(contentType)).second) {
        throw opc::Exception(opc::Reason::NotPackage,
                             "[Content_Types].xml names the extension \"" + extension + "\" twice");
    }
}

void ContentTypes::addOverride(const PartName& name, std::string contentType) {
    if (!overrides_.emplace(name.key(), std::move(contentType)).second) {
        throw opc::Exception(opc::Reason::NotPackage,
                             "[Content_Types].xml names the part \"" + name.ascii() + "\" twice");
    }
}

ContentTypes readContentTypes(DOMLSParser* parser, InputStream& stream) {
    const std::string where = "[Content_Types].xml";
    const DOMElement* root = parse_root(parser, stream, u"/[Content_Types].xml");
    if (!is_named(root, kContentTypesNamespace, u"Types"))
        throw opc::Exception(opc::Reason::NotPackage, where + " has no Types element");
    ContentTypes types;
    for (const DOMElement* element : child_elements(root, where)) {
        const bool isDefault = is_named(element, kContentTypesNamespace, u"Default");
        if (!isDefault && !is_named(element, kContentTypesNamespace, u"Override")) {
            throw opc::Exception(opc::Reason::NotPackage,
                                 where + " holds an element other than Default and Override");
        }
        std::string contentType = fl::i18n::to_string(attribute(element, u"ContentType", where));
        if (!isValidMediaType(contentType)) {
            throw opc::Exception(opc::Reason::NotPackage,
                                 where + ": \"" + contentType + "\" is not a valid content type");
        }
        if (isDefault) {
            const std::string extension = PartName::encodeNonAscii(
                fl::i18n::to_string(attribute(element, u"Extension", where)));
            if (extension.empty() || extension.find_first_of("/.") != std::string::npos) {
                throw opc::Exception(opc::Reason::NotPackage,
                                     where + ": \"" + extension + "\" is not a valid extension");
            }
            types.addDefault(extension, std::move(contentType));
        } else {
            types.addOverride(PartName(attribute(element, u"PartName", where)),
                              std::move(contentType));
        }
    }
    return types;
}

std::vector<Relationship> readRelationships(DOMLSParser* parser, InputStream& stream,
                                            const std::u16string& partName,
                                            const std::u16string& sourceBase) {
    const std::string where = fl::i18n::to_string(partName);
    const DOMElement* root = parse_root(parser, stream, partName);
    if (!is_named(root, kRelationshipsNamespace, u"Relationships")) {
        throw opc::Exception(opc::Reason::NotPackage, where + " has no Relationships element");
    }
    std::vector<Relationship> relationships;
    std::unordered_set<std::u16string> ids;
    for (const DOMElement* element : child_elements(root, where)) {
        if (!is_named(element, kRelationshipsNamespace, u"Relationship")) {
            throw opc::Exception(opc::Reason::NotPackage,
                                 where + " holds an element other than Relationship");
        }
        std::u16string id = attribute(element, u"Id", where);
        std::u16string type = attribute(element, u"Type", where);
        std::u16string target = attribute(element, u"Target", where);
        if (id.empty() || type.empty())
            throw opc::Exception(opc::Reason::NotPackage,
                                 where + ": a relationship has an empty Id or Type");
        if (!ids.insert(id).second) {
            throw opc::Exception(
                opc::Reason::NotPackage,
                where + ": the Id \"" + fl::i18n::to_string(id) + "\" is used twice");
        }
        TargetMode mode = TargetMode::Internal;
        if (element->getAttributeNode(u"TargetMode") != nullptr) {
            const std::u16string text = element->getAttribute(u"TargetMode");
            if (text == u"External") {
                mode = TargetMode::External;
            } else if (text != u"Internal") {
                throw opc::Exception(opc::Reason::NotPackage,
                                     where + ": TargetMode must be Internal or External");
            }
        }
        relationships.emplace_back(std::move(id), std::move(type), std::move(target), mode,
                                   sourceBase);
    }
    return relationships;
}

}  // namespace opc::model::detail
