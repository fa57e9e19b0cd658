#include "tsappinstall/repository/Client.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <optional>

#include "Transfer.hpp"
#include "platform/base/Ascii.hpp"
#include "platform/base/UniqueFd.hpp"
#include "platform/base/WriteAll.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/timeconv/UtcText.hpp"

namespace tsappinstall::repository {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(FaultKind kind, const std::string& what) {
    throw Error(kind, what);
}

TransferOptions transferOptions(const ClientOptions& options, Connection& connection) {
    return {options.serverCa, options.stallSeconds, {}, &connection};
}

// A small file of the repository, whole, refused past `limit` bytes.
std::string fetchWhole(const std::string& location, const std::string& name, std::uint64_t limit,
                       FaultKind tooLarge, const TransferOptions& transfer) {
    std::string bytes;
    fetch(location, name, 0, transfer,
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

// The signer of `text`, or a refusal: no signature, or one not made over
// these bytes by a signer whose chain leads to a trusted anchor.
std::string checkIndexSignature(const std::string& location, const std::string& text,
                                const ClientOptions& options, const TransferOptions& transfer) {
    std::string signature;
    try {
        signature = fetchWhole(location, INDEX_SIGNATURE_FILE, MAX_INDEX_SIGNATURE_BYTES,
                               FaultKind::MalformedSignature, transfer);
    } catch (const Error& e) {
        if (e.kind() != FaultKind::CannotRead) throw;
        fail(FaultKind::Unsigned, std::string("the index is not signed (") + e.what() + ")");
    }
    const integrity::SignatureCheck check =
        integrity::checkSignature(signature, text, options.trustAnchors);
    if (check.fault)
        throw Error(Fault{check.fault->kind, INDEX_SIGNATURE_FILE, check.fault->detail},
                    "the index's signature: " + check.fault->detail);
    return check.signer;
}

std::string days(std::int64_t seconds) {
    const std::int64_t d = seconds / 86400;
    return d >= 1 ? std::to_string(d) + (d == 1 ? " day" : " days")
                  : std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
}

struct PartialFile {
    fs::path path;
    std::uint64_t size() const {
        struct stat info {};
        return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)
                   ? static_cast<std::uint64_t>(info.st_size)
                   : 0;
    }
    void remove() const { ::unlink(path.c_str()); }
};

void writeAll(int fd, const char* data, std::size_t size) {
    if (opc::detail::write_all(fd, data, size) != 0)
        fail(FaultKind::CannotWrite, "cannot write the download");
}

// The SHA-256 of the partial file, kept up with the bytes as they are
// written, so that the download is not read again to be checked.
class PartialHash {
  public:
    // Hashes what the file holds beyond what was hashed (a partial file an
    // earlier run left), starting over when it holds less.
    void catchUp(const PartialFile& partial, std::uint64_t size) {
        if (size < done_) restart();
        if (size == done_) return;
        const opc::detail::UniqueFd fd(
            ::open(partial.path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd) fail(FaultKind::CannotRead, "cannot open " + partial.path.string());
        unsigned char buffer[1 << 16];
        while (done_ < size) {
            const ssize_t got = ::pread(fd.get(), buffer, sizeof buffer, static_cast<off_t>(done_));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) fail(FaultKind::CannotRead, "cannot read " + partial.path.string());
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
             PartialHash& hash, const ClientOptions& options, Connection& connection) {
    std::uint64_t have = partial.size();
    if (have > entry.size) {
        partial.remove();
        have = 0;
    }
    hash.catchUp(partial, have);
    if (have == entry.size && have > 0) return;  // complete before an interruption
    const opc::detail::UniqueFd fd(
        ::open(partial.path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd) fail(FaultKind::CannotWrite, "cannot create " + partial.path.string());
    TransferOptions transfer = transferOptions(options, connection);
    std::uint64_t written = have;
    if (options.progress)
        transfer.progress = [&](std::uint64_t) { options.progress(written, entry.size); };
    fetch(location, entry.file, have, transfer,
          {[&](bool resumed) {
               if (resumed) return;
               if (::ftruncate(fd.get(), 0) != 0)
                   fail(FaultKind::CannotWrite, "cannot truncate " + partial.path.string());
               written = 0;
               hash.restart();
           },
           [&](const char* data, std::size_t size) {
               if (written + size > entry.size)
                   fail(FaultKind::SizeMismatch, entry.file + ": the source sent more than the " +
                                                     std::to_string(entry.size) +
                                                     " bytes the index lists");
               writeAll(fd.get(), data, size);
               hash.update(data, size);
               written += size;
           }});
    if (written < entry.size)
        fail(FaultKind::DownloadFailed, entry.file + ": the transfer ended after " +
                                            std::to_string(written) + " of " +
                                            std::to_string(entry.size) + " bytes");
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
    const TransferOptions transfer = transferOptions(options_, *connection_);
    const std::string text =
        fetchWhole(location_, INDEX_FILE, MAX_INDEX_BYTES, FaultKind::BadIndex, transfer);
    if (!options_.trustAnchors.empty())
        signer_ = checkIndexSignature(location_, text, options_, transfer);
    index_ = parseIndex(text);
    const std::int64_t now = nowSeconds(options_);
    if (now > index_.expires)
        fail(FaultKind::ExpiredIndex, "the index expired at " + formatUtc(index_.expires) + ", " +
                                          days(now - index_.expires) + " ago");
    if (index_.version < options_.highestSeen)
        fail(FaultKind::IndexRollback, "the index is version " + std::to_string(index_.version) +
                                           ", older than version " +
                                           std::to_string(options_.highestSeen) + " seen before");
}

Repository::~Repository() = default;
Repository::Repository(Repository&&) noexcept = default;
Repository& Repository::operator=(Repository&&) noexcept = default;

std::uint64_t Repository::highestSeen() const {
    return std::max(index_.version, options_.highestSeen);
}

fs::path Repository::download(const PackageEntry& entry, const fs::path& folder) const {
    if (!isPlainFileName(entry.file))
        fail(FaultKind::BadIndex, "not a plain package name: " + entry.file);
    const PartialFile partial{folder / (entry.file + ".part")};
    const fs::path target = folder / entry.file;
    std::string lastFailure;
    PartialHash hash;
    const int attempts = std::max(1, options_.attempts);
    for (int i = 0; i < attempts; ++i) {
        try {
            attempt(location_, entry, partial, hash, options_, *connection_);
            lastFailure.clear();
            break;
        } catch (const Error& e) {
            // Only a transfer cut short is worth another try.
            if (e.kind() != FaultKind::DownloadFailed) {
                partial.remove();
                throw;
            }
            lastFailure = e.what();
        }
    }
    if (!lastFailure.empty()) {
        partial.remove();
        fail(FaultKind::DownloadFailed, lastFailure + " (" + std::to_string(attempts) +
                                            (attempts == 1 ? " attempt)" : " attempts)"));
    }
    const std::string sha256 = hash.finishHex();
    if (sha256 != entry.sha256) {
        partial.remove();
        fail(FaultKind::DigestMismatch,
             entry.file + ": its SHA-256 is " + sha256 + ", the index lists " + entry.sha256);
    }
    if (::rename(partial.path.c_str(), target.c_str()) != 0) {
        partial.remove();
        fail(FaultKind::CannotWrite, "cannot rename the download to " + target.string());
    }
    try {
        checkAgainstEntry(target, entry);
    } catch (...) {
        ::unlink(target.c_str());
        throw;
    }
    return target;
}

}  // namespace tsappinstall::repository
