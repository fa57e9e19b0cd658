#pragma once

// The images a repository publishes: pulled out of packages, their type
// taken from their bytes, never from what the package claims.

#include <string>

namespace tsappinstall::repository {

// "png", "jpg" or "svg" for bytes that are one of these, empty for anything
// else, including an SVG that could run script when opened on its own.
std::string imageType(const std::string& bytes);

// The extension the content type `image/png`... claims, empty for others.
std::string claimedType(const std::string& contentType);

}  // namespace tsappinstall::repository
