#pragma once

// App packages, the texts the facade raises and a fixture that calls the
// facade, shared by the facade and hostile-input tests.

#include "support/PackageBuilder.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
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
inline PackageBuilder app_package(const std::string& manifest = kManifestXml,
                                  const std::string& manifestTarget = "/manifest.xml",
                                  const std::string& iconTarget = "images/icon.png") {
    using namespace Corvane::addons::apps;
    return PackageBuilder()
        .part("manifest.xml", manifest)
        .part("images/icon.png", icon_bytes(), false)
        .part("images/shot.png", icon_bytes(3000))
        .relationship("rManifest", APP_PROPERTIES_RELATIONSHIP_TYPE, manifestTarget)
        .relationship("rIcon", PRIMARY_ICON_RELATIONSHIP_TYPE, iconTarget)
        .relationship("rShot", PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, "images/shot.png");
}

namespace ids = tsapp_builtins::tsapp_builtins;

inline std::string internal_error_text() {
    return ids::message_text(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR());
}

// The invalid-package text for the package at the native path `path`.
inline std::string invalid_package_text(const std::string& path) {
    return ids::message_text(ids::TSAPP_BUILTINS_INVALID_PACKAGE_ERROR(path));
}

inline std::string extraction_error_text(const std::string& package, const std::string& folder) {
    return ids::message_text(
        ids::TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(u16(package), u16(folder)));
}

// The destination already holds a file of its own and the icon output an
// older icon: a refused call must leave them, and add nothing beside them.
class FacadeFixture : public ::testing::Test {
  protected:
    FacadeFixture() {
        std::filesystem::create_directories(dest() + "/files");
        write_file(dest() + "/files/own.txt", "the caller's own file");
        write_file(iconOut(), "an older icon");
    }

    std::string pkg() const { return dir.file("app.tsappinstall"); }
    std::string dest() const { return dir.file("dest"); }
    std::string iconOut() const { return dir.file("icon.out"); }

    // What the calls say: "" when getAppInfo/extractAppFile return normally.
    std::string appInfoError(const std::string& package) {
        return error_of([&] { facade.getAppInfo(u16(package)); });
    }
    std::string extractError(const std::string& package) { return extractError(package, dest()); }
    std::string extractError(const std::string& package, const std::string& folder) {
        return error_of([&] { facade.extractAppFile(u16(package), u16(folder)); });
    }
    // extractPartContentFromTessalApp's result; what it printed goes to `printed`.
    bool extractPart(
        const std::string& package, std::string& printed,
        const std::string& type = Corvane::addons::apps::PRIMARY_ICON_RELATIONSHIP_TYPE) {
        testing::internal::CaptureStderr();
        const bool copied =
            facade.extractPartContentFromTessalApp(u16(package), u16(type), u16(iconOut()));
        printed = testing::internal::GetCapturedStderr();
        return copied;
    }

    // The package does not open: isAppFile is false, getAppInfo raises the
    // internal error, extracting the icon prints it and answers false, and
    // extractAppFile raises the extraction error; nothing changes anywhere.
    void expectRefusedEverywhere(const std::string& package, const std::string& label = "") {
        SCOPED_TRACE(label);
        EXPECT_FALSE(facade.isAppFile(u16(package)));
        expectReadsRefused(package);
    }
    // The package opens, but reading any of its parts fails.
    void expectReadsRefused(
        const std::string& package,
        const std::string& type = Corvane::addons::apps::PRIMARY_ICON_RELATIONSHIP_TYPE) {
        const auto before = snapshot_tree(dir.path());
        EXPECT_EQ(appInfoError(package), internal_error_text());
        std::string printed;
        EXPECT_FALSE(extractPart(package, printed, type));
        EXPECT_EQ(printed, internal_error_text());
        EXPECT_EQ(extractError(package), extraction_error_text(package, dest()));
        EXPECT_TRUE(snapshot_tree(dir.path()) == before) << "the folder changed";
    }
    // The package opens, but extracting it fails and changes nothing.
    void expectOnlyExtractionRefused(const std::string& package) {
        const auto before = snapshot_tree(dir.path());
        EXPECT_TRUE(facade.isAppFile(u16(package)));
        EXPECT_EQ(extractError(package), extraction_error_text(package, dest()));
        EXPECT_TRUE(snapshot_tree(dir.path()) == before) << "the folder changed";
    }

    TempDir dir;
    Corvane::addons::apps::Tsappinstall facade;
};

}  // namespace tsapp::test
