#include "tsappinstall/platform/opc/PartName.hpp"

#include "platform/base/Ascii.hpp"

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::model {
namespace {

using opc::detail::ascii_lower;

bool is_unreserved(unsigned char c) {
    return opc::detail::is_ascii_alnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}
bool is_segment_char(unsigned char c) {
    static const std::string kOthers = "!$&'()*+,;=:@";
    return is_unreserved(c) || kOthers.find(static_cast<char>(c)) != std::string::npos;
}

std::string why_segment_invalid(const std::string& segment) {
    if (segment.empty()) return "it has an empty segment";
    if (segment.back() == '.') return "a segment ends with a dot";
    for (std::size_t i = 0; i < segment.size(); ++i) {
        const auto c = static_cast<unsigned char>(segment[i]);
        if (c == '%') {
            const int decoded = opc::detail::percent_decoded_octet(segment, i);
            if (decoded < 0) return "it holds a \"%\" that is not a percent-encoded octet";
            const auto octet = static_cast<unsigned char>(decoded);
            if (octet == '/' || octet == '\\') return "it holds a percent-encoded \"/\" or \"\\\"";
            if (is_unreserved(octet)) return "it percent-encodes an unreserved character";
            i += 2;
        } else if (!is_segment_char(c)) {
            return "it holds the character '" + std::string(1, static_cast<char>(c)) + "'";
        }
    }
    return {};
}

std::string checked(const std::string& ascii, const std::string& shown) {
    const std::string why = PartName::whyInvalid(ascii);
    if (!why.empty())
        throw opc::Exception(opc::Reason::NotPackage,
                             "\"" + shown + "\" is not a valid part name: " + why);
    return ascii;
}

std::string to_utf8(const std::u16string& text) {
    try {
        return fl::i18n::to_string(text);
    } catch (const fl::i18n::ConversionError&) {
        throw opc::Exception(opc::Reason::NotPackage, "a part name is not valid UTF-16 text");
    }
}

}  // namespace

std::string PartName::whyInvalid(const std::string& name) {
    if (name.empty()) return "it is empty";
    if (name[0] != '/') return "it does not start with \"/\"";
    if (name.back() == '/') return "it ends with \"/\"";
    std::size_t start = 1;
    for (;;) {
        const std::size_t slash = name.find('/', start);
        const std::string why = why_segment_invalid(name.substr(start, slash - start));
        if (!why.empty()) return why;
        if (slash == std::string::npos) return {};
        start = slash + 1;
    }
}

std::string PartName::encodeNonAscii(const std::string& utf8) {
    std::string out;
    out.reserve(utf8.size());
    for (char c : utf8) {
        const auto octet = static_cast<unsigned char>(c);
        if (octet < 0x80) {
            out += c;
        } else {
            opc::detail::append_percent_encoded(out, octet);
        }
    }
    return out;
}

void PartName::assign(const std::string& utf8) {
    name_ = checked(encodeNonAscii(utf8), utf8);
    key_ = ascii_lower(name_);
}

PartName::PartName(const std::u16string& name) {
    assign(to_utf8(name));
}

PartName PartName::fromZipItemName(const std::string& itemName) {
    PartName name;
    name.assign("/" + itemName);
    return name;
}

PartName::PartName(const URI& uri) {
    const std::string utf8 = to_utf8(uri.toString());
    if (uri.isExternal())
        throw opc::Exception(opc::Reason::NotPackage,
                             "\"" + utf8 + "\" is an external target, not a part");
    if (uri.hasScheme())
        throw opc::Exception(opc::Reason::NotPackage,
                             "\"" + utf8 + "\" is an absolute URI, not a part name");
    if (uri.toString().find_first_of(u"?#") != std::u16string::npos) {
        throw opc::Exception(opc::Reason::NotPackage,
                             "\"" + utf8 + "\" holds a query or fragment, which part names cannot");
    }
    assign(utf8);
}

std::u16string PartName::toString() const {
    return fl::i18n::to_ustring(name_);
}

std::string PartName::decoded() const {
    // A valid name's escapes are all complete.
    return opc::detail::percent_decoded(name_).value_or(name_);
}

std::string PartName::extension() const {
    const std::size_t slash = name_.rfind('/');
    const std::size_t dot = name_.rfind('.');
    if (dot == std::string::npos || dot < slash) return {};
    return name_.substr(dot + 1);
}

bool PartName::isPrefixOf(const PartName& other) const {
    return other.key_.size() > key_.size() && other.key_.compare(0, key_.size(), key_) == 0 &&
           other.key_[key_.size()] == '/';
}

std::string PartName::forPath(const std::string& path) {
    std::string name;
    std::string segment;
    auto flush_segment = [&] {
        if (segment.empty() || segment == "." || segment == "..") {
            throw opc::Exception("\"" + path +
                                 "\" cannot be a part name: empty, \".\" or \"..\" segment");
        }
        name += '/';
        name += segment;
        segment.clear();
    };
    for (unsigned char c : path) {
        if (c == '/') {
            flush_segment();
        } else if (is_segment_char(c)) {
            segment += static_cast<char>(c);
        } else {
            opc::detail::append_percent_encoded(segment, c);
        }
    }
    flush_segment();
    if (name.back() == '.')
        throw opc::Exception("\"" + path + "\" cannot be a part name: it ends with a dot");
    return name;
}

std::string PartName::relationshipsSource() const {
    const std::string& name = ascii();
    const std::size_t rels = name.rfind("/_rels/");
    const std::size_t suffix = name.size() >= 5 ? name.size() - 5 : 0;
    if (rels == std::string::npos || suffix < rels + 7 || name.compare(suffix, 5, ".rels") != 0 ||
        name.find('/', rels + 7) != std::string::npos)
        return {};
    return name.substr(0, rels + 1) + name.substr(rels + 7, suffix - rels - 7);
}

}  // namespace opc::model
