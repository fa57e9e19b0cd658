#include "Unpack.hpp"

#include <fcntl.h>

#include <algorithm>
#include <map>
#include <optional>

#include "StoreFiles.hpp"
#include "integrity/PackageItems.hpp"
#include "integrity/VerifySteps.hpp"
#include "platform/extract/ExtractionPaths.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"

namespace tsappinstall::store::detail {
namespace {

namespace integrity = tsappinstall::integrity;
using opc::model::PartName;

[[noreturn]] void badPackage(const std::vector<Fault>& faults) {
    std::vector<std::string> lines;
    for (const Fault& fault : faults) lines.push_back(describe(fault));
    throw StoreError(StoreError::Reason::BadPackage, lines);
}

bool among(const PartName& part, const std::vector<PartName>& parts) {
    return std::any_of(parts.begin(), parts.end(),
                       [&](const PartName& p) { return p.key() == part.key(); });
}

// Feeds the parts the digest list covers to its check and hashes the
// others itself, all on the extraction's thread.
class RecordingObserver final : public opc::extraction::PartObserver {
  public:
    RecordingObserver(integrity::DigestCheck* check, std::vector<PartName> uncovered)
        : check_(check), uncovered_(std::move(uncovered)) {}

    void begin(const PartName& part) override {
        covered_ = check_ && !among(part, uncovered_);
        current_ = part.ascii();
        if (covered_) check_->begin(current_);
    }
    void update(const unsigned char* data, std::size_t size) override {
        if (covered_)
            check_->update(data, size);
        else
            sha_.update(data, size);
    }
    void end() override {
        if (covered_)
            check_->end();
        else
            hashes_[current_] = sha_.finishHex();
    }
    void beforeCommit() override {
        if (!check_) return;
        const auto& faults = check_->finish();
        if (!faults.empty()) badPackage(faults);
    }
    const std::map<std::string, std::string>& hashes() const { return hashes_; }

  private:
    integrity::DigestCheck* check_;
    std::vector<PartName> uncovered_;
    bool covered_ = false;
    std::string current_;
    integrity::Sha256 sha_;
    std::map<std::string, std::string> hashes_;  // part name -> hex
};

opc::extraction::Options extractionOptions(const InstallOptions& options) {
    opc::extraction::Options extraction;
    extraction.sync = options.sync;
    extraction.cancelled = options.cancelled;
    extraction.threads = options.threads;
    extraction.progress = options.progress;
    return extraction;
}

std::string filePath(const PartName& part) {
    return opc::detail::joinSegments(opc::detail::fileSegmentsFor(part.ascii(), true));
}

// The digests the list gives, by part name.
std::map<std::string, std::string> listedDigests(opc::model::Package& package,
                                                 const integrity::DigestList& list) {
    std::map<std::string, std::string> byListed, byPart;
    for (const auto& entry : list.parts) byListed[entry.name] = entry.sha256;
    for (const PartName& part : package.getPartNames()) {
        const auto found = byListed.find(integrity::listedName(part.ascii(), list.version));
        if (found != byListed.end()) byPart[part.ascii()] = found->second;
    }
    return byPart;
}

// Every part's file with its size and mode as it landed, and its digest
// from `digests` or, for the few parts neither the list nor the observer
// covered (the digest list and signature themselves), read back.
std::vector<InstalledFile> recordsOf(opc::model::Package& package,
                                     const std::filesystem::path& folder,
                                     const std::map<std::string, std::string>& digests,
                                     const FileOps& ops) {
    OpsFd dir(ops, ops.openat(AT_FDCWD, folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir) failed(folder.string() + " cannot be opened", errno);
    std::vector<std::pair<std::string, std::string>> paths;  // file path, part name
    for (const PartName& part : package.getPartNames())
        paths.emplace_back(filePath(part), part.ascii());
    std::sort(paths.begin(), paths.end());
    std::vector<InstalledFile> files;
    FolderCache cache;
    for (auto& [path, part] : paths) {
        InstalledFile file;
        file.path = std::move(path);
        const auto digest = digests.find(part);
        const bool known = digest != digests.end();
        const FoundFile found =
            findFile(ops, dir.get(), file.path, !known, folder.string(), &cache);
        if (found.state != FoundFile::State::Regular)
            failed(folder.string() + "/" + file.path + " is gone after unpacking", ENOENT);
        file.size = found.size;
        file.mode = found.mode;
        file.sha256 = known ? digest->second : found.sha256;
        files.push_back(std::move(file));
    }
    return files;
}

std::string readSmallFile(const FileOps& ops, const std::filesystem::path& file) {
    OpsFd fd(ops, ops.openat(AT_FDCWD, file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) failed(file.string() + " cannot be read", errno);
    std::string bytes(integrity::MAX_SIGNATURE_BYTES, '\0');
    const long n = ops.readAt(fd.get(), bytes.data(), bytes.size(), 0);
    if (n < 0) failed(file.string() + " cannot be read", errno);
    bytes.resize(static_cast<std::size_t>(n));
    return bytes;
}

void addSigner(Unpacked& unpacked, const std::filesystem::path& folder, const FileOps& ops) {
    const std::string signature = readSmallFile(ops, folder / (integrity::SIGNATURE_PART_NAME + 1));
    unpacked.signerFingerprint = signerFingerprint(signature);
}

// The library's verified extraction, whose hashing overlaps the writing;
// it works on the process's own file operations only.
Unpacked unpackVerified(opc::model::Package& package, const std::filesystem::path& folder,
                        const InstallOptions& options, const integrity::DigestList& list) {
    const integrity::VerificationPolicy policy{options.trustAnchors, !options.trustAnchors.empty()};
    integrity::VerifiedExtraction result =
        integrity::extractVerified(package, folder, policy, extractionOptions(options),
                                   opc::qvservices::ReplaceMode::FailIfExists);
    if (!result.report.ok()) badPackage(result.report.faults);
    Unpacked unpacked;
    const FileOps& ops = opc::detail::posixFileOps();
    unpacked.files = recordsOf(package, folder, listedDigests(package, list), ops);
    unpacked.leftAside = std::move(result.leftAside);
    if (result.report.isSigned && !options.trustAnchors.empty()) {
        unpacked.signerSubject = result.report.signer;
        addSigner(unpacked, folder, ops);
    }
    return unpacked;
}

}  // namespace

Unpacked unpack(opc::model::Package& package, const std::filesystem::path& folder,
                const InstallOptions& options, const opc::FileSystemOpsSelector& selector) {
    std::vector<Fault> faults;
    const auto list = integrity::detail::readDigestList(package, faults);
    const bool trusting = !options.trustAnchors.empty();
    const bool noList = faults.size() == 1 && faults[0].kind == FaultKind::NoDigestList;
    if (!faults.empty() && (trusting || !noList)) badPackage(faults);
    integrity::VerificationReport author;
    if (list)
        integrity::detail::checkAuthor(package, list->text, {options.trustAnchors, trusting},
                                       author);
    if (trusting && !author.ok()) badPackage(author.faults);
    // Without trust anchors a signature is not checked (as the package
    // check does), so a signed package goes the way below, which the
    // fault-injection tests take too.
    if (list && selector.ops() == nullptr && (trusting || !author.isSigned))
        return unpackVerified(package, folder, options, *list->list);

    std::optional<integrity::DigestCheck> check;
    if (list) {
        check.emplace(*list->list);
        integrity::detail::DigestSink contentTypes(*check, {}, true);
        opc::model::readEveryItem(package, contentTypes);
    }
    RecordingObserver observer(check ? &*check : nullptr,
                               integrity::detail::integrityParts(package));
    opc::extraction::Options extraction = extractionOptions(options);
    extraction.observer = &observer;
    opc::extraction::Extractor extractor(package, selector, std::move(extraction));
    Unpacked unpacked;
    unpacked.leftAside = extractor
                             .extractAll(folder, opc::qvservices::RestoreMode::AllParts,
                                         opc::qvservices::TransformMode::PercentDecode,
                                         opc::qvservices::ReplaceMode::FailIfExists)
                             .leftAside;
    if (trusting) {
        unpacked.signerSubject = author.signer;
        addSigner(unpacked, folder, opc::detail::fileOpsOf(selector));
    }
    auto digests = observer.hashes();
    if (list) digests.merge(listedDigests(package, *list->list));
    unpacked.files = recordsOf(package, folder, digests, opc::detail::fileOpsOf(selector));
    return unpacked;
}

}  // namespace tsappinstall::store::detail
