#include "tsappinstall/platform/opc/FileSystemManager.hpp"

#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace opc::qvservices {

FileSystemManager::FileSystemManager(model::Package& package, const FileSystemOpsSelector& selector)
    : package_(package), ops_(selector.ops()) {}

FileSystemManager::~FileSystemManager() = default;

void FileSystemManager::setProgress(Progress progress) {
    progress_ = std::move(progress);
}

void FileSystemManager::extractAll(const std::u16string& folder, RestoreMode restore,
                                   TransformMode transform, ReplaceMode replace) {
    extraction::Extractor extractor(package_, FileSystemOpsSelector(ops_));
    extractor.setProgress(progress_);
    // Old copies that could not be removed stay in a hidden staging folder
    // that the next extraction into the folder removes.
    extractor.extractAll(fl::i18n::to_string(folder), restore, transform, replace);
}

}  // namespace opc::qvservices
