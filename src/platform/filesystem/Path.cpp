#include "tsappinstall/platform/filesystem/Path.hpp"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace fl::filesystem::detail {
namespace {

std::string current_folder() {
    std::vector<char> buffer(256);
    while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (errno != ERANGE)
            throw std::system_error(errno, std::generic_category(),
                                    "cannot read the current folder");
        buffer.resize(buffer.size() * 2);
    }
    return buffer.data();
}

// Folds ".", ".." and repeated separators. A leading ".." of a relative
// path is kept; ".." at the root of an absolute path stays at the root.
std::string normalize(const std::string& path) {
    const bool rooted = !path.empty() && path.front() == '/';
    std::vector<std::string> segments;
    std::size_t pos = 0;
    while (pos <= path.size()) {
        const std::size_t slash = path.find('/', pos);
        const std::size_t end = slash == std::string::npos ? path.size() : slash;
        std::string segment = path.substr(pos, end - pos);
        pos = end + 1;
        if (segment.empty() || segment == ".") continue;
        if (segment == "..") {
            if (!segments.empty() && segments.back() != "..") {
                segments.pop_back();
            } else if (!rooted) {
                segments.push_back(std::move(segment));
            }
            continue;
        }
        segments.push_back(std::move(segment));
    }
    std::string out = rooted ? "/" : "";
    for (std::size_t i = 0; i < segments.size(); ++i) {
        if (i > 0) out += '/';
        out += segments[i];
    }
    if (out.empty()) out = ".";
    return out;
}

}  // namespace

std::u16string make_native_form(const std::u16string& path, bool absolute) {
    if (path.find(u'\0') != std::u16string::npos) {
        throw std::invalid_argument("path holds a NUL character");
    }
    std::string narrow = fl::i18n::to_string(path);
    if (absolute && (narrow.empty() || narrow.front() != '/'))
        narrow = current_folder() + "/" + narrow;
    return fl::i18n::to_ustring(normalize(narrow));
}

std::u16string extract_extension(const std::u16string& path) {
    const std::size_t slash = path.rfind(u'/');
    const std::size_t nameStart = slash == std::u16string::npos ? 0 : slash + 1;
    const std::size_t dot = path.rfind(u'.');
    if (dot == std::u16string::npos || dot <= nameStart) return {};
    return path.substr(dot + 1);
}

}  // namespace fl::filesystem::detail
