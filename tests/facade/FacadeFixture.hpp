#pragma once

// App packages and a std::cerr capture shared by the facade tests.

#include <iostream>
#include <sstream>
#include <string>

#include "support/PackageBuilder.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"

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
// relationship. `iconTarget` is the icon relationship's Target as written.
inline PackageBuilder app_package(const std::string& iconTarget = "images/icon.png") {
    using namespace Corvane::addons::apps;
    return PackageBuilder()
        .part("manifest.xml", kManifestXml)
        .part("images/icon.png", icon_bytes(), false)
        .part("images/shot.png", icon_bytes(3000))
        .relationship("rManifest", APP_PROPERTIES_RELATIONSHIP_TYPE, "/manifest.xml")
        .relationship("rIcon", PRIMARY_ICON_RELATIONSHIP_TYPE, iconTarget)
        .relationship("rShot", PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, "images/shot.png");
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
