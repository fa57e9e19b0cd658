#include <memory>

#include "facade/PackagePath.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace Corvane::addons::apps {
namespace {

namespace ids = tsapp_builtins::tsapp_builtins;
namespace q = opc::qvservices;

// The manager dies before the package it reads.
void extract(const std::u16string& nativePath, const std::u16string& nativeFolder) {
    opc::model::OpenedPackage package(nativePath);
    std::unique_ptr<q::FileSystemManager> manager;
    {
        const opc::FileSystemOpsSelector selector;
        manager = std::make_unique<q::FileSystemManager>(package.package(), selector);
    }
    manager->extractAll(nativeFolder, q::RestoreMode::AllParts, q::TransformMode::PercentDecode,
                        q::ReplaceMode::Replace);
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
