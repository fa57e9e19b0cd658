#include "Images.hpp"

#include <cstring>

#include "platform/base/Ascii.hpp"

namespace tsappinstall::images {
namespace {

bool startsWith(const std::string& bytes, const std::string& signature) {
    return bytes.compare(0, signature.size(), signature) == 0;
}

std::size_t skipSpace(const std::string& text, std::size_t at) {
    while (at < text.size() &&
           (text[at] == ' ' || text[at] == '\t' || text[at] == '\r' || text[at] == '\n'))
        ++at;
    return at;
}

// Past the construct opened at `at` and closed by `close`, or npos.
std::size_t skipPast(const std::string& text, std::size_t at, const char* close) {
    const std::size_t end = text.find(close, at);
    return end == std::string::npos ? end : skipSpace(text, end + std::strlen(close));
}

// Whether the (lower-cased) text begins as an SVG document: an optional
// byte order mark, XML declaration, comments and doctype, then the svg
// element.
bool looksLikeSvg(const std::string& text) {
    std::size_t at = skipSpace(text, startsWith(text, "\xEF\xBB\xBF") ? 3 : 0);
    for (int steps = 0; at != std::string::npos && steps < 64; ++steps) {
        if (text.compare(at, 5, "<?xml") == 0) {
            at = skipPast(text, at, "?>");
        } else if (text.compare(at, 4, "<!--") == 0) {
            at = skipPast(text, at, "-->");
        } else if (text.compare(at, 9, "<!doctype") == 0) {
            at = skipPast(text, at, ">");
        } else {
            return text.compare(at, 4, "<svg") == 0 && at + 4 < text.size() &&
                   (text[at + 4] == '>' || skipSpace(text, at + 4) > at + 4);
        }
    }
    return false;
}

// An attribute "on...=" (an event handler) anywhere in the text.
bool hasEventHandler(const std::string& text) {
    for (std::size_t at = text.find("on"); at != std::string::npos; at = text.find("on", at + 1)) {
        if (at == 0 || skipSpace(text, at - 1) == at - 1) continue;  // not after a space
        std::size_t end = at + 2;
        while (end < text.size() && text[end] >= 'a' && text[end] <= 'z') ++end;
        if (end > at + 2 && skipSpace(text, end) < text.size() && text[skipSpace(text, end)] == '=')
            return true;
    }
    return false;
}

// A gallery shows an image with <img>, where no script runs; but anyone may
// open it from the repository's site directly. So an SVG that could act
// there, or makes the parser expand entities, is neither packed nor
// published.
bool svgIsInert(const std::string& text) {
    for (const char* active : {"<script", "javascript:", "<foreignobject", "<!entity"})
        if (text.find(active) != std::string::npos) return false;
    return !hasEventHandler(text);
}

}  // namespace

Image sniff(const std::string& bytes) {
    if (startsWith(bytes, "\x89PNG\r\n\x1a\n")) return Image::Png;
    if (startsWith(bytes, "\xFF\xD8\xFF")) return Image::Jpeg;
    const std::string text = opc::detail::ascii_lower(bytes);
    if (!looksLikeSvg(text)) return Image::Other;
    return svgIsInert(text) ? Image::Svg : Image::ScriptableSvg;
}

std::string imageType(const std::string& bytes) {
    switch (sniff(bytes)) {
        case Image::Png:
            return "png";
        case Image::Jpeg:
            return "jpg";
        case Image::Svg:
            return "svg";
        default:
            return {};
    }
}

std::string claimedType(const std::string& contentType) {
    const std::string type = opc::detail::ascii_lower(contentType);
    if (type == "image/png") return "png";
    if (type == "image/jpeg" || type == "image/jpg") return "jpg";
    if (type == "image/svg+xml") return "svg";
    return {};
}

}  // namespace tsappinstall::images
