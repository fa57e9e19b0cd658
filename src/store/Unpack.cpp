#include "Unpack.hpp"

#include <fcntl.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "StoreFiles.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"

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
    void add(const PartName& part, const std::string& path, std::uint64_t size, unsigned mode) {
        InstalledFile file{path, size, mode, {}};
        const std::lock_guard<std::mutex> lock(mutex_);
        files_.emplace_back(part, std::move(file));
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
};

opc::extraction::Options extractionOptions(const InstallOptions& options, LandedFiles& landed) {
    opc::extraction::Options extraction;
    extraction.sync = options.sync;
    extraction.cancelled = options.cancelled;
    extraction.threads = options.threads;
    extraction.progress = options.progress;
    extraction.landed = [&landed](const PartName& part, const std::string& path, std::uint64_t size,
                                  unsigned mode) { landed.add(part, path, size, mode); };
    return extraction;
}

}  // namespace

Unpacked unpack(opc::model::Package& package, const std::filesystem::path& folder,
                const InstallOptions& options, const opc::FileSystemOpsSelector& selector) {
    // Without trust anchors a signature is not checked, as the package
    // check does not check it either.
    const bool trusting = !options.trustAnchors.empty();
    HashingObserver hashing;
    LandedFiles landed;
    opc::extraction::Options extraction = extractionOptions(options, landed);
    extraction.observer = &hashing;
    extraction.ops = selector;
    integrity::VerifiedExtraction result = integrity::unpack(
        package, folder,
        trusting ? integrity::DigestPolicy::Required : integrity::DigestPolicy::WhenPresent,
        {options.trustAnchors, trusting, trusting}, std::move(extraction),
        opc::qvservices::ReplaceMode::FailIfExists);
    if (!result.report.ok()) badPackage(result.report.faults);
    const FileOps& ops = opc::detail::fileOpsOf(selector);
    Unpacked unpacked;
    const KnownDigests digests(result.digests ? &*result.digests : nullptr, &hashing.hashes());
    unpacked.files = landed.records(digests, folder, ops);
    unpacked.leftAside = std::move(result.leftAside);
    if (trusting && result.report.isSigned) {
        unpacked.signerSubject = result.report.signer;
        unpacked.signerFingerprint = result.report.certificate.fingerprint;
        unpacked.signerKeyFingerprint = result.report.certificate.keyFingerprint;
    }
    return unpacked;
}

}  // namespace tsappinstall::store::detail
