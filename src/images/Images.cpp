#include "Images.hpp"

#include <cstring>
#include <string>

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
            const std::size_t subset = text.find_first_of("[>", at);
            at =
                skipPast(text, at, subset != std::string::npos && text[subset] == '[' ? "]>" : ">");
        } else {
            return text.compare(at, 4, "<svg") == 0 && at + 4 < text.size() &&
                   (text[at + 4] == '>' || skipSpace(text, at + 4) > at + 4);
        }
    }
    return false;
}

}  // namespace

Image sniff(const std::string& bytes) {
    if (startsWith(bytes, "\x89PNG\r\n\x1a\n")) return Image::Png;
    if (startsWith(bytes, "\xFF\xD8\xFF")) return Image::Jpeg;
    if (!looksLikeSvg(opc::detail::ascii_lower(bytes))) return Image::Other;
    return svgRefusal(bytes).empty() ? Image::Svg : Image::RefusedSvg;
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
