#include "tsappinstall/repository/Client.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>

#include "Download.hpp"
#include "PartialFile.hpp"
#include "Transfer.hpp"
#include "platform/base/Ascii.hpp"
#include "platform/base/Random.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/timeconv/UtcText.hpp"

namespace tsappinstall::repository {
namespace {

namespace fs = std::filesystem;
using detail::failOn;
using detail::PartialFile;
using opc::detail::FileOps;
using opc::detail::OpsFd;

[[noreturn]] void fail(FaultKind kind, const std::string& what) {
    throw Error(kind, what);
}

TransferOptions transferOptions(const ClientOptions& options, Connection& connection,
                                const Deadline& deadline) {
    return {options.serverCa, options.stallSeconds, deadline, {}, &connection};
}

// A small file of the repository, whole, refused past `limit` bytes.
std::string fetchWhole(const std::string& location, const std::string& name, std::uint64_t limit,
                       FaultKind tooLarge, const ClientOptions& options, Connection& connection) {
    std::string bytes;
    fetch(location, name, 0, transferOptions(options, connection, Deadline(options.indexSeconds)),
          {[&](bool) { bytes.clear(); },
           [&](const char* data, std::size_t size) {
               if (bytes.size() + size > limit)
                   fail(tooLarge, name + " is larger than " + std::to_string(limit) + " bytes");
               bytes.append(data, size);
           }});
    return bytes;
}

std::int64_t nowSeconds(const ClientOptions& options) {
    if (options.now >= 0) return options.now;
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The signature of index version `version`: its own file, or for an index
// a publisher wrote before signatures were kept by version, the one beside
// index.json.
std::string fetchSignature(const std::string& location, std::uint64_t version,
                           const ClientOptions& options, Connection& connection) {
    for (const std::string& name : {signatureFileOf(version), std::string(INDEX_SIGNATURE_FILE)}) {
        try {
            return fetchWhole(location, name, MAX_INDEX_SIGNATURE_BYTES,
                              FaultKind::MalformedSignature, options, connection);
        } catch (const Error& e) {
            if (e.kind() != FaultKind::CannotRead) throw;
            if (name == INDEX_SIGNATURE_FILE)
                fail(FaultKind::Unsigned,
                     std::string("the index is not signed (") + e.what() + ")");
        }
    }
    return {};  // not reached
}

// The index and its signature, checked unless the options allow an
// unsigned one. A pair that does not match is read once more: it may have
// been caught halfway through a publication by a publisher that renames the
// signature and the index into place one after the other.
struct SignedIndex {
    Index index;
    integrity::SignatureCheck check;
};

SignedIndex fetchIndex(const std::string& location, const ClientOptions& options,
                       Connection& connection) {
    for (int round = 0;; ++round) {
        SignedIndex out;
        const std::string text = fetchWhole(location, INDEX_FILE, MAX_INDEX_BYTES,
                                            FaultKind::BadIndex, options, connection);
        out.index = parseIndex(text);
        if (options.trustAnchors.empty()) return out;
        const std::string signature =
            fetchSignature(location, out.index.version, options, connection);
        out.check = integrity::checkSignature(signature, text, options.trustAnchors);
        const auto& fault = out.check.fault;
        if (fault && fault->kind == FaultKind::SignatureMismatch && round == 0) continue;
        if (fault) {
            // Whoever signed it is named, so that a reader can tell a
            // missing anchor from a stranger's index.
            const std::string by =
                out.check.signer.empty()
                    ? std::string()
                    : " (signed by " + out.check.signer +
                          (out.check.certificate.keyFingerprint.empty()
                               ? std::string()
                               : ", key SHA-256 " + out.check.certificate.keyFingerprint) +
                          ")";
            throw Error(Fault{fault->kind, INDEX_SIGNATURE_FILE, fault->detail + by},
                        "the index's signature: " + fault->detail + by);
        }
        return out;
    }
}

// The identity pinned in the options, if any, is the index's.
void checkIdentity(const RepositoryIdentity& found, const ClientOptions& options) {
    if (!options.repository.empty() && found.repository != options.repository)
        fail(FaultKind::WrongRepository,
             (found.repository.empty()
                  ? std::string("the index names no repository")
                  : "the index is of the repository \"" + found.repository + "\"") +
                 ", not of \"" + options.repository + "\"");
    if (!options.signerKey.empty() && found.signerKey != options.signerKey)
        fail(FaultKind::WrongRepository,
             "the index is signed by the key SHA-256 " +
                 (found.signerKey.empty() ? std::string("(none)") : found.signerKey) +
                 ", not by the key SHA-256 " + options.signerKey);
}

// "1 hour 30 minutes", "3 days 2 hours", "45 seconds": the two largest
// units that are not zero.
std::string howLong(std::int64_t seconds) {
    static const std::pair<std::int64_t, const char*> units[] = {
        {86400, "day"}, {3600, "hour"}, {60, "minute"}, {1, "second"}};
    std::string text;
    int said = 0;
    for (const auto& [size, name] : units) {
        const std::int64_t count = seconds / size;
        if (said == 2 || (count == 0 && (said > 0 || size > 1))) {
            if (said > 0) break;
            continue;
        }
        seconds %= size;
        text += (said++ ? " " : "") + std::to_string(count) + " " + name + (count == 1 ? "" : "s");
    }
    return text;
}

// The SHA-256 of the partial file, kept up with the bytes as they are
// written, so that the download is not read again to be checked.
class PartialHash {
  public:
    // Hashes what the file holds beyond what was hashed (a partial file an
    // earlier run left), starting over when it holds less.
    void catchUp(const PartialFile& partial, std::uint64_t size) {
        if (size < done_) restart();
        unsigned char buffer[1 << 16];
        while (done_ < size) {
            const long got = partial.ops().readAt(partial.fd(), buffer, sizeof buffer,
                                                  static_cast<long long>(done_));
            if (got <= 0) fail(FaultKind::CannotRead, "cannot read " + partial.path().string());
            update(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(got));
        }
    }
    void restart() {
        sha_.emplace();
        done_ = 0;
    }
    void update(const char* data, std::size_t size) {
        sha_->update(reinterpret_cast<const unsigned char*>(data), size);
        done_ += size;
    }
    std::string finishHex() { return sha_->finishHex(); }

  private:
    std::optional<integrity::Sha256> sha_{std::in_place};
    std::uint64_t done_ = 0;
};

// One attempt: appends to the partial file what the source sends from its
// size on, starting over when the source ignores the offset. Never more
// than the indexed size lands in the file.
void attempt(const std::string& location, const PackageEntry& entry, const PartialFile& partial,
             PartialHash& hash, const TransferOptions& base, const ClientOptions& options) {
    std::uint64_t have = partial.size();
    if (have > entry.size) {
        partial.truncate();
        have = 0;
    }
    hash.catchUp(partial, have);
    if (have == entry.size && have > 0) return;  // complete before an interruption
    TransferOptions transfer = base;
    std::uint64_t written = have;
    if (options.progress)
        transfer.progress = [&](std::uint64_t) { options.progress(written, entry.size); };
    fetch(location, entry.file, have, transfer,
          {[&](bool resumed) {
               if (resumed) return;
               partial.truncate();
               written = 0;
               hash.restart();
           },
           [&](const char* data, std::size_t size) {
               if (written + size > entry.size)
                   fail(FaultKind::SizeMismatch, entry.file + ": the source sent more than the " +
                                                     std::to_string(entry.size) +
                                                     " bytes the index lists");
               partial.write(data, size);
               hash.update(data, size);
               written += size;
           }});
    if (written < entry.size)
        fail(FaultKind::DownloadFailed, entry.file + ": the transfer ended after " +
                                            std::to_string(written) + " of " +
                                            std::to_string(entry.size) + " bytes");
}

// However many attempts it takes, a download has its indexed size's time.
Deadline downloadDeadline(const PackageEntry& entry, const ClientOptions& options) {
    const std::uint64_t forSize = options.minimumRate == 0 ? 0 : entry.size / options.minimumRate;
    return Deadline(options.downloadSeconds + static_cast<long>(forSize));
}

// The downloaded package must be good and be the app and version the
// index says: a publisher's index cannot pass one app off as another.
void checkAgainstEntry(const fs::path& path, const PackageEntry& entry) {
    AppManifestSerializer serializer;
    const inspect::Report report = inspect::checkPackage(path, serializer);
    if (!report.good())
        fail(report.faults.front().kind, entry.file + ": " + report.faults.front().detail);
    const AppManifest& m = *report.manifest;
    const std::string version = fl::i18n::to_string(m.version);
    if (!opc::detail::ascii_iequals(m.GUID, entry.guid) || version != entry.version)
        fail(FaultKind::BadIndex, entry.file + ": the package is " + m.GUID + " version " +
                                      version + ", but the index lists " + entry.guid +
                                      " version " + entry.version);
}

}  // namespace

Repository::Repository(std::string location, ClientOptions options)
    : location_(std::move(location)),
      options_(std::move(options)),
      connection_(std::make_unique<Connection>()) {
    if (options_.trustAnchors.empty() && !options_.allowUnsigned)
        fail(FaultKind::Other, "no trust anchor given for the index's signature");
    SignedIndex read = fetchIndex(location_, options_, *connection_);
    index_ = std::move(read.index);
    signer_ = read.check.signer;
    identity_ = {index_.repository, read.check.certificate.keyFingerprint, location_};
    const std::int64_t now = nowSeconds(options_);
    if (now > index_.expires)
        fail(FaultKind::ExpiredIndex, "the index expired at " + formatUtc(index_.expires) + ", " +
                                          howLong(now - index_.expires) + " ago");
    checkIdentity(identity_, options_);
    seen_ = std::max(options_.highestSeen,
                     options_.highestSeenOf ? options_.highestSeenOf(identity_) : 0);
    if (index_.version < seen_)
        fail(FaultKind::IndexRollback, "the index is version " + std::to_string(index_.version) +
                                           ", older than version " + std::to_string(seen_) +
                                           " seen before");
}

Repository::~Repository() = default;
Repository::Repository(Repository&&) noexcept = default;
Repository& Repository::operator=(Repository&&) noexcept = default;

std::uint64_t Repository::highestSeen() const {
    return std::max(index_.version, seen_);
}

std::string RepositoryIdentity::key() const {
    return (repository.empty() ? "location " + location : "repository " + repository) + " key " +
           signerKey;
}

fs::path Repository::download(const PackageEntry& entry, const fs::path& folder) const {
    return detail::DownloadAccess::download(*this, entry, folder, opc::detail::posixFileOps()).path;
}

namespace detail {

Downloaded DownloadAccess::download(const Repository& repository, const PackageEntry& entry,
                                    const fs::path& folder, const FileOps& ops) {
    if (!isPlainFileName(entry.file))
        fail(FaultKind::BadIndex, "not a plain package name: " + entry.file);
    const ClientOptions& options = repository.options_;
    const OpsFd into(ops, ops.openat(AT_FDCWD, folder.c_str(), O_RDONLY | O_DIRECTORY));
    if (!into) failOn(FaultKind::CannotWrite, "cannot open", folder);
    PartialFile partial(ops, into.get(), entry.file + ".part", folder / (entry.file + ".part"));
    // The finished file is this download's alone: another download of the
    // same package may finish while the caller still reads this one.
    const std::string target = opc::detail::randomToken(4) + "-" + entry.file;
    const Deadline deadline = downloadDeadline(entry, options);
    const TransferOptions transfer = transferOptions(options, *repository.connection_, deadline);
    std::string lastFailure;
    PartialHash hash;
    const int attempts = std::max(1, options.attempts);
    int made = 0;
    while (made < attempts) {
        ++made;
        try {
            attempt(repository.location_, entry, partial, hash, transfer, options);
            lastFailure.clear();
            break;
        } catch (const Error& e) {
            // Only a transfer cut short, with time left, is worth another try.
            if (e.kind() != FaultKind::DownloadFailed) {
                partial.remove();
                throw;
            }
            lastFailure = e.what();
            if (deadline.passed()) break;
        }
    }
    if (!lastFailure.empty()) {
        partial.remove();
        fail(FaultKind::DownloadFailed,
             lastFailure + " (" + std::to_string(made) + (made == 1 ? " attempt)" : " attempts)"));
    }
    const std::string sha256 = hash.finishHex();
    if (sha256 != entry.sha256) {
        partial.remove();
        fail(FaultKind::DigestMismatch,
             entry.file + ": its SHA-256 is " + sha256 + ", the index lists " + entry.sha256);
    }
    Downloaded done{folder / target, partial.renameTo(target)};
    try {
        checkAgainstEntry(done.path, entry);
    } catch (...) {
        ops.unlinkat(into.get(), target.c_str(), 0);
        throw;
    }
    return done;
}

}  // namespace detail
}  // namespace tsappinstall::repository
