#include "facade/PackagePath.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Conversions.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace Corvane::addons::apps {
namespace {

namespace ids = tsapp_builtins::tsapp_builtins;

// Reads the manifest that the package's single manifest relationship names
// into `result`; false when the package has none or several. The package
// is closed only after a successful read.
bool readManifest(const std::u16string& nativePath, AppManifest& result) {
    opc::model::OpenedPackage package(nativePath);
    const std::vector<opc::model::Relationship> manifests =
        package->getRelationshipsByType(opc::toString(APP_PROPERTIES_RELATIONSHIP_TYPE, true));
    if (manifests.size() != 1) return false;
    opc::model::Part part =
        package->getPart(opc::model::PartName(manifests.front().getTargetURI()));
    AppManifestSerializer serializer;
    serializer.load(part.getInputStream(), result);
    package.close();
    return true;
}

}  // namespace

AppManifest Tsappinstall::getAppInfo(const std::u16string& packagePath) {
    AppManifest result;
    const std::u16string nativePath = facade::native_form(packagePath);
    bool single = false;
    bool failed = false;
    try {
        single = readManifest(nativePath, result);
    } catch (...) {
        failed = true;  // the cause is dropped; the caller gets the catalog text
    }
    if (failed) ids::raise(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR());
    if (!single)
        ids::raise(ids::TSAPP_BUILTINS_INVALID_PACKAGE_ERROR(fl::i18n::to_string(nativePath)));
    return result;
}

}  // namespace Corvane::addons::apps
