#pragma once

#include <string>
#include <utility>

#include "tsappinstall/export.hpp"

namespace opc::model {

// A URI reference as a relationship holds it. Internal targets are kept
// resolved to an absolute path ("/manifest.xml"); external ones exactly as
// written and marked external, so that they can never be taken for parts.
class TSAPP_API URI {
  public:
    URI() = default;
    explicit URI(std::u16string text, bool external = false)
        : text_(std::move(text)), external_(external) {}

    const std::u16string& toString() const { return text_; }
    bool isExternal() const { return external_; }
    // Whether the reference starts with a scheme ("http:", "urn:").
    bool hasScheme() const;

    // Resolves `reference` against the absolute path `basePath` (a part name
    // or "/" for the package root): RFC 3986 reference resolution restricted
    // to paths. "." and ".." segments are removed, and ".." never climbs
    // above the root. A reference with a scheme or an authority comes back
    // unchanged.
    static URI resolve(const std::u16string& basePath, const std::u16string& reference);

  private:
    std::u16string text_;
    bool external_ = false;
};

}  // namespace opc::model
