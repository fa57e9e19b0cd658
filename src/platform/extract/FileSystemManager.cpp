#include "tsappinstall/platform/opc/FileSystemManager.hpp"

#include <vector>

#include "platform/zip/EntryDecoder.hpp"
#include "platform/extract/ExtractionPaths.hpp"
#include "platform/extract/StagedExtraction.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/Package.hpp"

namespace opc::qvservices {
namespace {

bool isRelationshipPart(const std::string& name) {
    const std::size_t slash = name.rfind('/');
    if (slash == std::string::npos || slash < 6) return false;
    const bool inRelsFolder = name.compare(slash - 6, 7, "/_rels/") == 0;
    const bool relsExtension = name.size() >= 5 && name.compare(name.size() - 5, 5, ".rels") == 0;
    return inRelsFolder && relsExtension;
}

void checkModes(RestoreMode restore, TransformMode transform, ReplaceMode replace) {
    if (restore != RestoreMode::ContentParts && restore != RestoreMode::AllParts)
        throw Exception("unknown restore mode " + std::to_string(static_cast<int>(restore)));
    if (transform != TransformMode::KeepEscapes && transform != TransformMode::PercentDecode)
        throw Exception("unknown transform mode " + std::to_string(static_cast<int>(transform)));
    if (replace != ReplaceMode::Replace && replace != ReplaceMode::FailIfExists)
        throw Exception("unknown replace mode " + std::to_string(static_cast<int>(replace)));
}

struct PlannedPart {
    model::PartName name;
    detail::FileSegments path;
};

}  // namespace

FileSystemManager::FileSystemManager(model::Package& package, const FileSystemOpsSelector&)
    : package_(package) {}

FileSystemManager::~FileSystemManager() = default;

void FileSystemManager::setProgress(Progress progress) {
    progress_ = std::move(progress);
}

void FileSystemManager::extractAll(const std::u16string& folder, RestoreMode restore,
                                   TransformMode transform, ReplaceMode replace) {
    checkModes(restore, transform, replace);
    // Every path is checked before the first byte is written.
    std::vector<PlannedPart> plan;
    std::uint64_t bytesTotal = 0;
    for (auto& name : package_.getPartNames()) {
        if (restore == RestoreMode::ContentParts && isRelationshipPart(name.ascii())) continue;
        auto path =
            detail::fileSegmentsFor(name.ascii(), transform == TransformMode::PercentDecode);
        bytesTotal += package_.getPart(name).getEntry().size;
        plan.push_back({std::move(name), std::move(path)});
    }

    detail::StagedExtraction staging(fl::i18n::to_string(folder),
                                     replace == ReplaceMode::Replace
                                         ? detail::StagedExtraction::Existing::Replace
                                         : detail::StagedExtraction::Existing::Refuse);
    detail::EntryDecoder decoder;
    std::uint64_t bytesDone = 0;
    std::size_t partsDone = 0;
    for (const auto& planned : plan) {
        model::Part part = package_.getPart(planned.name);
        const auto& entry = part.getEntry();
        const detail::EntryFacts facts{entry.compressionMethod, entry.size, entry.compressedSize,
                                       entry.crc32};
        InputStream& raw = part.getRawInputStream();
        staging.stage(planned.path,
                      [&](int fd) { decoder.decodeTo(facts, raw, fd, planned.name.ascii()); });
        bytesDone += entry.size;
        if (progress_) progress_(bytesDone, bytesTotal, ++partsDone, plan.size());
    }
    staging.commit();
}

}  // namespace opc::qvservices
