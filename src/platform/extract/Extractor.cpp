#include "tsappinstall/platform/extract/Extraction.hpp"

#include <fcntl.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <vector>

#include "platform/extract/ExtractionPaths.hpp"
#include "platform/extract/Recovery.hpp"
#include "platform/extract/StagedExtraction.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/Package.hpp"

namespace opc {
namespace {

using namespace qvservices;

void checkModes(RestoreMode restore, TransformMode transform, ReplaceMode replace) {
    if (restore != RestoreMode::ContentParts && restore != RestoreMode::AllParts)
        throw Exception("unknown restore mode " + std::to_string(static_cast<int>(restore)));
    if (transform != TransformMode::KeepEscapes && transform != TransformMode::PercentDecode)
        throw Exception("unknown transform mode " + std::to_string(static_cast<int>(transform)));
    if (replace != ReplaceMode::Replace && replace != ReplaceMode::FailIfExists)
        throw Exception("unknown replace mode " + std::to_string(static_cast<int>(replace)));
}

struct PlannedPart {
    model::Part part;
    detail::FileSegments path;
};

// Decoded bytes go from the part's stream to the file in pieces of this
// size: large enough that the calls cost nothing next to inflating.
constexpr std::size_t kChunk = 256u << 10;

// The bytes an unprivileged writer may still put on the file system that
// holds `path`, or the nearest folder above it that exists.
std::uint64_t freeBytesAt(const detail::FileOps& ops, std::string path) {
    for (;;) {
        struct statvfs info {};
        if (ops.statvfs(path.c_str(), &info) == 0)
            return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize;
        const std::size_t slash = path.rfind('/');
        if (errno != ENOENT || slash == std::string::npos || path == "/") return UINT64_MAX;
        path = slash == 0 ? "/" : path.substr(0, slash);
    }
}

// A package may declare any size, but not more than the destination can
// hold: it fails here, not after filling the disk.
void checkFreeSpace(const detail::FileOps& ops, std::uint64_t bytesTotal,
                    const std::string& destination) {
    const std::uint64_t available = freeBytesAt(ops, destination);
    if (bytesTotal > available)
        throw Exception(Reason::CannotWrite, "the package needs " + std::to_string(bytesTotal) +
                                                 " bytes, but the file system of \"" + destination +
                                                 "\" has " + std::to_string(available) +
                                                 " bytes free");
}

[[noreturn]] void cancelled() {
    throw Exception(Reason::Cancelled, "the extraction was cancelled");
}

}  // namespace

namespace extraction {

Extractor::Extractor(model::Package& package, const FileSystemOpsSelector& selector,
                     Options options)
    : package_(package), ops_(&detail::fileOpsOf(selector)), options_(std::move(options)) {}

void Extractor::setProgress(FileSystemManager::Progress progress) {
    progress_ = std::move(progress);
}

Outcome Extractor::extractAll(const std::filesystem::path& folder, RestoreMode restore,
                              TransformMode transform, ReplaceMode replace) {
    checkModes(restore, transform, replace);
    // Every path and the total size are checked before the first byte is written.
    std::vector<PlannedPart> plan;
    std::uint64_t bytesTotal = 0;
    const std::uint64_t limit = options_.maxBytes ? options_.maxBytes : UINT64_MAX;
    for (auto& name : package_.getPartNames()) {
        if (restore == RestoreMode::ContentParts && !name.relationshipsSource().empty()) continue;
        auto path =
            detail::fileSegmentsFor(name.ascii(), transform == TransformMode::PercentDecode);
        model::Part part = package_.getPart(name);
        const std::uint64_t size = part.getEntry().size;
        if (size > limit - bytesTotal)
            throw Exception("the package would write more than the limit of " +
                            std::to_string(limit) + " bytes");
        bytesTotal += size;
        plan.push_back({std::move(part), std::move(path)});
    }

    checkFreeSpace(*ops_, bytesTotal, folder.native());
    detail::StagedExtraction staging(folder,
                                     replace == ReplaceMode::Replace
                                         ? detail::StagedExtraction::Existing::Replace
                                         : detail::StagedExtraction::Existing::Refuse,
                                     options_.sync, *ops_);
    std::vector<unsigned char> buffer(kChunk), stored;
    std::uint64_t bytesDone = 0;
    std::size_t partsDone = 0;
    PartObserver* observer = options_.observer;
    for (auto& planned : plan) {
        // Destroyed with this round, and its stream and inflater with it.
        model::Part part = std::move(planned.part);
        if (observer) observer->begin(part.getPartName());
        // The part's own stream checks its size and CRC-32 as it goes; the
        // read that reaches the end fails when either is wrong.
        InputStream& in = part.getInputStream(&stored);
        staging.stage(planned.path, [&](int fd) {
            for (;;) {
                if (options_.cancelled && options_.cancelled()) cancelled();
                const std::size_t size = in.read(buffer.data(), buffer.size());
                if (size == 0) return;
                if (ops_->writeAll(fd, buffer.data(), size) != 0)
                    throw Exception(Reason::CannotWrite, "cannot write the file \"" +
                                                             detail::joinSegments(planned.path) +
                                                             "\": " + std::strerror(errno));
                if (observer) observer->update(buffer.data(), size);
            }
        });
        if (observer) observer->end();
        bytesDone += part.getEntry().size;
        if (progress_) progress_(bytesDone, bytesTotal, ++partsDone, plan.size());
    }
    if (options_.cancelled && options_.cancelled()) cancelled();
    if (observer) observer->beforeCommit();
    staging.commit();
    return Outcome{staging.warnings()};
}

Recovery recover(const std::filesystem::path& destination, const FileSystemOpsSelector& selector,
                 bool discardUnreadable) {
    const detail::Destination where = detail::splitDestination(destination);
    const detail::FileOps& ops = detail::fileOpsOf(selector);
    const detail::OpsFd parent(ops,
                               ops.openat(AT_FDCWD, where.parent.c_str(), O_RDONLY | O_DIRECTORY));
    const detail::OpsFd dest(ops, ops.openat(AT_FDCWD, where.path.c_str(), O_RDONLY | O_DIRECTORY));
    if (!dest && errno != ENOENT)
        throw Exception("cannot open the folder \"" + where.path + "\": " + std::strerror(errno));
    Recovery out;
    detail::recoverDestination(ops, parent ? parent.get() : -1, dest ? dest.get() : -1, where.path,
                               where.name, discardUnreadable, out);
    return out;
}

}  // namespace extraction

}  // namespace opc
