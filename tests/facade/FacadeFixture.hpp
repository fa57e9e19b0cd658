#pragma once

// App packages, the texts the facade raises and a std::cerr capture, shared
// by the facade and hostile-input tests.

#include <iostream>
#include <sstream>
#include <string>

#include "support/PackageBuilder.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

namespace tsapp::test {

inline constexpr const char* kManifestXml =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<appProperties "
    "xmlns=\"http://schemas.corvane.com/tessal/app/2012/appProperties\"/>\r\n";

// Bytes an image may hold that text handling would damage.
inline std::string icon_bytes(std::size_t size = 10000) {
    std::string bytes(size, '\0');
    const char cycle[] = {'\0', '\r', '\n', '\x89', 'P', '\x1a', '\xff', '\n', '\r', '\0', 'x'};
    for (std::size_t i = 0; i < size; ++i) bytes[i] = cycle[(i * 5 + i / 11) % sizeof cycle];
    return bytes;
}

// An app package: manifest, icon and screenshot, each reached by its
// relationship, whose Target is written as given.
inline PackageBuilder app_package(const std::string& iconTarget = "images/icon.png",
                                  const std::string& manifest = kManifestXml,
                                  const std::string& manifestTarget = "/manifest.xml") {
    using namespace Corvane::addons::apps;
    return PackageBuilder()
        .part("manifest.xml", manifest)
        .part("images/icon.png", icon_bytes(), false)
        .part("images/shot.png", icon_bytes(3000))
        .relationship("rManifest", APP_PROPERTIES_RELATIONSHIP_TYPE, manifestTarget)
        .relationship("rIcon", PRIMARY_ICON_RELATIONSHIP_TYPE, iconTarget)
        .relationship("rShot", PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, "images/shot.png");
}

inline PackageBuilder app_package_with(const std::string& manifest,
                                       const std::string& target = "/manifest.xml") {
    return app_package("images/icon.png", manifest, target);
}

inline std::string internal_error_text() {
    namespace ids = tsapp_builtins::tsapp_builtins;
    return ids::message_text(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR());
}

// The invalid-package text for the package at the native path `path`.
inline std::string invalid_package_text(const std::string& path) {
    namespace ids = tsapp_builtins::tsapp_builtins;
    return ids::message_text(ids::TSAPP_BUILTINS_INVALID_PACKAGE_ERROR(path));
}

inline std::string extraction_error_text(const std::string& package, const std::string& folder) {
    namespace ids = tsapp_builtins::tsapp_builtins;
    return ids::message_text(ids::TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(
        fl::i18n::to_ustring(package), fl::i18n::to_ustring(folder)));
}

// Collects what is written to std::cerr while it lives.
class CerrCapture {
  public:
    CerrCapture() : previous_(std::cerr.rdbuf(captured_.rdbuf())) {}
    ~CerrCapture() { std::cerr.rdbuf(previous_); }
    CerrCapture(const CerrCapture&) = delete;
    CerrCapture& operator=(const CerrCapture&) = delete;
    std::string text() const { return captured_.str(); }

  private:
    std::ostringstream captured_;
    std::streambuf* previous_;
};

}  // namespace tsapp::test
