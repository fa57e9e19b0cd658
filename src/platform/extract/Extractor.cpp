#include "tsappinstall/platform/extract/Extraction.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <algorithm>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/base/ModifiedTime.hpp"
#include "platform/extract/ExtractionPaths.hpp"
#include "platform/extract/Recovery.hpp"
#include "platform/extract/StagedExtraction.hpp"
#include "platform/opc/ItemLoop.hpp"
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

// Counts what every thread has written and passes it on to the progress
// callback, one call at a time.
class ProgressCount {
  public:
    ProgressCount(const FileSystemManager::Progress& progress, std::uint64_t bytesTotal,
                  std::size_t partsTotal)
        : progress_(progress), bytesTotal_(bytesTotal), partsTotal_(partsTotal) {}

    void add(std::uint64_t bytes, std::size_t parts) {
        std::lock_guard<std::mutex> lock(mutex_);
        bytesDone_ += bytes;
        partsDone_ += parts;
        if (progress_) progress_(bytesDone_, bytesTotal_, partsDone_, partsTotal_);
    }

  private:
    const FileSystemManager::Progress& progress_;
    const std::uint64_t bytesTotal_;
    const std::size_t partsTotal_;
    std::mutex mutex_;
    std::uint64_t bytesDone_ = 0;
    std::size_t partsDone_ = 0;
};

extraction::LandedFile landedFile(const struct stat& info) {
    return {static_cast<std::uint64_t>(info.st_size), info.st_mode & 07777u,
            static_cast<std::uint64_t>(info.st_ino), detail::modifiedNs(info)};
}

// Writes each part the read of the package pours into it into its staged
// file and shows it to the observer; the content types are no file. One
// per thread of the extraction.
class ExtractionSink : public model::ItemSink {
  public:
    using Plan = std::unordered_map<std::string, detail::FileSegments>;

    // Bytes written of one part between two progress calls.
    static constexpr std::uint64_t kProgressStep = 1u << 20;

    ExtractionSink(const Plan& plan, detail::StagedExtraction& staging, const detail::FileOps& ops,
                   extraction::PartObserver* observer, const extraction::Options& options,
                   ProgressCount& progress)
        : plan_(plan),
          staging_(staging),
          ops_(ops),
          observer_(observer),
          landed_(options.landed),
          reuse_(options.reuse),
          progress_(progress) {}

    bool begin(const std::string& item, model::Part* part, std::size_t) override {
        const auto planned = part ? plan_.find(item) : plan_.end();
        if (planned == plan_.end()) return false;
        path_ = &planned->second;
        part_ = part;
        if (reuse_ && take()) return false;
        file_ = staging_.beginFile(*path_);
        if (observer_) observer_->begin(part->getPartName());
        return true;
    }
    void update(const unsigned char* data, std::size_t size) override {
        if (ops_.writeAll(file_.get(), data, size) != 0)
            throw Exception(Reason::CannotWrite, "cannot write the file \"" +
                                                     detail::joinSegments(*path_) +
                                                     "\": " + std::strerror(errno));
        if (observer_) observer_->update(data, size);
        unreported_ += size;
        if (unreported_ >= kProgressStep) progress_.add(std::exchange(unreported_, 0), 0);
    }
    void end() override {
        struct stat info {};
        if (landed_ && ops_.fstat(file_.get(), &info) != 0)
            throw Exception(Reason::CannotWrite, "cannot examine the file \"" +
                                                     detail::joinSegments(*path_) +
                                                     "\": " + std::strerror(errno));
        staging_.endFile(std::move(file_), *path_);
        if (landed_) landed_(part_->getPartName(), detail::joinSegments(*path_), landedFile(info));
        if (observer_) observer_->end();
        progress_.add(std::exchange(unreported_, 0), 1);
    }
    // A part that fails its size or CRC-32 check fails the extraction.
    void fail(const Exception& error) override { throw error; }

  private:
    // The part's file from the one the caller offers, if it offers one:
    // its bytes are then not read from the package.
    bool take() {
        const opc::model::PartName& name = part_->getPartName();
        extraction::ReusedFile offered = reuse_(name, detail::joinSegments(*path_));
        if (offered.fd < 0) return false;
        const detail::OpsFd source(ops_, offered.fd);
        struct stat info {};
        staging_.stageFrom(*path_, source.get(), info);
        if (landed_) landed_(name, detail::joinSegments(*path_), landedFile(info));
        if (observer_) observer_->taken(name, offered.sha256);
        progress_.add(static_cast<std::uint64_t>(info.st_size), 1);
        return true;
    }

    const Plan& plan_;
    detail::StagedExtraction& staging_;
    const detail::FileOps& ops_;
    extraction::PartObserver* observer_;
    const decltype(extraction::Options::landed)& landed_;
    const decltype(extraction::Options::reuse)& reuse_;
    ProgressCount& progress_;
    const detail::FileSegments* path_ = nullptr;
    model::Part* part_ = nullptr;
    detail::OpsFd file_;  // the part being written
    std::uint64_t unreported_ = 0;
};

// An observer for each of `threads` threads, made by the caller's own;
// none when it cannot be split.
std::vector<std::unique_ptr<extraction::PartObserver>> observersFor(
    extraction::PartObserver& observer, unsigned threads) {
    std::vector<std::unique_ptr<extraction::PartObserver>> observers;
    for (unsigned i = 0; i < threads; ++i) {
        observers.push_back(observer.forThread());
        if (!observers.back()) return {};
    }
    return observers;
}

}  // namespace

namespace extraction {

Extractor::Extractor(model::Package& package, const FileSystemOpsSelector& selector,
                     Options options)
    : package_(package), ops_(&detail::fileOpsOf(selector)), options_(std::move(options)) {}

void Extractor::setProgress(FileSystemManager::Progress progress) {
    options_.progress = std::move(progress);
}

Outcome Extractor::extractAll(const std::filesystem::path& folder, RestoreMode restore,
                              TransformMode transform, ReplaceMode replace) {
    checkModes(restore, transform, replace);
    // Every path and the total size are checked before the first byte is written.
    ExtractionSink::Plan plan;
    std::uint64_t bytesTotal = 0;
    const std::uint64_t limit = options_.maxBytes ? options_.maxBytes : UINT64_MAX;
    for (const auto& name : package_.getPartNames()) {
        if (restore == RestoreMode::ContentParts && !name.relationshipsSource().empty()) continue;
        const std::uint64_t size = package_.getPart(name).getEntry().size;
        if (size > limit - bytesTotal)
            throw Exception("the package would write more than the limit of " +
                            std::to_string(limit) + " bytes");
        bytesTotal += size;
        plan.emplace(name.ascii(), detail::fileSegmentsFor(
                                       name.ascii(), transform == TransformMode::PercentDecode));
    }

    checkFreeSpace(*ops_, bytesTotal, folder.native());
    detail::StagedExtraction staging(folder,
                                     replace == ReplaceMode::Replace
                                         ? detail::StagedExtraction::Existing::Replace
                                         : detail::StagedExtraction::Existing::Refuse,
                                     options_.sync, *ops_, options_.fileMode);
    ProgressCount progress(options_.progress, bytesTotal, plan.size());
    PartObserver* observer = options_.observer;
    // More threads than parts would have nothing to do.
    unsigned threads = static_cast<unsigned>(std::clamp<std::size_t>(
        model::threadCount(options_.threads), 1, std::max<std::size_t>(plan.size(), 1)));
    std::vector<std::unique_ptr<PartObserver>> observers;
    if (observer && threads > 1) {
        observers = observersFor(*observer, threads);
        if (observers.empty()) threads = 1;
    }
    std::optional<model::SinksPerThread<ExtractionSink>> sinks(
        std::in_place, threads, [&](unsigned i) {
            return std::make_unique<ExtractionSink>(
                plan, staging, *ops_, observers.empty() ? observer : observers[i].get(), options_,
                progress);
        });
    model::readEveryItem(package_, sinks->sinks, [this] {
        if (options_.cancelled && options_.cancelled()) cancelled();
    });
    sinks.reset();
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
