#include <memory>

#include "facade/PackagePath.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"
#include "tsappinstall/platform/opc/Package.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace Corvane::addons::apps {
namespace {

namespace ids = tsapp_builtins::tsapp_builtins;
using opc::qvservices::FileSystemManager;

// Declared in the order that makes them die as the manager, the package and
// the container, whichever of them were made.
void extract(const std::u16string& nativePath, const std::u16string& nativeFolder) {
    opc::zippackage::ZipPhysicalPackage physical(nativePath, true);
    opc::model::Package package(physical);
    package.open(static_cast<opc::interfaces::OpenMode>(0));
    std::unique_ptr<FileSystemManager> manager;
    {
        const opc::FileSystemOpsSelector selector;
        manager = std::make_unique<FileSystemManager>(package, selector);
    }
    manager->extractAll(nativeFolder, static_cast<opc::qvservices::RestoreMode>(1),
                        static_cast<opc::qvservices::TransformMode>(1),
                        static_cast<opc::qvservices::ReplaceMode>(0));
    package.close();
}

}  // namespace

void Tsappinstall::extractAppFile(const std::u16string& packagePath,
                                  const std::u16string& destinationFolder) {
    const std::u16string nativePath = facade::native_form(packagePath);
    const std::u16string nativeFolder = facade::native_form(destinationFolder);
    bool failed = false;
    try {
        extract(nativePath, nativeFolder);
    } catch (...) {
        failed = true;  // the cause is dropped; the caller gets the catalog text
    }
    if (failed)
        ids::raise(ids::TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(nativePath, nativeFolder));
}

}  // namespace Corvane::addons::apps
