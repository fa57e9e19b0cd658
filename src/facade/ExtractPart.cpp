#include <fstream>
#include <vector>

#include "facade/PackagePath.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace Corvane::addons::apps {
namespace {

namespace ids = tsapp_builtins::tsapp_builtins;

// Everything from opening the package to writing the file. Exceptions leave
// it with every package object already released. The package is never
// closed: its objects are released when the function returns.
bool copy_part_to_file(const std::u16string& nativePath, const std::u16string& callerPath,
                       const std::u16string& relationshipType, const std::u16string& outputPath) {
    opc::model::OpenedPackage package(nativePath);

    const std::vector<opc::model::Relationship> relationships =
        package->getRelationshipsByType(relationshipType);
    if (relationships.size() > 1) {
        ids::print(ids::TSAPP_BUILTINS_INVALID_PACKAGE_ERROR(fl::i18n::to_string(callerPath)),
                   true);
    }
    if (relationships.empty()) return false;

    opc::model::Part part =
        package->getPart(opc::model::PartName(relationships.front().getTargetURI()));
    std::vector<unsigned char> content;
    opc::ByteArrayOutAdaptor buffer(content);
    opc::StreamHelper::copyStreamToStream(part.getInputStream(), buffer);

    // The part is complete in memory before the output file is touched.
    std::ofstream out(fl::i18n::to_string(outputPath), std::ios::out | std::ios::binary);
    if (!out.is_open()) return false;
    out.write(reinterpret_cast<const char*>(content.data()),
              static_cast<std::streamsize>(content.size()));
    out.close();
    return true;
}

}  // namespace

bool Tsappinstall::extractPartContentFromTessalApp(const std::u16string& packagePath,
                                                   const std::u16string& relationshipType,
                                                   const std::u16string& outputPath) {
    const std::u16string nativePath = facade::native_form(packagePath);
    bool failed = false;
    bool copied = false;
    try {
        copied = copy_part_to_file(nativePath, packagePath, relationshipType, outputPath);
    } catch (...) {
        failed = true;  // the cause is dropped; the caller gets the catalog text
    }
    // Printed outside the handler so that a failing lookup leaves as itself.
    if (failed) ids::print(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR(), false);
    return copied;
}

bool Tsappinstall::extractAppIcon(const std::u16string& packagePath,
                                  const std::u16string& outputPath) {
    return extractPartContentFromTessalApp(
        packagePath, fl::i18n::to_ustring(PRIMARY_ICON_RELATIONSHIP_TYPE), outputPath);
}

bool Tsappinstall::extractAppScreenshot(const std::u16string& packagePath,
                                        const std::u16string& outputPath) {
    return extractPartContentFromTessalApp(
        packagePath, fl::i18n::to_ustring(PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE), outputPath);
}

}  // namespace Corvane::addons::apps
