#pragma once

#include <string>

#include "tsappinstall/platform/filesystem/Path.hpp"

namespace Corvane::addons::apps::facade {

// The native form every facade operation opens. An empty path stays empty
// and reaches the package layer as such, which then fails to open it.
inline std::u16string native_form(const std::u16string& path) {
    return path.empty() ? std::u16string() : fl::filesystem::detail::make_native_form(path, true);
}

}  // namespace Corvane::addons::apps::facade
