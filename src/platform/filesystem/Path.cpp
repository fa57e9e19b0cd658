#include "tsappinstall/platform/filesystem/Path.hpp"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
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

// lexically_normal() keeps a trailing separator and makes "" of "";
// native forms have neither.
std::string normalize(const std::string& path) {
    std::string out = std::filesystem::path(path).lexically_normal().string();
    if (out.size() > 1 && out.back() == '/') out.pop_back();
    return out.empty() ? "." : out;
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
