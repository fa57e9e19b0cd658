// Which SVGs are kept: those a namespace-aware parse finds made of nothing
// but inert SVG elements and attributes. A browser that opens the image on
// its own runs whatever script it holds with the rights of the site that
// serves it, and the ways to hide script in SVG are many (prefixes,
// character references, foreign content, animation of attributes), so the
// rule lists what may appear rather than what may not.

#include <xercesc/dom/DOM.hpp>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>

#include "Images.hpp"
#include "platform/base/Ascii.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/XercesHelper.hpp"

using namespace xercesc;

namespace tsappinstall::images {
namespace {

const std::u16string kSvgNamespace = u"http://www.w3.org/2000/svg";
const std::u16string kXlinkNamespace = u"http://www.w3.org/1999/xlink";
const std::u16string kXmlNamespace = u"http://www.w3.org/XML/1998/namespace";
const std::u16string kXmlnsNamespace = u"http://www.w3.org/2000/xmlns/";

// The words of a space-separated list.
template <class Char>
std::set<std::basic_string<Char>> wordsOf(const std::basic_string<Char>& list) {
    std::set<std::basic_string<Char>> words;
    for (std::size_t at = 0; at < list.size();) {
        const std::size_t end = std::min(list.find(Char(' '), at), list.size());
        if (end > at) words.insert(list.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

// Shapes, paint servers, clipping, masking, text and filter primitives
// that load nothing: no script, no foreign content, no link, no animation
// (which could set any attribute, an href or a handler among them), no
// image and no filter primitive that fetches one.
const std::set<std::u16string>& inertElements() {
    static const auto names = wordsOf<char16_t>(
        u"svg g defs symbol use title desc metadata style path rect circle ellipse line "
        u"polyline polygon text tspan textPath linearGradient radialGradient stop pattern "
        u"clipPath mask marker filter feBlend feColorMatrix feComponentTransfer feFuncR "
        u"feFuncG feFuncB feFuncA feComposite feDropShadow feFlood feGaussianBlur feMerge "
        u"feMergeNode feMorphology feOffset feTurbulence");
    return names;
}

// Geometry, paint and text attributes without a namespace. No handler
// (on...), no attributeName, no xml:base; href is checked on its own.
const std::set<std::u16string>& inertAttributes() {
    static const auto names = wordsOf<char16_t>(
        u"id class style lang role type version baseProfile viewBox preserveAspectRatio x y "
        u"x1 y1 x2 y2 cx cy r rx ry fx fy fr width height d points pathLength transform dx dy "
        u"rotate textLength lengthAdjust startOffset method spacing side href gradientUnits "
        u"gradientTransform spreadMethod offset patternUnits patternContentUnits "
        u"patternTransform clipPathUnits maskUnits maskContentUnits markerUnits markerWidth "
        u"markerHeight refX refY orient filterUnits primitiveUnits in in2 result stdDeviation "
        u"mode operator k1 k2 k3 k4 values tableValues slope intercept amplitude exponent "
        u"radius baseFrequency numOctaves seed stitchTiles fill fill-opacity fill-rule stroke "
        u"stroke-width stroke-linecap stroke-linejoin stroke-miterlimit stroke-dasharray "
        u"stroke-dashoffset stroke-opacity opacity color display visibility clip-path "
        u"clip-rule mask filter stop-color stop-opacity flood-color flood-opacity "
        u"lighting-color font-family font-size font-weight font-style font-variant "
        u"font-stretch text-anchor dominant-baseline alignment-baseline baseline-shift "
        u"letter-spacing word-spacing text-decoration writing-mode direction overflow "
        u"marker-start marker-mid marker-end paint-order vector-effect shape-rendering "
        u"text-rendering color-interpolation color-interpolation-filters mix-blend-mode "
        u"isolation transform-origin enable-background");
    return names;
}

// CSS functions that compute a value and fetch nothing; url() is allowed
// for a fragment of the image only.
const std::set<std::string>& inertCssFunctions() {
    static const auto names = wordsOf<char>(
        "rgb rgba hsl hsla calc var min max clamp matrix rotate scale scalex scaley translate "
        "translatex translatey skewx skewy url");
    return names;
}

std::string utf8(const XMLCh* text) {
    return text == nullptr ? std::string() : fl::i18n::to_string(text);
}

std::u16string text16(const XMLCh* text) {
    return text == nullptr ? std::u16string() : std::u16string(text);
}

// A name from the image, short enough for one line of a message.
std::string named(const XMLCh* name) {
    const std::string text = utf8(name);
    return text.size() <= 40 ? text : text.substr(0, 40) + "...";
}

bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

// The CSS function whose "(" is at `open`, lower-cased; empty for a bare
// parenthesis.
std::string functionBefore(const std::string& css, std::size_t open) {
    std::size_t start = open;
    while (start > 0 && isNameCharacter(css[start - 1])) --start;
    return css.substr(start, open - start);
}

// Whether url( at `open` names a fragment of this image: "#...", quoted or
// not.
bool urlIsFragment(const std::string& css, std::size_t open) {
    std::size_t at = open + 1;
    while (at < css.size() && (css[at] == ' ' || css[at] == '\t' || css[at] == '\n')) ++at;
    if (at < css.size() && (css[at] == '"' || css[at] == '\'')) ++at;
    return at < css.size() && css[at] == '#';
}

// Why CSS text (a style element, a style attribute, a presentation
// attribute's value) could fetch something or run script; empty when it
// cannot. Escapes and at-rules are refused whole: an escape can spell
// "url" so that no search finds it, and @import fetches.
std::string cssRefusal(const std::string& text) {
    const std::string css = opc::detail::ascii_lower(text);
    if (css.find('\\') != std::string::npos) return "a CSS escape";
    if (css.find('@') != std::string::npos) return "a CSS at-rule";
    for (const char* word : {"javascript", "expression"})
        if (css.find(word) != std::string::npos) return std::string("the word ") + word;
    for (std::size_t open = css.find('('); open != std::string::npos;
         open = css.find('(', open + 1)) {
        const std::string function = functionBefore(css, open);
        if (function.empty()) continue;
        if (!inertCssFunctions().count(function)) return "the CSS function " + function + "()";
        if (function == "url" && !urlIsFragment(css, open)) return "a url() outside the image";
    }
    return {};
}

// A link within the image: "#id" and nothing a browser could read as
// another document or a scheme.
bool isFragment(const std::u16string& value) {
    return value.size() > 1 && value[0] == u'#' &&
           std::none_of(value.begin() + 1, value.end(),
                        [](char16_t c) { return c <= u' ' || c == u'#' || c == 0x7F; });
}

std::string attributeRefusal(const DOMAttr& attribute, const std::string& element) {
    const std::u16string ns = text16(attribute.getNamespaceURI());
    const std::u16string name = text16(attribute.getLocalName());
    const std::u16string value = text16(attribute.getValue());
    const std::string shownName = named(attribute.getName()) + " on <" + element + ">";
    if (ns == kXmlnsNamespace) return {};
    if (ns == kXmlNamespace && (name == u"space" || name == u"lang")) return {};
    const bool isHref = name == u"href" && (ns.empty() || ns == kXlinkNamespace);
    if (!isHref && !(ns.empty() && inertAttributes().count(name)))
        return "the attribute " + shownName;
    if (isHref) return isFragment(value) ? std::string() : "a link outside the image: " + shownName;
    const std::string css = cssRefusal(utf8(attribute.getValue()));
    return css.empty() ? css : css + " in " + shownName;
}

std::string elementRefusal(const DOMElement& element);

// Text and comments are inert (a style element's text is checked whole);
// a processing instruction could name a style sheet or a transform.
std::string childRefusal(const DOMNode& child) {
    switch (child.getNodeType()) {
        case DOMNode::ELEMENT_NODE:
            return elementRefusal(static_cast<const DOMElement&>(child));
        case DOMNode::TEXT_NODE:
        case DOMNode::CDATA_SECTION_NODE:
        case DOMNode::COMMENT_NODE:
            return {};
        case DOMNode::PROCESSING_INSTRUCTION_NODE:
            return "the processing instruction <?" + named(child.getNodeName()) + "?>";
        default:
            return "a node of type " + std::to_string(child.getNodeType());
    }
}

std::string elementRefusal(const DOMElement& element) {
    const std::string shownName = named(element.getTagName());
    if (text16(element.getNamespaceURI()) != kSvgNamespace)
        return "the element <" + shownName + "> outside the SVG namespace";
    const std::u16string name = text16(element.getLocalName());
    if (!inertElements().count(name)) return "the element <" + shownName + ">";
    const DOMNamedNodeMap* attributes = element.getAttributes();
    for (XMLSize_t i = 0; i < attributes->getLength(); ++i) {
        const std::string why =
            attributeRefusal(*static_cast<const DOMAttr*>(attributes->item(i)), shownName);
        if (!why.empty()) return why;
    }
    // The style sheet is the text without the comments that split it: a
    // comment inside "url" must not hide it.
    if (name == u"style") {
        const std::string css = cssRefusal(utf8(element.getTextContent()));
        if (!css.empty()) return css + " in <" + shownName + ">";
    }
    for (const DOMNode* child = element.getFirstChild(); child; child = child->getNextSibling()) {
        const std::string why = childRefusal(*child);
        if (!why.empty()) return why;
    }
    return {};
}

// Browsers and this parser must read the same characters: only UTF-8 (the
// parser reads XML 1.0 only, whose rules the browsers follow).
std::string documentRefusal(const DOMDocument& document) {
    if (opc::detail::ascii_lower(utf8(document.getInputEncoding())) != "utf-8")
        return "it is not UTF-8 but " + named(document.getInputEncoding());
    const DOMElement* root = document.getDocumentElement();
    if (text16(root->getLocalName()) != u"svg")
        return "its root element <" + named(root->getTagName()) + "> is not svg";
    for (const DOMNode* child = document.getFirstChild(); child; child = child->getNextSibling()) {
        const std::string why = childRefusal(*child);
        if (!why.empty()) return "it holds " + why;
    }
    return {};
}

}  // namespace

std::string svgRefusal(const std::string& bytes) {
    try {
        const opc::model::XercesPtr<DOMLSParser> parser(opc::model::XercesHelper::createParser());
        std::istringstream in(bytes);
        opc::StdIStreamAdaptor stream(in);
        const DOMDocument* document =
            opc::model::XercesHelper::readDocumentFromStream(parser.get(), stream, true, u"", u"");
        return documentRefusal(*document);
    } catch (const opc::model::InvalidXMLDocument& e) {
        if (opc::detail::ascii_lower(bytes).find("<!doctype") != std::string::npos)
            return "it declares a document type (<!DOCTYPE>)";
        return std::string("the XML parser refuses it: ") + e.what();
    } catch (const fl::i18n::ConversionError&) {
        return "it holds a name that is not UTF-16";
    } catch (const std::exception& e) {
        return std::string("it cannot be read: ") + e.what();
    } catch (...) {
        return "the XML parser failed on it";
    }
}

}  // namespace tsappinstall::images
