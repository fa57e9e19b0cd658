#pragma once

// Signed manifests packed into app packages, and the texts getAppInfo
// raises, shared by the app information tests.

#include <string>
#include <vector>

#include "facade/FacadeFixture.hpp"
#include "manifest/ManifestTestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

namespace tsapp::test {

using Corvane::addons::apps::Tsappinstall;

// The manifest text `save` writes for `record`, signed.
inline std::string signed_manifest(const AppManifest& record) {
    AppManifestSerializer serializer;
    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    serializer.save(out, record);
    return std::string(bytes.begin(), bytes.end());
}

// What reading fullRecord() back gives: the document keeps whole seconds.
inline AppManifest fullRecordAsRead() {
    AppManifest record = fullRecord();
    record.created = boost::posix_time::time_from_string("2024-03-05 08:07:08");
    return record;
}

// An app package whose manifest relationship's Target is `target`, written
// as it stands, with the manifest stored in the item `item`; icon and
// screenshot beside it.
inline PackageBuilder app_package_with(const std::string& manifest,
                                       const std::string& target = "manifest.xml",
                                       const std::string& item = "manifest.xml") {
    using namespace Corvane::addons::apps;
    return PackageBuilder()
        .part("images/icon.png", icon_bytes(), false)
        .part(item, manifest)
        .part("images/shot.png", icon_bytes(3000))
        .relationship("rIcon", PRIMARY_ICON_RELATIONSHIP_TYPE, "images/icon.png")
        .relationship("rManifest", APP_PROPERTIES_RELATIONSHIP_TYPE, target)
        .relationship("rShot", PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, "images/shot.png");
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

}  // namespace tsapp::test
