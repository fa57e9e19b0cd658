#pragma once

// What an app's icon or screenshot is, known by its bytes, never by its
// name or by what a package claims. The packer and the repository's indexer
// both ask here, so that pack never builds an image a repository would
// leave out.

#include <string>

namespace tsappinstall::images {

enum class Image { Other, Png, Jpeg, Svg, ScriptableSvg };

// What the bytes are. An SVG that could run script when opened on its own
// (a script element, a javascript: link, foreign content, an event
// handler), or that makes the parser expand entities, is ScriptableSvg.
Image sniff(const std::string& bytes);

// "png", "jpg" or "svg" for bytes that are one of these, empty for anything
// else, including an SVG that could run script when opened on its own.
std::string imageType(const std::string& bytes);

// The extension the content type `image/png`... claims, empty for others.
std::string claimedType(const std::string& contentType);

}  // namespace tsappinstall::images
