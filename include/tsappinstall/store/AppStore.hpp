#pragma once

// The app store: an apps root folder whose installed apps are recorded in
// an SQLite database inside it, so that the root moves and backs up as one
// folder. Each installed version lives in a folder of its own,
// ROOT/apps/GUID/vVERSION-TOKEN; ROOT/apps/GUID/current is a symbolic link
// to the current one, switched by one rename. Every change is one
// transaction: the files are staged and placed first and the database
// commits last; an operation interrupted between the two (a crash, a
// failing call) is settled from the database by the next writer to open
// the root, or by recover(), so files and records always agree.
//
// Writers (install, remove, rollback, recover) hold an exclusive
// lock on ROOT/.lock for the whole operation; audits hold it shared; list
// and show read one database snapshot. An AppStore object is used by one
// thread at a time; several objects, threads or processes may work on one
// root at once.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/Fault.hpp"
#include "tsappinstall/compat/Compatibility.hpp"
#include "tsappinstall/export.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"

namespace tsappinstall::store {

// The store checks apps against hosts by the compatibility layer's rules.
using compat::compareVersions;
using compat::HostProfile;
using compat::incompatibilities;
using compat::readHostProfile;
using compat::toJson;

namespace detail {
struct RootStateAccess;
struct FileSeam;
}  // namespace detail

// Why a store operation did not happen. Its kind says why: StoreFailed (a
// file or database operation), NotCompatible (the host does not fit the
// app; forcing installs it anyway), Refused (a version or signer rule),
// NotInstalled, AmbiguousName, NoPrevious (nothing to roll back to),
// BadDatabase (damaged, or from a newer schema), PackageChanged, or the
// kind of the package's first fault. The error's text is its first line;
// `lines()` holds every line (one per incompatibility or fault).
class TSAPP_API StoreError : public tsappinstall::Error {
  public:
    StoreError(FaultKind kind, std::vector<std::string> lines);
    const std::vector<std::string>& lines() const noexcept { return *lines_; }

  private:
    std::shared_ptr<const std::vector<std::string>> lines_;
};

struct InstallOptions {
    std::vector<std::string> trustAnchors;  // PEM files; any one makes a signature required
    bool force = false;                     // install an incompatible app, recording why
    bool reinstall = false;                 // replace the same version
    bool allowDowngrade = false;
    // Upgrade even when another key signed the installed version and the
    // package carries no proof that it handed over (see AppStore::install).
    bool allowSignerChange = false;
    bool sync = false;  // flush every file to disk before the records commit
    bool ignoreHold = false;  // replace a held app's version all the same
    // Parts unpacked at once, each on a thread; 0: one per core.
    unsigned threads = 1;
    std::function<bool()> cancelled;
    opc::qvservices::FileSystemManager::Progress progress;
    // Who supplied the package, as the caller describes it (the repository
    // installer writes the repository); recorded with the version in the
    // install's own transaction. Empty for a package file installed as it is.
    std::string origin;
    // The package file's SHA-256 (hex) when the caller knows it from the
    // bytes it wrote (a download checked against its index): the record
    // keeps it and the file is not read again to hash it. The caller
    // answers for the file not changing until install() returns.
    std::string packageSha256;
};

struct InstalledFile {
    std::string path;  // relative to the version's folder: "files/lib/a.js"
    std::uint64_t size = 0;
    unsigned mode = 0;   // permission bits
    std::string sha256;  // 64 lower-case hex digits
};

struct InstalledVersion {
    std::string guid;  // lower case
    std::string name;
    std::string version;
    std::filesystem::path folder;  // absolute
    std::string package;           // the package file as installed from
    std::string packageSha256;
    std::string signerSubject;      // empty unless a signature was verified against --trust
    std::string signerFingerprint;  // SHA-256 of the signer's certificate, hex
    // SHA-256 of the signer's public key (its SubjectPublicKeyInfo, DER),
    // hex: what a renewed certificate keeps. Empty when no signer was
    // verified, or for a version recorded before keys were whose
    // signature could not be read again.
    std::string signerKeyFingerprint;
    // The keys whose rotation proofs handed over to the signer's key when
    // this version was installed, oldest first (the key of the version it
    // replaced first); empty when none was needed.
    std::vector<std::string> rotatedFrom;
    std::int64_t installedAt = 0;  // seconds since the epoch, UTC
    std::uint64_t size = 0;        // bytes of its recorded files
    std::string hostProfile;       // the profile checked against, as toJson() writes it
    bool forced = false;
    std::vector<std::string> forcedReasons;  // the incompatibilities --force overrode
    std::string origin;                      // InstallOptions::origin as installed
};

// The installed version a file belongs to, and its record.
struct FileOwner {
    InstalledVersion version;
    InstalledFile file;
};

struct InstalledApp {
    InstalledVersion current;
    std::vector<InstalledVersion> previous;  // kept for rollback, newest first
    std::filesystem::path link;              // ROOT/apps/GUID/current
    bool held = false;                       // see AppStore::hold()
};

struct InstallResult {
    enum class Kind { New, Upgrade, Reinstall, Downgrade };
    Kind kind = Kind::New;
    InstalledVersion installed;
    std::string replacedVersion;        // empty for a new app
    std::vector<std::string> leftOver;  // what could not be cleaned up afterwards
};

struct AuditFinding {
    // Link: the app's `current` link (path "current") is missing, no link,
    // or names another folder than the recorded current version's.
    // Revoked: a recorded repository revoked the key that signed the
    // version (path: the signature part).
    enum class Kind { Modified, Missing, Mode, Extra, Link, Revoked };
    Kind kind = Kind::Modified;
    std::string path;    // relative to the version's folder; "current" for Link
    std::string detail;  // "size 10, recorded 12", "0600, recorded 0644", ...
};

// "modified", "missing", "mode", "extra", "link", "revoked".
TSAPP_API const char* token(AuditFinding::Kind kind);

struct AuditReport {
    InstalledVersion version;
    std::vector<AuditFinding> findings;  // sorted by path; empty when clean
    bool clean() const { return findings.empty(); }
};

struct RemoveResult {
    InstalledVersion removed;
    // Files changed or added since the install, kept where they are
    // (relative to the removed version's folder, which keeps them too).
    std::vector<std::string> kept;
};

class TSAPP_API AppStore {
  public:
    struct Options {
        // Previous versions kept for rollback after an upgrade.
        unsigned keepPrevious = 1;
    };

    // Opens the root, creating it and its database when missing, running
    // the schema's migrations. Throws StoreError: BadDatabase for a
    // damaged database or one from a newer schema (never reset), Failed
    // when the root cannot be made or written.
    explicit AppStore(const std::filesystem::path& root);
    AppStore(const std::filesystem::path& root, Options options);
    // On other file operations: the library's own fault-injection tests
    // (the seam's type is not public).
    AppStore(const std::filesystem::path& root, Options options, const detail::FileSeam& seam);
    ~AppStore();
    AppStore(const AppStore&) = delete;
    AppStore& operator=(const AppStore&) = delete;

    const std::filesystem::path& root() const;
    // Whether `root` holds an apps database. Opening a root creates it;
    // a reader can ask this first and leave a root that holds nothing (or
    // a mistyped one) as it is.
    static bool exists(const std::filesystem::path& root);

    // Installs, upgrades or replaces the app in `package` as the options
    // allow. The package is checked whole (container, manifest, every
    // entry and, when it has them, its digests; with trust anchors its
    // signature, before the first byte is written), then unpacked beside
    // any current version and made current in one step. Once a version
    // was installed with a verified signer, a package replacing it must be
    // signed by the same key (under the same certificate or a renewed one)
    // or carry key rotation proofs (tsappinstall/integrity/KeyRotation.hpp)
    // from that key to its own, checked against the same trust anchors;
    // otherwise it is Refused unless allowSignerChange.
    InstallResult install(const std::filesystem::path& package, const HostProfile& host,
                          const InstallOptions& options = {});

    // Every installed app, by name then GUID.
    std::vector<InstalledApp> list() const;
    // `app` is a GUID (any case) or the name of exactly one installed app.
    InstalledApp show(const std::string& app) const;
    // Files of the current version as recorded, by path.
    std::vector<InstalledFile> files(const std::string& app) const;
    // The installed version (current or kept for rollback) that records
    // the file at `path`: one below ROOT/apps/GUID/current or a version's
    // folder, as written (relative to the working folder) or through the
    // root's real path. Links below the root are not followed: a file is
    // owned by the path the store wrote it at. nullopt when none records it.
    std::optional<FileOwner> owner(const std::filesystem::path& path) const;

    // Holds the app at its version, or lets it go: install() refuses to
    // replace a held app's version (Refused) unless ignoreHold, and the
    // installer's outdated() marks it so that an upgrade of every app
    // passes it by. Removing and rolling back are not held. Returns
    // whether it was held before.
    bool hold(const std::string& app, bool held = true);

    // Deletes the recorded files that are unchanged and the folders left
    // empty; changed and added files are kept (and listed) unless `purge`.
    RemoveResult remove(const std::string& app, bool purge = false);
    // Makes the newest previous version current again and deletes the one
    // that was current. Returns the version now current.
    InstalledVersion rollback(const std::string& app);

    AuditReport audit(const std::string& app) const;
    std::vector<AuditReport> auditAll() const;

    // Settles what an interrupted operation left; one line per repair.
    std::vector<std::string> recover();

    // The root's folder for packages on their way in (ROOT/.downloads):
    // on the root's file system, so that a package is never read across a
    // mount, and private to this user. Made when missing; throws StoreError
    // (StoreFailed) when it is anything but a folder of this user's.
    std::filesystem::path downloadFolder() const;

  private:
    friend struct detail::RootStateAccess;
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tsappinstall::store
