#include "Unpack.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>

#include "StoreFiles.hpp"
#include "integrity/FileSha256.hpp"
#include "integrity/PackageIntegrity.hpp"
#include "platform/base/ModifiedTime.hpp"
#include "platform/extract/ExtractionPaths.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace tsappinstall::store::detail {
namespace {

namespace integrity = tsappinstall::integrity;
using opc::model::PartName;

[[noreturn]] void badPackage(const std::vector<Fault>& faults) {
    std::vector<std::string> lines;
    for (const Fault& fault : faults) lines.push_back(describe(fault));
    throw StoreError(faults.empty() ? FaultKind::Other : faults.front().kind, lines);
}

// Hashes every part, for an unpacking whose digests are not checked: the
// records need each file's digest all the same. It keeps the extraction on
// one thread.
class HashingObserver final : public opc::extraction::PartObserver {
  public:
    void begin(const PartName& part) override { current_ = part.ascii(); }
    void update(const unsigned char* data, std::size_t size) override { sha_.update(data, size); }
    void end() override { hashes_[current_] = sha_.finishHex(); }
    void taken(const PartName& part, const std::string& sha256) override {
        hashes_[part.ascii()] = sha256;
    }
    void beforeCommit() override {}
    const std::map<std::string, std::string>& hashes() const { return hashes_; }

  private:
    std::string current_;
    integrity::Sha256 sha_;
    std::map<std::string, std::string> hashes_;  // part name -> hex
};

// Where a part's digest comes from: a hash taken while unpacking (by part
// name) before the package's digest list. A version 2 list names a part by
// the path its file lands at, which the extraction reports, so that name
// is not worked out again for each part.
class KnownDigests {
  public:
    KnownDigests(const integrity::DigestList* list,
                 const std::map<std::string, std::string>* computed)
        : list_(list), computed_(computed) {
        if (!list_) return;
        listed_.reserve(list_->parts.size());
        for (const auto& entry : list_->parts) listed_.emplace(entry.name, &entry.sha256);
    }

    const std::string* find(const PartName& part, const std::string& path) const {
        if (computed_) {
            const auto found = computed_->find(part.ascii());
            if (found != computed_->end()) return &found->second;
        }
        if (!list_) return nullptr;
        const auto found = listed_.find(
            list_->version == 2 ? path : integrity::listedName(part.ascii(), list_->version));
        return found == listed_.end() ? nullptr : found->second;
    }

  private:
    const integrity::DigestList* list_;
    const std::map<std::string, std::string>* computed_;
    std::unordered_map<std::string_view, const std::string*> listed_;
};

// The files an extraction reports as it writes them, from its threads: the
// records need every file's size and mode as it landed, and looking at
// thousands of files again after the extraction kept the install waiting
// on one core.
class LandedFiles {
  public:
    // `expected`: about how many files will land (the replaced version's
    // count), so that the list is not moved as it grows under the lock.
    explicit LandedFiles(std::size_t expected) {
        files_.reserve(expected);
        stamps_.reserve(expected);
    }

    void add(const PartName& part, const std::string& path,
             const opc::extraction::LandedFile& landed) {
        InstalledFile file{path, landed.size, landed.mode, {}};
        const std::lock_guard<std::mutex> lock(mutex_);
        files_.emplace_back(part, std::move(file));
        if (landed.inode != 0) stamps_.emplace(path, FileStamp{landed.inode, landed.modifiedNs});
    }

    // The stamps of the files last written before `now`, a time the file
    // system itself gave after every file landed.
    FileStamps stamps(std::int64_t now) {
        FileStamps stamps = std::move(stamps_);
        for (auto at = stamps.begin(); at != stamps.end();)
            at = at->second.modifiedNs < now ? std::next(at) : stamps.erase(at);
        return stamps;
    }

    // Every landed file's record, by path, with its digest as known or, for
    // the few parts neither the list nor the observer covered (the digest
    // list and signature themselves), read back.
    std::vector<InstalledFile> records(const KnownDigests& digests,
                                       const std::filesystem::path& folder, const FileOps& ops) {
        std::vector<InstalledFile> files;
        files.reserve(files_.size());
        OpsFd dir;
        for (auto& [part, file] : files_) {
            if (const std::string* digest = digests.find(part, file.path))
                file.sha256 = *digest;
            else
                file.sha256 = readBack(file.path, folder, ops, dir);
            files.push_back(std::move(file));
        }
        files_.clear();
        std::sort(files.begin(), files.end(),
                  [](const InstalledFile& a, const InstalledFile& b) { return a.path < b.path; });
        return files;
    }

  private:
    static std::string readBack(const std::string& path, const std::filesystem::path& folder,
                                const FileOps& ops, OpsFd& dir) {
        if (!dir)
            dir = OpsFd(ops,
                        ops.openat(AT_FDCWD, folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!dir) failed(folder.string() + " cannot be opened", errno);
        const FoundFile found = findFile(ops, dir.get(), path, true, folder.string());
        if (found.state != FoundFile::State::Regular)
            failed(folder.string() + "/" + path + " is gone after unpacking", ENOENT);
        return found.sha256;
    }

    std::mutex mutex_;
    std::vector<std::pair<PartName, InstalledFile>> files_;
    FileStamps stamps_;
};

// The file system's present time, as it would stamp a change made now to
// `folder` (the new version's own, whose time nothing else reads); nullopt
// when it cannot be had, and then no file is stamped.
std::optional<std::int64_t> fileSystemNow(const std::filesystem::path& folder, const FileOps& ops) {
    const OpsFd dir(ops, ops.openat(AT_FDCWD, folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat info {};
    if (!dir || ops.touch(dir.get()) != 0 || ops.fstat(dir.get(), &info) != 0) return std::nullopt;
    return opc::detail::modifiedNs(info);
}

// Offers the extraction the replaced version's files for the parts the
// package holds unchanged, from every thread of the extraction at once.
// The digest list it goes by is the package's, pinned, so the very text
// the unpacking verifies; each file offered was read here and found to
// have the digest that list gives its part, and the unpacking checks it
// against the verified list once more (PartObserver::taken).
class TakeFromReplaced {
  public:
    TakeFromReplaced(const Replaced& replaced, const KnownDigests& listed, const FileOps& ops)
        : replaced_(replaced), listed_(listed), ops_(ops) {
        for (const InstalledFile& file : replaced.files) records_.emplace(file.path, &file);
    }

    // The parts the package file leaves out, by ZIP entry name: each must
    // be taken, so each is held against the records now, and every one
    // that cannot be taken by them is named at once; its file is looked at
    // as it is taken.
    void expectAbsent(opc::model::Package& package, const std::set<std::string>& entries) {
        std::vector<std::string> lines;
        for (const std::string& entry : entries) {
            std::string why;
            try {
                const PartName part = PartName::fromZipItemName(entry);
                if (!package.containsPart(part)) {
                    why = "the package has no such part";
                } else {
                    const std::string path = opc::detail::filePathFor(part.ascii());
                    why = problem(part, path);
                    absent_.insert(part.ascii());
                }
            } catch (const opc::Exception& e) {
                why = std::string("it names no part: ") + e.what();
            }
            if (!why.empty()) lines.push_back(line(entry, why));
        }
        if (!lines.empty()) throw StoreError(FaultKind::NotReusable, lines);
    }

    opc::extraction::ReusedFile offer(const PartName& part, const std::string& path) {
        OpsFd file;
        std::string sha256;
        const std::string why = problem(part, path, &file, &sha256);
        if (why.empty()) {
            ++files_;
            bytes_ += records_.at(path)->size;
            return {file.release(), sha256};
        }
        if (absent_.count(part.ascii()))
            throw StoreError(FaultKind::NotReusable, {line(part.ascii().substr(1), why)});
        return {};
    }

    std::uint64_t files() const { return files_; }
    std::uint64_t bytes() const { return bytes_; }

  private:
    std::string line(const std::string& entry, const std::string& why) const {
        return "cannot take " + entry + " from the installed version " + replaced_.version + ": " +
               why;
    }

    // Why the replaced version's file at `path` is not the part's; empty
    // when it is. Without `file`, by the records alone; with it, the file
    // is looked at, read and hashed unless its stamp holds, and left open
    // in it.
    std::string problem(const PartName& part, const std::string& path, OpsFd* file = nullptr,
                        std::string* sha256 = nullptr) const {
        const auto record = records_.find(path);
        if (record == records_.end()) return "it holds no file " + path;
        const InstalledFile& recorded = *record->second;
        const std::string* listed = listed_.find(part, path);
        if (!listed) return "the package's digest list does not list it";
        if (*listed != recorded.sha256)
            return "the package's digest for it differs from its record";
        if (!file) return {};
        const std::string shown = replaced_.shownFolder + "/" + path;
        OpsFd& opened = *file;
        opened =
            OpsFd(ops_, ops_.openBeneath(replaced_.apps, (replaced_.folder + "/" + path).c_str(),
                                         O_RDONLY | O_NONBLOCK));
        if (!opened) {
            if (errno == ENOENT || errno == ENOTDIR) return shown + " is missing";
            if (errno == ELOOP || errno == EXDEV)
                return shown + " is reached through a symbolic link";
            return shown + " cannot be opened: " + std::strerror(errno);
        }
        struct stat info {};
        if (ops_.fstat(opened.get(), &info) != 0)
            return shown + " cannot be examined: " + std::strerror(errno);
        if (!S_ISREG(info.st_mode)) return shown + " is not a regular file";
        if (static_cast<std::uint64_t>(info.st_size) != recorded.size)
            return shown + " changed (size " + std::to_string(info.st_size) + ", recorded " +
                   std::to_string(recorded.size) + ")";
        if ((info.st_mode & 07777) != recorded.mode)
            return shown + " changed (mode " + modeText(info.st_mode) + ", recorded " +
                   modeText(recorded.mode) + ")";
        if (stillAsStamped(path, info)) {
            *sha256 = recorded.sha256;
            return {};
        }
        const integrity::FileSha256 read = integrity::sha256OfFile(ops_, opened.get());
        if (read.error) return shown + " cannot be read: " + std::strerror(read.error);
        if (read.hex != recorded.sha256 || read.size != recorded.size)
            return shown + " changed (its content differs from its record)";
        *sha256 = read.hex;
        return {};
    }

    bool stillAsStamped(const std::string& path, const struct stat& info) const {
        const auto stamp = replaced_.stamps.find(path);
        return stamp != replaced_.stamps.end() && stamp->second.inode == info.st_ino &&
               stamp->second.modifiedNs == opc::detail::modifiedNs(info);
    }

    const Replaced& replaced_;
    const KnownDigests& listed_;
    const FileOps& ops_;
    std::unordered_map<std::string, const InstalledFile*> records_;
    std::set<std::string> absent_;  // part names
    std::atomic<std::uint64_t> files_{0}, bytes_{0};
};

opc::extraction::Options extractionOptions(const InstallOptions& options, LandedFiles& landed) {
    opc::extraction::Options extraction;
    extraction.sync = options.sync;
    extraction.cancelled = options.cancelled;
    extraction.threads = options.threads;
    extraction.progress = options.progress;
    // Installed files are read-only: an app's files are what was verified,
    // and a version may share a file with the one before it (a link),
    // which a write through either name would change in both.
    extraction.fileMode = 0444;
    extraction.landed = [&landed](const PartName& part, const std::string& path,
                                  const opc::extraction::LandedFile& file) {
        landed.add(part, path, file);
    };
    return extraction;
}

}  // namespace

std::uint64_t sharedBytes(opc::model::Package& package, const std::vector<InstalledFile>& current) {
    if (current.empty() || !integrity::listsDigests(package)) return 0;
    std::vector<Fault> ignored;  // a plan does not judge the list
    const std::optional<integrity::DigestListPart> list =
        integrity::readDigestList(package, ignored);
    if (!list || !list->list) return 0;
    const KnownDigests listed(&*list->list, nullptr);
    std::unordered_map<std::string_view, const InstalledFile*> recorded;
    for (const InstalledFile& file : current) recorded.emplace(file.path, &file);
    std::uint64_t shared = 0;
    for (const PartName& part : package.getPartNames()) {
        const std::string path = opc::detail::filePathFor(part.ascii());
        const auto file = recorded.find(path);
        const std::string* digest = listed.find(part, path);
        if (file != recorded.end() && digest && *digest == file->second->sha256)
            shared += file->second->size;
    }
    return shared;
}

Unpacked unpack(opc::model::Package& package, const std::filesystem::path& folder,
                const InstallOptions& options, const opc::FileSystemOpsSelector& selector,
                const Replaced* replaced) {
    // Without trust anchors a signature is not checked, as the package
    // check does not check it either.
    const bool trusting = !options.trustAnchors.empty();
    const FileOps& ops = opc::detail::fileOpsOf(selector);
    HashingObserver hashing;
    LandedFiles landed(replaced ? replaced->files.size() : 0);
    opc::extraction::Options extraction = extractionOptions(options, landed);
    extraction.observer = &hashing;
    extraction.ops = selector;
    // A version's files are taken only by what the package's digest list
    // says of them: a package without one unpacks whole.
    std::optional<integrity::DigestListPart> list;
    if (replaced && integrity::listsDigests(package)) {
        std::vector<Fault> ignored;  // the unpacking reports them
        list = integrity::readDigestList(package, ignored);
    }
    std::optional<KnownDigests> listed;
    std::optional<TakeFromReplaced> take;
    if (list && list->list) {
        listed.emplace(&*list->list, nullptr);
        take.emplace(*replaced, *listed, ops);
        take->expectAbsent(package, options.absentParts);
        extraction.reuse = [&take](const PartName& part, const std::string& path) {
            return take->offer(part, path);
        };
    } else if (!options.absentParts.empty()) {
        throw StoreError(FaultKind::NotReusable,
                         {replaced ? "the package leaves parts out but has no digest list to "
                                     "take them from the installed version " +
                                         replaced->version + " by"
                                   : "the package leaves parts out, and no version is installed "
                                     "to take them from"});
    }
    integrity::VerifiedExtraction result = integrity::detail::unpackListed(
        package, folder,
        trusting ? integrity::DigestPolicy::Required : integrity::DigestPolicy::WhenPresent,
        {options.trustAnchors, trusting, trusting}, std::move(extraction),
        opc::qvservices::ReplaceMode::FailIfExists, list ? &*list : nullptr);
    if (!result.report.ok()) badPackage(result.report.faults);
    Unpacked unpacked;
    const KnownDigests digests(result.digests ? &*result.digests : nullptr, &hashing.hashes());
    unpacked.files = landed.records(digests, folder, ops);
    if (const auto now = fileSystemNow(folder, ops)) unpacked.stamps = landed.stamps(*now);
    unpacked.leftAside = std::move(result.leftAside);
    if (take) {
        unpacked.takenFiles = take->files();
        unpacked.takenBytes = take->bytes();
    }
    if (trusting && result.report.isSigned) {
        unpacked.signerSubject = result.report.signer;
        unpacked.signerFingerprint = result.report.certificate.fingerprint;
        unpacked.signerKeyFingerprint = result.report.certificate.keyFingerprint;
    }
    return unpacked;
}

}  // namespace tsappinstall::store::detail
