#include "tsappinstall/platform/opc/URI.hpp"

#include <vector>

namespace opc::model {
namespace {

bool is_alpha(char16_t c) {
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z');
}
bool is_digit(char16_t c) {
    return c >= u'0' && c <= u'9';
}

bool starts_with_scheme(const std::u16string& text) {
    if (text.empty() || !is_alpha(text[0])) return false;
    for (char16_t c : text) {
        if (c == u':') return true;
        if (!is_alpha(c) && !is_digit(c) && c != u'+' && c != u'-' && c != u'.') return false;
    }
    return false;
}

// RFC 3986 remove_dot_segments for an absolute path: a ".." at the root is
// dropped, so the result never climbs above "/".
std::u16string remove_dot_segments(const std::u16string& path) {
    std::vector<std::u16string> segments;
    bool endsWithSlash = false;
    std::size_t start = 1;
    for (;;) {
        const std::size_t slash = path.find(u'/', start);
        const std::u16string segment =
            path.substr(start, slash == std::u16string::npos ? slash : slash - start);
        const bool last = slash == std::u16string::npos;
        if (segment == u"..") {
            if (!segments.empty()) segments.pop_back();
            endsWithSlash = last;
        } else if (segment == u".") {
            endsWithSlash = last;
        } else {
            segments.push_back(segment);
            endsWithSlash = false;
        }
        if (last) break;
        start = slash + 1;
    }
    std::u16string out;
    for (const std::u16string& segment : segments) out += u"/" + segment;
    if (out.empty() || endsWithSlash) out += u"/";
    return out;
}

}  // namespace

bool URI::hasScheme() const {
    return starts_with_scheme(text_);
}

URI URI::resolve(const std::u16string& basePath, const std::u16string& reference) {
    if (starts_with_scheme(reference) || reference.rfind(u"//", 0) == 0) return URI(reference);
    const std::size_t pathEnd = reference.find_first_of(u"?#");
    const std::u16string path = reference.substr(0, pathEnd);
    const std::u16string rest = pathEnd == std::u16string::npos ? u"" : reference.substr(pathEnd);
    std::u16string merged;
    if (path.empty()) {
        merged = basePath;
    } else if (path[0] == u'/') {
        merged = path;
    } else {
        const std::size_t slash = basePath.rfind(u'/');
        merged = (slash == std::u16string::npos ? u"/" : basePath.substr(0, slash + 1)) + path;
    }
    return URI(remove_dot_segments(merged) + rest);
}

}  // namespace opc::model
