#pragma once

// What an app's icon or screenshot is, known by its bytes, never by its
// name or by what a package claims. The packer and the repository's indexer
// both ask here, so that pack never builds an image a repository would
// leave out.

#include <string>

namespace tsappinstall::images {

enum class Image { Other, Png, Jpeg, Svg, RefusedSvg };

// What the bytes are. Bytes that begin as an SVG document are Svg only when
// svgRefusal() finds nothing to refuse, else RefusedSvg.
Image sniff(const std::string& bytes);

// Why an SVG is neither packed nor published, empty when it is kept. It is
// kept when it is UTF-8 XML 1.0 without a document type whose elements are
// all in the SVG namespace and among the inert ones (shapes, paths, text,
// gradients, patterns, clipping, masks, markers, filter primitives that
// load nothing, groups, defs, symbol, use, title, desc, metadata, style),
// whose attributes are inert geometry, paint and text attributes, whose
// href and xlink:href are "#id" only, and whose CSS (style elements and
// attributes, presentation attributes) has no escape, no at-rule and no
// function but colours, arithmetic, transforms and url(#id). Everything
// else is refused: script, foreignObject, a, image, animation elements,
// event handlers, xml:base, processing instructions, other namespaces.
std::string svgRefusal(const std::string& bytes);

// "png", "jpg" or "svg" for bytes that are one of these, empty for anything
// else, including an SVG that svgRefusal() refuses.
std::string imageType(const std::string& bytes);

// The extension the content type `image/png`... claims, empty for others.
std::string claimedType(const std::string& contentType);

}  // namespace tsappinstall::images
