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
// Writers (install, remove, rollback, purge, recover) hold an exclusive
// lock on ROOT/.lock for the whole operation; audits hold it shared; list
// and show read one database snapshot. An AppStore object is used by one
// thread at a time; several objects, threads or processes may work on one
// root at once.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
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
// app; forcing installs it anyway), Refused (a version or signer rule, or a
// rollback to a version not as installed),
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
    // Delete the files changed or added in the versions an upgrade retires
    // (beyond AppStore::Options::keepPrevious) rather than keep them.
    bool purge = false;
    bool ignoreHold = false;  // replace a held app's version all the same
    // Parts unpacked at once, each on a thread; 0: one per core.
    unsigned threads = 1;
    std::function<bool()> cancelled;
    opc::qvservices::FileSystemManager::Progress progress;
    // Who supplied the package, as the caller describes it (the repository
    // installer writes the repository); recorded with the version in the
    // install's own transaction. Empty for a package file installed as it is.
    std::string origin;
    // How the record names the package file ("stdin" for one read from
    // standard input into a temporary copy); empty: its path as given.
    std::string packageName;
    // The package file's SHA-256 (hex) when the caller knows it from the
    // bytes it wrote (a download checked against its index): the record
    // keeps it and the file is not read again to hash it. The caller
    // answers for the file not changing until install() returns.
    std::string packageSha256;
    // The entries (ZIP entry names, "files/a.js") that the package file
    // leaves out: a partial copy of a package fetched in ranges, holding
    // only what differs from the installed version. Each must be a file
    // the current version holds with the digest the package's signed list
    // gives, and is taken from it; otherwise install() throws a StoreError
    // of kind NotReusable and changes nothing. Their local headers and
    // bytes need not be in the file: they are never read. The central
    // directory, every other entry's local header, and the entries the
    // package is checked by (the content types, relationships, manifest,
    // digest list and signature) must be there. Give packageSha256 with
    // them: the partial file's own digest is not the package's.
    std::set<std::string> absentParts;
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

// A file changed or added since its version was installed, kept where it
// is when the version was removed, or retired by an upgrade or a rollback.
// The store keeps it on record until AppStore::purge() (or a purging
// remove) deletes it.
struct KeptFile {
    std::string guid;  // the app's, and the name and version of the version that held it
    std::string name;
    std::string version;
    std::filesystem::path folder;  // that version's folder, absolute
    std::string path;              // relative to `folder`: "files/data/config.json"
};

struct InstallResult {
    enum class Kind { New, Upgrade, Reinstall, Downgrade };
    Kind kind = Kind::New;
    InstalledVersion installed;
    std::string replacedVersion;  // empty for a new app
    // The files the new version holds unchanged, taken from the replaced
    // version's folder instead of unpacked, and their bytes.
    std::uint64_t takenFiles = 0;
    std::uint64_t takenBytes = 0;
    std::vector<std::string> leftOver;  // what could not be cleaned up afterwards
    // What the versions this install retired held that the user changed or
    // added (none with InstallOptions::purge).
    std::vector<KeptFile> kept;
};

// One change to the root's apps, recorded in the transaction that made
// it: a change that never committed has no entry, one that did always has
// one. Entries outlive the app (remove and purge keep them).
struct HistoryEntry {
    std::int64_t id = 0;  // rising: the order the changes committed in
    std::int64_t at = 0;  // seconds since the epoch, UTC
    // "install" (a new app), "upgrade", "reinstall", "downgrade",
    // "rollback", "remove", "purge" (a purging remove, or a purge of kept
    // files), "hold", "unhold".
    std::string action;
    long uid = -1;     // the real user who made it
    std::string user;  // that user's name as the password database gave it; empty when none
    std::string guid;
    std::string name;
    std::string oldVersion;  // the version replaced, rolled back from or removed; empty for none
    std::string newVersion;  // the version made current; empty for remove and purge
    // Of the version the change made current (for remove and purge, the
    // one removed): its package's SHA-256, its signer's key fingerprint
    // (the certificate's when the key is not on record; empty when no
    // signer was verified), and InstallOptions::origin.
    std::string packageSha256;
    std::string signer;
    std::string origin;
    bool forced = false;         // installed despite not fitting the host (--force)
    bool signerChanged = false;  // the new version's signer is not the replaced one's
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
    // The current version; for an app that is no longer installed but
    // whose kept files are, the version that kept the last of them.
    InstalledVersion version;
    bool installed = true;
    std::vector<AuditFinding> findings;  // sorted by path; empty when clean
    // The app's kept files still there. They are the user's, kept at the
    // user's wish: reported, but no difference (clean() ignores them).
    std::vector<KeptFile> kept;
    bool clean() const { return findings.empty(); }
};

struct RemoveResult {
    // With `removedApp` false the app had been removed before and only the
    // files kept from it were purged: its version as the kept files name it.
    InstalledVersion removed;
    bool removedApp = true;
    // Files changed or added since the install, in the current version's
    // folder and in previous versions' folders, kept where they are.
    std::vector<KeptFile> kept;
    // Files kept earlier (when a version was retired or removed) that a
    // purging remove deleted.
    std::vector<KeptFile> purged;
};

struct RollbackOptions {
    // Roll back to the previous version even when its files are not as
    // installed (missing, changed, added), and keep the version left,
    // as a previous version, rather than delete it.
    bool force = false;
};

struct RollbackResult {
    InstalledVersion current;  // the version now current
    // What the user changed or added in the version left, kept as remove
    // keeps it (none with `force`, which keeps that version whole).
    std::vector<KeptFile> kept;
};

// What an install, upgrade, remove or rollback would do to one app, found
// by the checks the operation itself makes, with the root left as it is:
// the real run then does the same or refuses for one of `undecided`.
struct Plan {
    enum class Action { New, Upgrade, Reinstall, Downgrade, Remove, Rollback };
    Action action = Action::New;
    std::string guid;
    std::string name;
    std::string fromVersion;  // the current version; empty for a new app
    std::string toVersion;    // the version made current; empty for a removal
    std::string fromSigner;   // the current version's verified signer; empty: none
    std::string toSigner;     // the new version's, when it is known before unpacking
    // Whether the key that signs the app changes; nullopt when only
    // verifying the package's signature, as it is unpacked, can tell.
    std::optional<bool> signerChanges;
    std::uint64_t download = 0;  // bytes to fetch first (a repository's package)
    // Bytes of the recorded files that the operation adds (positive) or
    // frees (negative): the new version as its parts are sized in the
    // package, versions retired or removed by their recorded sizes.
    std::int64_t diskChange = 0;
    // What the versions removed or retired hold that the user changed or
    // added, as audit() finds it: kept where it is.
    std::vector<KeptFile> kept;
    // The checks that cannot be made before the package is read whole.
    std::vector<std::string> undecided;
};

// "new", "upgrade", "reinstall", "downgrade", "remove", "rollback".
TSAPP_API const char* token(Plan::Action action);

// What is known of a package before it is fetched: what a repository's
// index says of it.
struct PackageFacts {
    std::string guid;
    std::string name;
    std::string version;
    std::vector<std::string> incompatibilities;  // with the host it would go on
    std::string signerSubject;                   // empty: listed as unsigned
    std::string signerFingerprint;
    std::string signerKeyFingerprint;
    std::uint64_t size = 0;  // of the package file
    // Bytes of the installed version's files the new one would take from
    // it (shared on disk), when the caller knows them: not freed when the
    // installed version is retired.
    std::uint64_t sharedBytes = 0;
};

class TSAPP_API AppStore {
  public:
    struct Options {
        // Previous versions kept for rollback after an upgrade.
        unsigned keepPrevious = 1;
        // Reads a root that this process may not write: nothing is made,
        // migrated, settled or locked exclusively, and every change is
        // refused (StoreFailed). What a crashed writer left unsettled is
        // read past as it is: an install that never committed is not
        // there, a removal cut short shows its app with the files it
        // already lost. list, show, files, audit and auditAll work.
        bool readOnly = false;
        // How long an operation waits for the root's lock while another
        // process holds it: none, as long as it takes; zero, not at all.
        // Giving up throws StoreError (StoreFailed) naming the holder.
        std::optional<std::chrono::milliseconds> lockWait{};
        // Called once per wait as it starts, with the holder's process id
        // (0 when it cannot be told), so that a caller can say why nothing
        // happens.
        std::function<void(long pid)> lockWaiting{};
        // A root that this object made (its folder, or its database in a
        // folder that was there) is taken away again as the object goes,
        // when nothing was recorded in it and no other AppStore has it
        // open: a first command that fails leaves no root behind.
        bool discardUnused = false;
    };

    // Opens the root, creating it and its database when missing, running
    // the schema's migrations (unless Options::readOnly). Throws
    // StoreError: BadDatabase for a damaged database, one from a newer
    // schema or a store.db that is not a regular file (never reset),
    // StoreFailed when the root cannot be made, read or written.
    explicit AppStore(const std::filesystem::path& root);
    AppStore(const std::filesystem::path& root, Options options);
    // On other file operations: the library's own fault-injection tests
    // (the seam's type is not public).
    AppStore(const std::filesystem::path& root, Options options, const detail::FileSeam& seam);
    ~AppStore();
    AppStore(const AppStore&) = delete;
    AppStore& operator=(const AppStore&) = delete;

    const std::filesystem::path& root() const;
    // Whether `root` holds an apps database, or anything in its place (a
    // link, which opening refuses). Opening a root creates it; a reader can
    // ask this first and leave a root that holds nothing (or a mistyped
    // one) as it is.
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

    // What install(), remove() and rollback() with the same arguments would
    // do, refusing as they would refuse; nothing is written (a read-only
    // store plans as well). The package is read and checked whole, but not
    // unpacked: its signer is not known yet.
    Plan planInstall(const std::filesystem::path& package, const HostProfile& host,
                     const InstallOptions& options = {}) const;
    // The same for a package known by what is said of it (not read at all).
    Plan planInstall(const PackageFacts& package, const InstallOptions& options = {}) const;
    Plan planRemove(const std::string& app, bool purge = false) const;
    Plan planRollback(const std::string& app, const RollbackOptions& options = {}) const;

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

    // Deletes the recorded files that are unchanged, of every version of
    // the app, and the folders left empty; changed and added files are
    // kept (listed, and on record until purged) unless `purge`, which
    // deletes them and whatever was kept of the app before. `app` may also
    // be an app that is no longer installed but has kept files (by GUID or
    // by the name it had): `purge` then deletes those, and without it that
    // is NotInstalled.
    RemoveResult remove(const std::string& app, bool purge = false);
    // Makes the newest previous version current again and deletes the one
    // that was current, keeping what the user changed or added in it.
    // The version it returns to is checked first, as audit() checks the
    // current one: when it is not as installed (a file missing, changed
    // or added, a mode changed) it is Refused, one line per difference,
    // and nothing is touched; `force` rolls back to it as it is. A missing
    // folder, or one replaced by a link, is refused even then.
    RollbackResult rollback(const std::string& app, const RollbackOptions& options);
    // rollback(app, {}), returning the version now current.
    InstalledVersion rollback(const std::string& app);

    // Files kept from removed and retired versions, by folder and path.
    std::vector<KeptFile> kept() const;
    // Deletes the files kept of `app` (a GUID, the name of an installed
    // app or the name an app had when its files were kept) and the folders
    // they leave empty; a kept file already gone is no error. Returns what
    // was on record.
    std::vector<KeptFile> purge(const std::string& app);

    // `app` may also be one that is no longer installed but has kept
    // files: its report is not `installed` and lists them.
    AuditReport audit(const std::string& app) const;
    // Every installed app, and every app that is not but has kept files
    // still there, by name then GUID.
    std::vector<AuditReport> auditAll() const;

    // The changes recorded, oldest first: of every app, or of `app` (a
    // GUID in any case, the name of an installed app, or the name a
    // removed app had last). NotInstalled when nothing names it.
    std::vector<HistoryEntry> history(const std::string& app = {}) const;

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
