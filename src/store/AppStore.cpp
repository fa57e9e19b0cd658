#include "tsappinstall/store/AppStore.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <utility>

#include "FileSeam.hpp"
#include "PackageHash.hpp"
#include "Records.hpp"
#include "RootState.hpp"
#include "Schema.hpp"
#include "SeamVfs.hpp"
#include "StoreFiles.hpp"
#include "Unpack.hpp"
#include "inspect/OpenedCheck.hpp"
#include "platform/base/Ascii.hpp"
#include "platform/extract/ExtractionPaths.hpp"
#include "tsappinstall/Guid.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/KeyRotation.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsappinstall::store {

StoreError::StoreError(FaultKind kind, std::vector<std::string> lines)
    : Error(kind, lines.empty() ? std::string() : lines.front()),
      lines_(std::make_shared<const std::vector<std::string>>(std::move(lines))) {}

const char* token(AuditFinding::Kind kind) {
    switch (kind) {
        case AuditFinding::Kind::Modified:
            return "modified";
        case AuditFinding::Kind::Missing:
            return "missing";
        case AuditFinding::Kind::Mode:
            return "mode";
        case AuditFinding::Kind::Extra:
            return "extra";
        case AuditFinding::Kind::Link:
            return "link";
        case AuditFinding::Kind::Revoked:
            return "revoked";
    }
    return "modified";
}

const char* token(Plan::Action action) {
    switch (action) {
        case Plan::Action::New:
            return "new";
        case Plan::Action::Upgrade:
            return "upgrade";
        case Plan::Action::Reinstall:
            return "reinstall";
        case Plan::Action::Downgrade:
            return "downgrade";
        case Plan::Action::Remove:
            return "remove";
        case Plan::Action::Rollback:
            return "rollback";
    }
    return "new";
}

namespace {

using namespace detail;

constexpr int kBusyMillis = 60000;

[[noreturn]] void refuse(FaultKind kind, std::string line) {
    throw StoreError(kind, {std::move(line)});
}

// A version as a folder name: "v" and the version's safe characters.
std::string folderNameFor(const std::string& version) {
    std::string name = "v";
    for (char c : version.substr(0, 40)) {
        const bool safe = opc::detail::is_ascii_alnum(static_cast<unsigned char>(c)) || c == '.' ||
                          c == '-' || c == '+' || c == '_';
        name += safe ? c : '_';
    }
    return name + "-" + randomToken();
}

// The manifest as unpacked must be the one checked: the package file may
// have been changed in place between the check and the unpacking. The
// unpacked file's digest (checked against the digest list, or computed, as
// its bytes were written) must be that of the bytes the check read.
void checkUnpackedManifest(opc::model::Package& package, const std::vector<InstalledFile>& files,
                           const std::string& checkedSha256) {
    const auto found = package.getRelationshipsByType(
        fl::i18n::to_ustring(Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE));
    bool same = false;
    if (found.size() == 1) {
        const opc::model::PartName name(found.front().getTargetURI());
        const std::string path = opc::detail::filePathFor(name.ascii());
        const auto file = std::find_if(files.begin(), files.end(),
                                       [&](const InstalledFile& f) { return f.path == path; });
        same = file != files.end() && file->sha256 == checkedSha256;
    }
    if (!same)
        refuse(FaultKind::PackageChanged, "the package changed while it was being installed");
}

std::string leafOf(const std::string& relative) {
    return relative.substr(relative.find('/') + 1);
}

}  // namespace

struct AppStore::Impl {
    Impl(const std::filesystem::path& rootPath, Options opts, opc::FileSystemOpsSelector selected)
        : root(rootPath),
          options(std::move(opts)),
          selector(selected),
          ops(opc::detail::fileOpsOf(selector)),
          lockWait{options.lockWait, options.lockWaiting},
          vfs(selected.ops() ? std::make_unique<SeamVfs>(ops) : nullptr) {
        if (options.readOnly) {
            openReadOnly();
            return;
        }
        openRoot();
        makeDatabase();
        // In WAL mode a commit is then atomic but flushed only at
        // checkpoints; install --sync flushes each (FULL).
        db->exec("PRAGMA synchronous = NORMAL");
        records = std::make_unique<Records>(*db);
        // What a crash left is settled at once unless another process is
        // at work (it settles it itself, or the next writer does).
        if (records->pending().empty()) return;
        RootLock lock(ops, rootFd.get(), RootLock::Mode::TryExclusive, root.string());
        if (lock.held()) settledOnOpen = settle();
    }

    ~Impl() {
        if (!options.discardUnused || !madeDatabase || !present) return;
        try {
            discardIfUnused();
        } catch (...) {  // then the root stays, as any root does
        }
    }

    // The root's lock as this object waits for it; a reader takes it shared only.
    RootLock lockRoot(RootLock::Mode mode) const {
        if (options.readOnly && mode != RootLock::Mode::Shared)
            refuse(FaultKind::StoreFailed, root.string() + " is open read-only: it is not changed");
        return RootLock(ops, rootFd.get(), mode, root.string(), lockWait);
    }

    // The root's folder, made as needed (the folders made remembered,
    // deepest first, for discardUnused) and opened. Every AppStore holds
    // a shared flock on the folder while it lives, and a root is taken
    // away only by one that holds it alone; one that finds its folder
    // taken away meanwhile starts again.
    void openRoot() {
        for (int attempt = 0;; ++attempt) {
            std::vector<std::filesystem::path> missing;
            for (auto at = root; !at.empty(); at = at.parent_path()) {
                struct stat info {};
                if (::lstat(at.c_str(), &info) == 0 || errno != ENOENT) break;
                missing.push_back(at);
                if (at == at.parent_path()) break;
            }
            std::error_code error;
            std::filesystem::create_directories(root, error);
            if (error) failed(root.string() + " cannot be made", error.value());
            if (attempt == 0) madeFolders = missing;
            rootFd =
                OpsFd(ops, ops.openat(AT_FDCWD, root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (!rootFd) failed(root.string() + " cannot be opened", errno);
            present = false;  // a folder opened again is held anew
            holdOpen();
            struct stat info {};
            if (present && ::fstat(rootFd.get(), &info) == 0 && info.st_nlink == 0 && attempt < 3)
                continue;
            madeDatabase = !AppStore::exists(root);
            return;
        }
    }

    // The flock is the root's, not the seam's: it decides nothing about
    // the files, and without it the root is merely never taken away.
    void holdOpen() {
        while (::flock(rootFd.get(), LOCK_SH) != 0)
            if (errno != EINTR) return;
        present = true;
    }

    // SQLite would follow a link, read the database it names and create
    // a missing target: the records are the file in the root or nothing.
    void refuseAnythingButAFile() const {
        struct stat info {};
        if (::fstatat(rootFd.get(), "store.db", &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            !S_ISREG(info.st_mode))
            refuse(FaultKind::BadDatabase,
                   "the database " + shown("store.db") +
                       (S_ISLNK(info.st_mode) ? " is a symbolic link" : " is not a regular file") +
                       ", not a database; it was left as it is");
    }

    bool hasWal() const {
        struct stat info {};
        return ::fstatat(rootFd.get(), "store.db-wal", &info, AT_SYMLINK_NOFOLLOW) == 0;
    }

    // SQLite reads a database in WAL mode through its -wal and -shm files,
    // making them when they are missing, which it cannot do in a folder
    // this process may not write ("attempt to write a readonly
    // database"). Without a -wal, every record is in the file itself: it
    // is read as immutable, with the root's lock held shared for as long
    // as this object lives, so that no writer commits meanwhile (a writer
    // changes the file only under the lock, or as it checkpoints a -wal,
    // which would then be there).
    const char* vfsName() const { return vfs ? vfs->name() : nullptr; }

    void openReadOnly() {
        rootFd = OpsFd(ops, ops.openat(AT_FDCWD, root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!rootFd) failed(root.string() + " cannot be opened", errno);
        holdOpen();
        refuseAnythingButAFile();
        const std::string file = shown("store.db");
        // Even where it could, a reader makes no -wal and -shm: a read-only
        // connection leaves them behind, and a dry run must leave the root
        // byte for byte as it found it.
        if (!hasWal()) {
            readerLock.emplace(ops, rootFd.get(), RootLock::Mode::Shared, root.string(), lockWait);
            if (!hasWal()) {
                db = std::make_unique<Database>(file, kBusyMillis, Database::Open::Immutable,
                                                vfsName());
                checkReadable(*db);
                records = std::make_unique<Records>(*db);
                return;
            }
            readerLock.reset();
        }
        db = std::make_unique<Database>(file, kBusyMillis, Database::Open::ReadOnly, vfsName());
        try {
            checkReadable(*db);
        } catch (const StoreError&) {
            const int code = sqlite3_errcode(db->get()) & 0xff;
            if ((code != SQLITE_READONLY && code != SQLITE_CANTOPEN) || hasWal()) throw;
            db.reset();
            readerLock.emplace(ops, rootFd.get(), RootLock::Mode::Shared, root.string(), lockWait);
            db = std::make_unique<Database>(
                file, kBusyMillis, hasWal() ? Database::Open::ReadOnly : Database::Open::Immutable,
                vfsName());
            checkReadable(*db);
        }
        records = std::make_unique<Records>(*db);
    }

    // A root this object made and nothing was recorded in, that holds
    // nothing but what a store makes (empty folders), goes again: its
    // database is closed first, so that SQLite takes its -wal and -shm
    // away, then the rest, the folders this object made last.
    void discardIfUnused() {
        if (::flock(rootFd.get(), LOCK_EX | LOCK_NB) != 0) return;  // another has it open
        if (!records || !recordsNothing()) return;
        static const std::set<std::string> ours{".lock",        "apps",         "store.db",
                                                "store.db-wal", "store.db-shm", "store.db-journal",
                                                "trust",        ".downloads"};
        const auto entries = ops.listFolder(rootFd.get());
        if (!entries) return;
        for (const auto& [name, isFolder] : *entries) {
            if (!ours.count(name)) return;
            if (!isFolder) continue;
            const OpsFd folder(ops, ops.openat(rootFd.get(), name.c_str(),
                                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            const auto inside = folder ? ops.listFolder(folder.get()) : std::nullopt;
            if (!inside || !inside->empty()) return;
        }
        records.reset();
        db.reset();
        for (const char* name :
             {"store.db", "store.db-wal", "store.db-shm", "store.db-journal", ".lock"})
            ::unlinkat(rootFd.get(), name, 0);
        for (const char* name : {"apps", "trust", ".downloads"})
            ::unlinkat(rootFd.get(), name, AT_REMOVEDIR);
        for (const auto& folder : madeFolders) ::rmdir(folder.c_str());
    }

    bool recordsNothing() const {
        std::vector<std::string> tables;
        Statement list(*db, "SELECT name FROM sqlite_master WHERE type = 'table'");
        while (list.step()) tables.push_back(list.text(0));
        for (std::string table : tables) {
            for (auto at = table.find('"'); at != std::string::npos; at = table.find('"', at + 2))
                table.insert(at, 1, '"');
            Statement any(*db, ("SELECT 1 FROM \"" + table + "\" LIMIT 1").c_str());
            if (any.step()) return false;
        }
        return true;
    }

    // A root's database is made, or brought up to this schema, by one
    // writer at a time: two that found no root would otherwise both make
    // it, and one would meet the other's database half made ("database is
    // locked"). A root that is ready takes no lock.
    void makeDatabase() {
        std::optional<RootLock> making;
        if (!AppStore::exists(root))
            making.emplace(ops, rootFd.get(), RootLock::Mode::Exclusive, root.string(), lockWait);
        refuseAnythingButAFile();
        makeFolder(ops, rootFd.get(), "apps", shown("apps"));
        db = std::make_unique<Database>((root / "store.db").string(), kBusyMillis,
                                        Database::Open::ReadWrite, vfsName());
        if (!making && !isCurrent(*db))
            making.emplace(ops, rootFd.get(), RootLock::Mode::Exclusive, root.string(), lockWait);
        migrate(*db, [this](const std::string& folder) { return storedSignature(folder); });
    }

    std::string shown(const std::string& below) const { return (root / below).string(); }
    std::filesystem::path folderOf(const std::string& relative) const {
        return root / "apps" / relative;
    }
    OpsFd appsFolder() const { return openFolder(ops, rootFd.get(), "apps", shown("apps")); }

    // A file of a version's folder as unpacked; none when it is not there.
    std::optional<std::string> versionFile(const std::string& relative, const char* partName,
                                           std::uint64_t most) const {
        const std::string path = relative + partName;  // part names begin with "/"
        return readSmallFile(ops, appsFolder().get(), path, most, shown("apps/" + path));
    }

    // The signature a version was verified by, as it was unpacked; empty
    // when it cannot be read.
    std::string storedSignature(const std::string& relative) const {
        try {
            return versionFile(relative, integrity::SIGNATURE_PART_NAME,
                               integrity::MAX_SIGNATURE_BYTES)
                .value_or("");
        } catch (const StoreError&) {
            return {};
        }
    }

    InstalledVersion publicVersion(const VersionRow& row) const {
        InstalledVersion version = row.version;
        version.folder = folderOf(row.folder);
        return version;
    }

    InstalledApp appOf(const std::string& guid) const {
        const auto rows = records->versionsOf(guid);
        const auto current = records->currentId(guid);
        InstalledApp app;
        for (const VersionRow& row : rows) {
            if (current && row.id == *current)
                app.current = publicVersion(row);
            else
                app.previous.push_back(publicVersion(row));
        }
        app.link = root / "apps" / guid / "current";
        app.held = isHeld(guid);
        return app;
    }

    // A change to `version`'s app, by this process's user, now; the
    // caller fills in what else it knows and writes it in the change's
    // own transaction.
    static HistoryEntry change(const char* action, const InstalledVersion& version) {
        HistoryEntry entry;
        entry.at = static_cast<std::int64_t>(std::time(nullptr));
        entry.action = action;
        const uid_t uid = ::getuid();
        entry.uid = static_cast<long>(uid);
        // getpwuid_r: another thread's lookup must not overwrite the name.
        std::vector<char> buffer(16384);
        passwd pw{};
        passwd* found = nullptr;
        if (::getpwuid_r(uid, &pw, buffer.data(), buffer.size(), &found) == 0 && found)
            entry.user = found->pw_name;
        entry.guid = version.guid;
        entry.name = version.name;
        entry.packageSha256 = version.packageSha256;
        entry.signer = signerOf(version);
        entry.origin = version.origin;
        return entry;
    }

    static std::string signerOf(const InstalledVersion& version) {
        return version.signerKeyFingerprint.empty() ? version.signerFingerprint
                                                    : version.signerKeyFingerprint;
    }

    // A version no signer was verified for has none to change.
    static bool replacesSigner(const InstalledVersion& was, const std::string& signer) {
        return !signerOf(was).empty() && signerOf(was) != signer;
    }

    bool isHeld(const std::string& guid) const {
        return records->state(HELD_SCOPE, guid).has_value();
    }

    // GUID (any case) or the name of exactly one installed app.
    std::string resolve(const std::string& app) const {
        if (isGuid(app)) {
            const std::string guid = opc::detail::ascii_lower(app);
            if (!records->currentId(guid))
                refuse(FaultKind::NotInstalled, "no app " + guid + " is installed");
            return guid;
        }
        const auto guids = records->guidsNamed(app);
        if (guids.empty()) {
            std::vector<std::string> names;
            for (const auto& [row, current] : records->allVersions())
                if (current) names.push_back(row.version.name);
            const auto near = fl::i18n::nearest(app, names);
            refuse(FaultKind::NotInstalled,
                   "no installed app is called " + app +
                       (near.empty() ? "" : "; did you mean \"" + near.front() + "\"?"));
        }
        if (guids.size() > 1) {
            std::string list;
            for (const auto& guid : guids) list += (list.empty() ? "" : ", ") + guid;
            refuse(FaultKind::AmbiguousName, app + " names " + std::to_string(guids.size()) +
                                                 " installed apps (" + list + "); give a GUID");
        }
        return guids.front();
    }

    // --- settling what an interrupted operation left ------------------------

    // Replays what the pending records name, as a journal is replayed:
    // every folder and link is put right first, and only then are the
    // records (the pending rows, and those of finished removals) dropped,
    // in one transaction. A crash anywhere in between leaves the rows, and
    // the next replay does the same again: each repair finds what it has
    // already done and goes on. The links of the apps concerned (all of
    // them with `everyLink`) end up naming the versions the records name.
    // What the replay kept goes on record with the rows' end, and into
    // `keptNow` when given.
    std::vector<std::string> settle(bool everyLink = false,
                                    std::vector<KeptRow>* keptNow = nullptr) {
        const std::vector<PendingRow> rows = records->pending();
        std::vector<std::string> done;
        std::vector<KeptRow> kept;
        std::set<std::string> relinked, removed;
        for (const PendingRow& row : rows) {
            replay(row, done, kept);
            (row.action == PendingAction::Remove ? removed : relinked).insert(row.guid);
        }
        if (everyLink)
            for (const auto& entry : records->currentFolders()) relinked.insert(entry.first);
        for (const std::string& guid : removed) relinked.erase(guid);
        repointLinks(relinked, done);
        forget(rows, kept);
        if (keptNow) keptNow->insert(keptNow->end(), kept.begin(), kept.end());
        return done;
    }

    void replay(const PendingRow& row, std::vector<std::string>& done, std::vector<KeptRow>& kept) {
        switch (row.action) {
            case PendingAction::Install:
                discardFolder(row.folder);
                done.push_back("removed the unfinished install " + shown("apps/" + row.folder));
                return;
            case PendingAction::Purge: {
                const auto before = kept.size();
                retireFolder(row, kept);
                done.push_back("removed the old version " + shown("apps/" + row.folder) +
                               (kept.size() == before
                                    ? std::string()
                                    : ", keeping " + std::to_string(kept.size() - before) +
                                          " changed or added files"));
                return;
            }
            case PendingAction::Remove:
                removeAppFiles(row, kept);
                done.push_back("finished removing " + row.guid);
                return;
            case PendingAction::Rollback:
                return;  // its link is pointed back with the others
        }
    }

    // Each app's stray links dropped and its `current` pointed at the
    // version on record.
    void repointLinks(const std::set<std::string>& guids, std::vector<std::string>& done) {
        for (const std::string& guid : guids) dropStrayLinks(guid, done);
        const OpsFd apps = appsFolder();
        for (const auto& [guid, folder] : records->currentFolders()) {
            if (!guids.count(guid)) continue;
            const OpsFd app = makeFolder(ops, apps.get(), guid, shown("apps/" + guid));
            const std::string link = shown("apps/" + guid + "/current");
            const std::string leaf = leafOf(folder);
            if (linkTarget(ops, app.get(), "current", link) == leaf) continue;
            switchLink(ops, app.get(), "current", leaf, link);
            done.push_back("pointed " + link + " at " + leaf);
        }
    }

    // The replayed rows, the records of the apps they removed and of the
    // versions whose folders went, and what they kept, in one step.
    void forget(const std::vector<PendingRow>& rows, const std::vector<KeptRow>& kept) {
        if (rows.empty()) return;
        Transaction transaction(*db);
        for (const PendingRow& row : rows) {
            if (row.action == PendingAction::Remove) recordRemoval(row);
            if (row.action == PendingAction::Remove) records->dropApp(row.guid);
            if (row.action == PendingAction::Purge) records->dropRetired(row.folder);
            records->dropPending(row.id);
        }
        for (const KeptRow& row : kept) records->addKept(row);
        transaction.commit();
    }

    // Written as the removal's records go, whoever finishes it, so that
    // the removal is on record exactly when it is done.
    void recordRemoval(const PendingRow& row) {
        const auto id = records->currentId(row.guid);
        const auto current = id ? records->version(*id) : std::nullopt;
        InstalledVersion removed = current ? current->version : InstalledVersion{};
        removed.guid = row.guid;
        HistoryEntry entry = change(row.purge ? "purge" : "remove", removed);
        entry.oldVersion = removed.version;
        records->addHistory(entry);
    }

    // A retired version's folder goes: whole when purging, or when its
    // records are gone (marked so by an older program); otherwise as
    // remove takes a version, keeping what the user changed or added.
    void retireFolder(const PendingRow& row, std::vector<KeptRow>& kept) {
        const auto version = records->versionAt(row.folder);
        if (row.purge || !version) return discardFolder(row.folder);
        opc::extraction::recover(folderOf(row.folder), selector);
        const OpsFd apps = appsFolder();
        OpsFd app = appFolderIfThere(apps, row.guid);
        if (!app) return;
        keepChanged(app.get(), *version, kept);
        app.reset();
        if (!records->currentId(row.guid))
            removeEmptyFolder(ops, apps.get(), row.guid, shown("apps"));
    }

    // The app's folder, never through a link; none when it is not there.
    OpsFd appFolderIfThere(const OpsFd& apps, const std::string& guid) const {
        OpsFd app(ops, ops.openat(apps.get(), guid.c_str(),
                                  O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!app && errno != ENOENT) failed(shown("apps/" + guid) + " cannot be opened", errno);
        return app;
    }

    // A crash between making the new link and renaming it over `current`
    // leaves "current.new" behind, and an app whose first install never
    // committed may keep a `current` that points at nothing on record.
    void dropStrayLinks(const std::string& guid, std::vector<std::string>& done) {
        const OpsFd apps = appsFolder();
        OpsFd app = appFolderIfThere(apps, guid);
        if (!app) return;
        const bool recorded = records->currentId(guid).has_value();
        std::vector<std::string> stray{"current.new"};
        if (!recorded) stray.push_back("current");
        for (const std::string& name : stray) {
            const std::string link = shown("apps/" + guid + "/" + name);
            if (removeLink(ops, app.get(), name, link))
                done.push_back("removed the stray link " + link);
        }
        if (recorded) return;
        app.reset();
        removeEmptyFolder(ops, apps.get(), guid, shown("apps"));
    }

    void discardFolder(const std::string& relative) {
        const auto slash = relative.find('/');
        if (slash == std::string::npos || relative.find('/', slash + 1) != std::string::npos ||
            relative.substr(slash + 1, 1) != "v")
            return;  // not a folder name of ours: never act on it
        const std::string guid = relative.substr(0, slash);
        const std::string leaf = relative.substr(slash + 1);
        const OpsFd apps = appsFolder();
        OpsFd app = appFolderIfThere(apps, guid);
        // A link planted in the folder's place goes first: the extraction's
        // recovery opens the folder by its path, and would follow it.
        if (app) removeLink(ops, app.get(), leaf, shown("apps/" + relative));
        // Staging folders of an extraction that died beside it go too.
        opc::extraction::recover(folderOf(relative), selector);
        if (!app) return;
        removeTree(ops, app.get(), leaf, shown("apps/" + relative));
        app.reset();
        if (!records->currentId(guid)) removeEmptyFolder(ops, apps.get(), guid, shown("apps"));
    }

    // Quietly settles after a failure; what cannot be settled now is
    // settled by the next writer.
    void settleAfterFailure() noexcept {
        try {
            settle();
        } catch (...) {
        }
    }

    // Settles what a finished operation left (the folders of versions no
    // longer recorded); what cannot go now stays marked, goes with the
    // next writer, and is told in `leftOver`.
    void settleAfterSuccess(std::vector<std::string>& leftOver,
                            std::vector<KeptRow>* kept = nullptr) {
        try {
            settle(false, kept);
        } catch (const std::exception& e) {
            leftOver.push_back(e.what());
        }
    }

    // Downloads a crash, or a removal that failed, left in ROOT/.downloads.
    // A download at work holds its file's lock until the package is
    // installed and removed, so a file whose lock is free is no one's; one
    // renamed or replaced while it was being locked is looked at no further.
    void dropAbandonedDownloads(std::vector<std::string>& done) {
        const std::string shownFolder = shown(".downloads");
        const OpsFd folder(ops, ops.openat(rootFd.get(), ".downloads",
                                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder) {
            if (errno == ENOENT) return;
            failed(shownFolder + " cannot be opened", errno);
        }
        const auto entries = ops.listFolder(folder.get());
        if (!entries) failed(shownFolder + " cannot be read", errno);
        for (const auto& [name, isFolder] : *entries) {
            if (isFolder) continue;
            const OpsFd file(ops, ops.openat(folder.get(), name.c_str(),
                                             O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
            struct stat held {
            }, named{};
            if (!file || ops.flock(file.get(), LOCK_EX | LOCK_NB) != 0 ||
                ops.fstat(file.get(), &held) != 0 || !S_ISREG(held.st_mode) ||
                ops.lstatat(folder.get(), name.c_str(), &named) != 0 ||
                named.st_ino != held.st_ino || named.st_dev != held.st_dev)
                continue;
            if (ops.unlinkat(folder.get(), name.c_str(), 0) != 0)
                failed(shownFolder + "/" + name + " cannot be removed", errno);
            done.push_back("removed the abandoned download " + shownFolder + "/" + name);
        }
    }

    // --- install ------------------------------------------------------------

    InstallResult install(const std::filesystem::path& package, const HostProfile& host,
                          const InstallOptions& installOptions) {
        // The package is no part of the root. A caller that verified its
        // digest as it wrote the file (a download) spares a second read.
        std::optional<PackageHash> packageSha;
        if (installOptions.packageSha256.empty()) packageSha.emplace(package);
        RootLock lock = lockRoot(RootLock::Mode::Exclusive);
        settle();
        db->exec(installOptions.sync ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
        AppManifestSerializer serializer;
        std::optional<opc::model::OpenedPackage> opened;
        std::string manifestSha256;
        const inspect::Report report = inspect::detail::checkPackage(
            package, serializer, false, 1, opened, &manifestSha256, installOptions.absentParts);
        if (!report.good() || !report.manifest) {
            std::vector<std::string> lines;
            for (const Fault& fault : report.faults) lines.push_back(fault.detail);
            throw StoreError(
                report.faults.empty() ? FaultKind::BadManifest : report.faults.front().kind, lines);
        }
        // The package's digest is taken through a second open of its path:
        // both must be the one file, not one replaced in between.
        if (packageSha && packageSha->fd() >= 0 && !opened->reads(packageSha->fd()))
            refuse(FaultKind::PackageChanged, "the package changed while it was being installed");
        const AppManifest& manifest = *report.manifest;
        if (!isGuid(manifest.GUID))
            refuse(FaultKind::BadManifest,
                   "the GUID " + manifest.GUID + " is not of the form 8-4-4-4-12 hex digits");
        InstalledVersion version;
        version.guid = opc::detail::ascii_lower(manifest.GUID);
        version.name = fl::i18n::to_string(manifest.name);
        version.version = fl::i18n::to_string(manifest.version);
        version.package =
            installOptions.packageName.empty() ? package.string() : installOptions.packageName;
        version.origin = installOptions.origin;
        version.hostProfile = toJson(host);
        version.forcedReasons = incompatibilities(manifest, host);
        version.forced = !version.forcedReasons.empty();
        if (version.forced && !installOptions.force) {
            std::vector<std::string> lines;
            for (const auto& reason : version.forcedReasons)
                lines.push_back("does not fit this host: " + reason);
            lines.push_back("not installed; --force installs it anyway");
            throw StoreError(FaultKind::NotCompatible, lines);
        }
        InstallResult result;
        const auto currentId = records->currentId(version.guid);
        std::optional<VersionRow> existing;
        if (currentId) existing = records->version(*currentId);
        if (existing) {
            result.kind = kindOf(version.version, existing->version.version, installOptions);
            result.replacedVersion = existing->version.version;
            if (isHeld(version.guid) && !installOptions.ignoreHold)
                refuse(FaultKind::Refused, version.name + " is held at version " +
                                               existing->version.version +
                                               "; --ignore-hold replaces it");
        }

        const std::string relative = version.guid + "/" + folderNameFor(version.version);
        const std::int64_t pendingId =
            records->addPending(PendingAction::Install, version.guid, relative, false);
        Unpacked unpacked;
        try {
            const OpsFd apps = appsFolder();
            makeFolder(ops, apps.get(), version.guid, shown("apps/" + version.guid));
            std::optional<Replaced> replaced;
            if (existing)
                replaced = Replaced{apps.get(),
                                    existing->folder,
                                    shown("apps/" + existing->folder),
                                    existing->version.version,
                                    records->files(existing->id),
                                    records->stamps(existing->id)};
            unpacked = unpack(opened->package(), folderOf(relative), installOptions, selector,
                              replaced ? &*replaced : nullptr);
            checkUnpackedManifest(opened->package(), unpacked.files, manifestSha256);
            opened->close();
            version.packageSha256 = packageSha
                                        ? packageSha->get()
                                        : opc::detail::ascii_lower(installOptions.packageSha256);
            version.signerSubject = unpacked.signerSubject;
            version.signerFingerprint = unpacked.signerFingerprint;
            version.signerKeyFingerprint = unpacked.signerKeyFingerprint;
            if (const auto revoked = revocationOf(version))
                refuse(
                    FaultKind::RevokedSigner,
                    "its signer's key (SHA-256 " + version.signerKeyFingerprint + ") " + *revoked);
            if (existing) checkSigner(existing->version, version, relative, installOptions);
            version.installedAt = static_cast<std::int64_t>(std::time(nullptr));
            static const char* const actions[] = {"install", "upgrade", "reinstall", "downgrade"};
            HistoryEntry entry = change(actions[static_cast<int>(result.kind)], version);
            entry.at = version.installedAt;
            entry.oldVersion = result.replacedVersion;
            entry.newVersion = version.version;
            entry.forced = version.forced;
            entry.signerChanged = existing && replacesSigner(existing->version, entry.signer);
            commitInstall(version, relative, unpacked, pendingId, installOptions.purge, entry);
        } catch (...) {
            settleAfterFailure();
            throw;
        }
        result.installed = publicVersion({0, version, relative});
        result.takenFiles = unpacked.takenFiles;
        result.takenBytes = unpacked.takenBytes;
        result.leftOver = std::move(unpacked.leftAside);
        std::vector<KeptRow> kept;
        settleAfterSuccess(result.leftOver, &kept);
        for (const KeptRow& row : kept) result.kept.push_back(publicKept(row));
        return result;
    }

    static InstallResult::Kind kindOf(const std::string& wanted, const std::string& installed,
                                      const InstallOptions& options) {
        const int order = compareVersions(wanted, installed);
        if (order > 0) return InstallResult::Kind::Upgrade;
        if (order == 0) {
            if (!options.reinstall)
                refuse(FaultKind::Refused,
                       "version " + installed + " is already installed; --reinstall replaces it");
            return InstallResult::Kind::Reinstall;
        }
        if (!options.allowDowngrade)
            refuse(FaultKind::Refused, "version " + wanted + " is older than the installed " +
                                           installed + "; --allow-downgrade installs it");
        return InstallResult::Kind::Downgrade;
    }

    // A version signed by a verified signer is replaced only by one signed
    // by the same key, under the same certificate or a renewed one, or by
    // a key its rotation proofs lead to from that one (recorded in
    // `fresh`), unless the caller allows any signer.
    void checkSigner(const InstalledVersion& was, InstalledVersion& fresh,
                     const std::string& relative, const InstallOptions& installOptions) const {
        if (was.signerFingerprint.empty() || installOptions.allowSignerChange) return;
        const bool verified = !fresh.signerFingerprint.empty();
        if (verified && (fresh.signerFingerprint == was.signerFingerprint ||
                         (!was.signerKeyFingerprint.empty() &&
                          fresh.signerKeyFingerprint == was.signerKeyFingerprint)))
            return;
        const std::string why = verified ? rotationProblem(was, fresh, relative, installOptions)
                                         : "this package's signer is not verified (see --trust)";
        if (why.empty()) return;
        const std::string key = was.signerKeyFingerprint.empty()
                                    ? "certificate SHA-256 " + was.signerFingerprint
                                    : "key SHA-256 " + was.signerKeyFingerprint;
        refuse(FaultKind::Refused, "version " + was.version + " is signed by " + was.signerSubject +
                                       " (" + key + "); " + why +
                                       "; --allow-signer-change installs it");
    }

    // Why the package's key does not follow the installed version's by the
    // rotation proofs it carries, or empty, the keys that handed over then
    // recorded in `fresh`.
    std::string rotationProblem(const InstalledVersion& was, InstalledVersion& fresh,
                                const std::string& relative,
                                const InstallOptions& installOptions) const {
        const std::string now = "this package is signed by " + fresh.signerSubject +
                                " with another key (SHA-256 " + fresh.signerKeyFingerprint + ")";
        const std::optional<std::string> proofs = versionFile(
            relative, integrity::KEY_ROTATIONS_PART_NAME, integrity::MAX_KEY_ROTATIONS_BYTES);
        if (!proofs) return now + " and carries no key rotation proof";
        if (was.signerKeyFingerprint.empty())
            return now +
                   "; the installed version's key is not on record, so no proof can start "
                   "from it";
        const integrity::RotationCheck check =
            integrity::checkKeyRotation(*proofs, was.signerKeyFingerprint,
                                        fresh.signerKeyFingerprint, installOptions.trustAnchors);
        if (!check.ok()) return now + "; " + check.problem;
        fresh.rotatedFrom = check.handedOver;
        return {};
    }

    // One transaction: the new version's records, the old ones beyond the
    // kept number dropped (their folders marked for removal), the link
    // switched just before the commit.
    // The version replaced is the first kept, whatever its age: after a
    // forced rollback a newer one may stand before it.
    void commitInstall(const InstalledVersion& version, const std::string& relative,
                       const Unpacked& unpacked, std::int64_t pendingId, bool purge,
                       const HistoryEntry& entry) {
        Transaction transaction(*db);
        records->addHistory(entry);
        const auto replaced = records->currentId(version.guid);
        const std::int64_t id =
            records->addVersion(version, relative, unpacked.files, unpacked.stamps);
        records->setCurrent(version.guid, id);
        records->dropPending(pendingId);
        std::vector<VersionRow> older = records->versionsOf(version.guid);  // newest first
        std::stable_partition(older.begin(), older.end(),
                              [&](const VersionRow& row) { return replaced == row.id; });
        unsigned kept = 0;
        for (const VersionRow& row : older) {
            if (row.id == id || kept++ < options.keepPrevious) continue;
            records->retireVersion(row.id);
            records->addPending(PendingAction::Purge, version.guid, row.folder, purge);
        }
        const OpsFd apps = appsFolder();
        const OpsFd app = openFolder(ops, apps.get(), version.guid, shown("apps/" + version.guid));
        switchLink(ops, app.get(), "current", leafOf(relative),
                   shown("apps/" + version.guid + "/current"));
        transaction.commit();
    }

    // --- remove -------------------------------------------------------------

    RemoveResult remove(const std::string& app, bool purge) {
        RootLock lock = lockRoot(RootLock::Mode::Exclusive);
        settle();
        RemoveResult result;
        const std::optional<std::string> installed = resolveInstalled(app);
        if (!installed) {
            const std::string guid = resolveKept(app);
            if (!purge)
                refuse(FaultKind::NotInstalled,
                       app + " is not installed; files kept from it remain (--purge removes them)");
            result.removed = keptVersion(guid);
            result.removedApp = false;
            result.purged = purgeKept(guid);
            return result;
        }
        const std::string& guid = *installed;
        const VersionRow current = *records->version(*records->currentId(guid));
        const PendingRow row{
            records->addPending(PendingAction::Remove, guid, current.folder, purge),
            PendingAction::Remove, guid, current.folder, purge};
        result.removed = publicVersion(current);
        std::vector<KeptRow> kept;
        removeAppFiles(row, kept);
        forget({row}, kept);
        for (const KeptRow& k : kept) result.kept.push_back(publicKept(k));
        if (purge) result.purged = purgeKept(guid, false);
        return result;
    }

    // Deletes what the records say is the app's, keeping (unless purging)
    // what changed or was added in any of its versions; the records stay,
    // for forget() to drop. Run again from the top after a crash, it does
    // the same: what is gone stays gone and what changed is kept.
    void removeAppFiles(const PendingRow& row, std::vector<KeptRow>& kept) {
        const OpsFd apps = appsFolder();
        OpsFd app = appFolderIfThere(apps, row.guid);
        if (!app) return;
        if (ops.unlinkat(app.get(), "current", 0) != 0 && errno != ENOENT)
            failed(shown("apps/" + row.guid + "/current") + " cannot be removed", errno);
        for (const VersionRow& version : records->versionsOf(row.guid)) {
            if (row.purge)
                discardFolder(version.folder);
            else
                keepChanged(app.get(), version, kept);
        }
        app.reset();
        removeEmptyFolder(ops, apps.get(), row.guid, shown("apps"));  // when nothing is kept
    }

    void keepChanged(int app, const VersionRow& version, std::vector<KeptRow>& kept) {
        for (std::string& path : removeRecordedFiles(app, version))
            kept.push_back({version.folder, std::move(path), version.version.guid,
                            version.version.name, version.version.version});
    }

    std::vector<std::string> removeRecordedFiles(int app, const VersionRow& version) {
        std::vector<std::string> kept;
        const std::string& relative = version.folder;
        const std::string leaf = leafOf(relative);
        OpsFd folder(
            ops, ops.openat(app, leaf.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder) {
            if (errno == ENOENT) return kept;
            failed(shown("apps/" + relative) + " cannot be opened", errno);
        }
        const auto files = records->files(version.id);
        std::set<std::string> recorded, folders;
        for (const InstalledFile& file : files) {
            recorded.insert(file.path);
            for (auto slash = file.path.rfind('/'); slash != std::string::npos && slash > 0;
                 slash = file.path.rfind('/', slash - 1))
                folders.insert(file.path.substr(0, slash));
        }
        const std::string shownFolder = shown("apps/" + relative);
        for (const InstalledFile& file : files) {
            const FoundFile found = findFile(ops, folder.get(), file.path, true, shownFolder);
            if (found.state == FoundFile::State::Missing) continue;
            if (found.state == FoundFile::State::Regular && found.sha256 == file.sha256 &&
                found.mode == file.mode)
                removeFile(ops, folder.get(), file.path, shownFolder);
            else
                kept.push_back(file.path);
        }
        walk(ops, folder.get(), shownFolder, [&](const std::string& path, bool isFolder) {
            if (!isFolder && !recorded.count(path)) kept.push_back(path);
        });
        // Deepest first, so that a folder's sub-folders go before it.
        for (auto it = folders.rbegin(); it != folders.rend(); ++it)
            removeEmptyFolder(ops, folder.get(), *it, shownFolder);
        folder.reset();
        removeEmptyFolder(ops, app, leaf, shown("apps/" + relative.substr(0, relative.find('/'))));
        std::sort(kept.begin(), kept.end());
        kept.erase(std::unique(kept.begin(), kept.end()), kept.end());
        return kept;
    }

    // --- kept files ---------------------------------------------------------

    KeptFile publicKept(const KeptRow& row) const {
        return {row.guid, row.name, row.version, folderOf(row.folder), row.path};
    }

    // The installed app `app` names; none when no installed app is called
    // that (any other refusal is thrown).
    std::optional<std::string> resolveInstalled(const std::string& app) const {
        try {
            return resolve(app);
        } catch (const StoreError& e) {
            if (e.kind() != FaultKind::NotInstalled) throw;
            return std::nullopt;
        }
    }

    // The app, no longer installed, whose kept files `app` names by GUID or
    // by the name it had; otherwise as resolve() refuses.
    std::string resolveKept(const std::string& app) const {
        std::vector<std::string> guids;
        if (isGuid(app)) {
            const std::string guid = opc::detail::ascii_lower(app);
            if (!records->kept(guid).empty()) guids.push_back(guid);
        } else {
            guids = records->keptGuidsNamed(app);
        }
        if (guids.size() > 1) {
            std::string list;
            for (const auto& guid : guids) list += (list.empty() ? "" : ", ") + guid;
            refuse(FaultKind::AmbiguousName, app + " names " + std::to_string(guids.size()) +
                                                 " removed apps with kept files (" + list +
                                                 "); give a GUID");
        }
        if (guids.empty()) {
            resolve(app);  // refuses as for an installed app
            refuse(FaultKind::NotInstalled, "no installed app is called " + app);
        }
        return guids.front();
    }

    // The highest version that kept files of a removed app: what it was
    // last, as far as the kept records tell.
    InstalledVersion keptVersion(const std::string& guid) const {
        const auto rows = records->kept(guid);
        InstalledVersion version;
        if (rows.empty()) return version;
        const KeptRow& last =
            *std::max_element(rows.begin(), rows.end(), [](const KeptRow& a, const KeptRow& b) {
                return compareVersions(a.version, b.version) < 0;
            });
        version.guid = last.guid;
        version.name = last.name;
        version.version = last.version;
        version.folder = folderOf(last.folder);
        return version;
    }

    // The kept files of `guid` that are still there, not followed through links.
    std::vector<KeptFile> presentKept(const std::string& guid) const {
        std::vector<KeptFile> stillThere;
        const auto rows = records->kept(guid);
        if (rows.empty()) return stillThere;
        const OpsFd apps = appsFolder();
        const OpsFd app = appFolderIfThere(apps, guid);
        if (!app) return stillThere;
        OpenParent parent;
        for (const KeptRow& row : rows) {
            const std::string path = leafOf(row.folder) + "/" + row.path;
            if (findFile(ops, app.get(), path, false, shown("apps/" + guid), &parent).state !=
                FoundFile::State::Missing)
                stillThere.push_back(publicKept(row));
        }
        return stillThere;
    }

    // Deletes the files kept of `guid` first and drops their records after,
    // so that a crash between leaves records of files already gone, which
    // the next purge passes over.
    // `record`: a change of its own, not the end of a purging remove
    // (which is on record already).
    std::vector<KeptFile> purgeKept(const std::string& guid, bool record = true) {
        const auto rows = records->kept(guid);
        std::vector<KeptFile> purged;
        if (rows.empty()) return purged;
        const OpsFd apps = appsFolder();
        OpsFd app = appFolderIfThere(apps, guid);
        const std::string shownApp = shown("apps/" + guid);
        std::set<std::string> folders;
        for (const KeptRow& row : rows) {
            purged.push_back(publicKept(row));
            const std::string leaf = leafOf(row.folder);
            if (!app || row.folder != guid + "/" + leaf || leaf.rfind('v', 0) != 0 ||
                leaf.find('/') != std::string::npos)
                continue;  // not a folder name of ours: never act on it
            removeFile(ops, app.get(), leaf + "/" + row.path, shownApp);
            const std::string path = leaf + "/" + row.path;
            for (auto slash = path.rfind('/'); slash != std::string::npos && slash > 0;
                 slash = path.rfind('/', slash - 1))
                folders.insert(path.substr(0, slash));
        }
        for (auto it = folders.rbegin(); it != folders.rend(); ++it)
            removeEmptyFolder(ops, app.get(), *it, shownApp);
        if (app) {
            app.reset();
            if (!records->currentId(guid)) removeEmptyFolder(ops, apps.get(), guid, shown("apps"));
        }
        Transaction transaction(*db);
        if (record) {
            const auto id = records->currentId(guid);
            const auto current = id ? records->version(*id) : std::nullopt;
            const InstalledVersion version = current ? current->version : keptVersion(guid);
            HistoryEntry entry = change("purge", version);
            entry.oldVersion = version.version;
            records->addHistory(entry);
        }
        for (const KeptRow& row : rows) records->dropKept(row.folder, row.path);
        transaction.commit();
        return purged;
    }

    // --- rollback -----------------------------------------------------------

    RollbackResult rollback(const std::string& app, const RollbackOptions& rollbackOptions) {
        RootLock lock = lockRoot(RootLock::Mode::Exclusive);
        settle();
        const std::string guid = resolve(app);
        const auto currentId = *records->currentId(guid);
        std::optional<VersionRow> current, previous;
        for (const VersionRow& row : records->versionsOf(guid)) {
            if (row.id == currentId)
                current = row;
            else if (!previous)
                previous = row;
        }
        if (!previous)
            refuse(FaultKind::NoPrevious, guid + " has no previous version to roll back to");
        checkReturnTo(*previous, rollbackOptions.force);
        // Marks the app for settling should the link switch but the
        // records not commit.
        const std::int64_t pendingId =
            records->addPending(PendingAction::Rollback, guid, current->folder, false);
        try {
            Transaction transaction(*db);
            HistoryEntry entry = change("rollback", previous->version);
            entry.oldVersion = current->version.version;
            entry.newVersion = previous->version.version;
            entry.forced = previous->version.forced;
            entry.signerChanged = replacesSigner(current->version, entry.signer);
            records->addHistory(entry);
            records->dropPending(pendingId);
            records->setCurrent(guid, previous->id);
            if (!rollbackOptions.force) {
                records->retireVersion(current->id);
                records->addPending(PendingAction::Purge, guid, current->folder, false);
            }
            const OpsFd apps = appsFolder();
            const OpsFd appFolder = openFolder(ops, apps.get(), guid, shown("apps/" + guid));
            switchLink(ops, appFolder.get(), "current", leafOf(previous->folder),
                       shown("apps/" + guid + "/current"));
            transaction.commit();
        } catch (...) {
            settleAfterFailure();
            throw;
        }
        std::vector<std::string> ignored;
        std::vector<KeptRow> kept;
        settleAfterSuccess(ignored, &kept);
        RollbackResult result;
        result.current = publicVersion(*previous);
        for (const KeptRow& row : kept) result.kept.push_back(publicKept(row));
        return result;
    }

    // Before anything is touched: the version rolled back to must be there,
    // a folder of its own, and (unless forced) as installed, or the app
    // would be left running something other than what the records say.
    void checkReturnTo(const VersionRow& to, bool force) const {
        const std::string what = "version " + to.version.version + " is not as installed: ";
        const std::string shownFolder = shown("apps/" + to.folder);
        const OpsFd apps = appsFolder();
        const OpsFd app = appFolderIfThere(apps, to.version.guid);
        struct stat info {};
        std::string problem;
        if (!app || ops.lstatat(app.get(), leafOf(to.folder).c_str(), &info) != 0) {
            if (app && errno != ENOENT) failed(shownFolder + " cannot be read", errno);
            problem = "its folder " + shownFolder + " is missing";
        } else if (!S_ISDIR(info.st_mode)) {
            problem = "its folder " + shownFolder + " is " +
                      (S_ISLNK(info.st_mode) ? "a symbolic link" : "not a folder");
        }
        if (!problem.empty())
            throw StoreError(FaultKind::Refused, {what + problem, "not rolled back"});
        if (force) return;
        std::vector<std::string> lines;
        for (const AuditFinding& f : folderFindings(to))
            lines.push_back(what + token(f.kind) + " " + f.path +
                            (f.detail.empty() ? "" : " (" + f.detail + ")"));
        if (lines.empty()) return;
        lines.push_back("not rolled back; --force rolls back to it as it is");
        throw StoreError(FaultKind::Refused, lines);
    }

    // Who revoked the key that signed `version`, as a phrase ("was revoked
    // by the repository stable"), or nullopt while no one has. Revocations
    // are kept in the root's state by the installer as it reads indexes.
    std::optional<std::string> revocationOf(const InstalledVersion& version) const {
        if (version.signerKeyFingerprint.empty()) return std::nullopt;
        const auto by = records->state(REVOKED_KEYS_SCOPE, version.signerKeyFingerprint);
        if (!by) return std::nullopt;
        return "was revoked by the repository " + *by;
    }

    // --- plans --------------------------------------------------------------
    // Each runs the checks of its operation in the same order, so that a
    // plan refuses what the operation would refuse, with the same words.

    Plan planInstall(const std::filesystem::path& package, const HostProfile& host,
                     const InstallOptions& installOptions) const {
        AppManifestSerializer serializer;
        std::optional<opc::model::OpenedPackage> opened;
        const inspect::Report report =
            inspect::detail::checkPackage(package, serializer, false, 1, opened, nullptr);
        if (!report.good() || !report.manifest) {
            std::vector<std::string> lines;
            for (const Fault& fault : report.faults) lines.push_back(fault.detail);
            throw StoreError(
                report.faults.empty() ? FaultKind::BadManifest : report.faults.front().kind, lines);
        }
        const AppManifest& manifest = *report.manifest;
        PackageFacts facts;
        facts.guid = manifest.GUID;
        facts.name = fl::i18n::to_string(manifest.name);
        facts.version = fl::i18n::to_string(manifest.version);
        facts.incompatibilities = incompatibilities(manifest, host);
        std::uint64_t unpacked = 0;
        for (const auto& name : opened->package().getPartNames())
            unpacked += opened->package().getPart(name).getEntry().size;
        // Files taken from the installed version are shared with it on disk:
        // they take no more space, nor does retiring that version free it.
        std::uint64_t shared = 0;
        if (const auto current = records->currentId(opc::detail::ascii_lower(facts.guid)))
            shared = std::min(unpacked, sharedBytes(opened->package(), records->files(*current)));
        opened->close();
        Plan plan = planInstall(facts, installOptions, false, shared);
        plan.diskChange += static_cast<std::int64_t>(unpacked - shared);
        return plan;
    }

    // `known`: whether the facts name the package's signer (an index does).
    // `shared`: bytes of the installed version the new one would share.
    Plan planInstall(const PackageFacts& package, const InstallOptions& installOptions, bool known,
                     std::uint64_t shared = 0) const {
        if (!isGuid(package.guid))
            refuse(FaultKind::BadManifest,
                   "the GUID " + package.guid + " is not of the form 8-4-4-4-12 hex digits");
        if (!package.incompatibilities.empty() && !installOptions.force) {
            std::vector<std::string> lines;
            for (const auto& reason : package.incompatibilities)
                lines.push_back("does not fit this host: " + reason);
            lines.push_back("not installed; --force installs it anyway");
            throw StoreError(FaultKind::NotCompatible, lines);
        }
        Plan plan;
        plan.guid = opc::detail::ascii_lower(package.guid);
        plan.name = package.name;
        plan.toVersion = package.version;
        plan.download = known ? package.size : 0;
        if (known)
            plan.undecided.push_back(
                "the disk space the new version's files take, not counted in the plan");
        InstalledVersion fresh;
        fresh.guid = plan.guid;
        fresh.signerSubject = package.signerSubject;
        fresh.signerFingerprint = package.signerFingerprint;
        fresh.signerKeyFingerprint = package.signerKeyFingerprint;
        // Without trust anchors no signer is verified, whatever the package holds.
        const bool signerKnown = known || installOptions.trustAnchors.empty();
        if (signerKnown) plan.toSigner = fresh.signerSubject;
        if (known) {
            if (const auto revoked = revocationOf(fresh))
                refuse(FaultKind::RevokedSigner,
                       "its signer's key (SHA-256 " + fresh.signerKeyFingerprint + ") " + *revoked);
        } else if (!installOptions.trustAnchors.empty()) {
            plan.undecided.push_back("the package's signature against the trust anchors");
        }
        const auto currentId = records->currentId(plan.guid);
        if (!currentId) {
            if (signerKnown) plan.signerChanges = false;
            return plan;
        }
        std::vector<VersionRow> older = records->versionsOf(plan.guid);
        std::stable_partition(older.begin(), older.end(),
                              [&](const VersionRow& row) { return row.id == *currentId; });
        const InstalledVersion& was = older.front().version;
        plan.fromVersion = was.version;
        plan.fromSigner = was.signerSubject;
        plan.action = planned(kindOf(package.version, was.version, installOptions));
        if (isHeld(plan.guid) && !installOptions.ignoreHold)
            refuse(FaultKind::Refused, plan.name + " is held at version " + was.version +
                                           "; --ignore-hold replaces it");
        if (signerKnown) {
            plan.signerChanges = sameKey(was, fresh) ? std::optional<bool>(false) : true;
            if (*plan.signerChanges && !was.signerFingerprint.empty() &&
                !installOptions.allowSignerChange) {
                if (fresh.signerFingerprint.empty())
                    checkSigner(was, fresh, "", installOptions);  // refuses as install does
                // Rotation proofs travel in the package.
                plan.signerChanges.reset();
                plan.undecided.push_back("whether the package's key rotation proofs lead from " +
                                         was.signerSubject + "'s key to its signer's");
            }
        } else if (!was.signerFingerprint.empty() && !installOptions.allowSignerChange) {
            plan.undecided.push_back("whether the package is signed by " + was.signerSubject +
                                     "'s key, or by one it handed over to");
        }
        unsigned keptNumber = 0;
        for (const VersionRow& row : older) {
            if (keptNumber++ < options.keepPrevious) continue;
            const std::uint64_t freed = row.id == *currentId
                                            ? row.version.size - std::min(row.version.size, shared)
                                            : row.version.size;
            plan.diskChange -= static_cast<std::int64_t>(freed);
            if (!installOptions.purge) changedFiles(row, plan.kept);
        }
        return plan;
    }

    static Plan::Action planned(InstallResult::Kind kind) {
        switch (kind) {
            case InstallResult::Kind::Upgrade:
                return Plan::Action::Upgrade;
            case InstallResult::Kind::Reinstall:
                return Plan::Action::Reinstall;
            case InstallResult::Kind::Downgrade:
                return Plan::Action::Downgrade;
            case InstallResult::Kind::New:
                break;
        }
        return Plan::Action::New;
    }

    static bool sameKey(const InstalledVersion& a, const InstalledVersion& b) {
        if (a.signerFingerprint.empty() || b.signerFingerprint.empty())
            return a.signerFingerprint.empty() && b.signerFingerprint.empty();
        return a.signerFingerprint == b.signerFingerprint ||
               (!a.signerKeyFingerprint.empty() &&
                a.signerKeyFingerprint == b.signerKeyFingerprint);
    }

    // What removing the version's folder would keep: its files changed or
    // added, as removeRecordedFiles() tells them from the records.
    void changedFiles(const VersionRow& row, std::vector<KeptFile>& kept) const {
        std::set<std::string> paths;
        for (const AuditFinding& f : folderFindings(row))
            if (f.kind == AuditFinding::Kind::Modified || f.kind == AuditFinding::Kind::Mode ||
                f.kind == AuditFinding::Kind::Extra)
                paths.insert(f.path);
        for (const std::string& path : paths)
            kept.push_back({row.version.guid, row.version.name, row.version.version,
                            folderOf(row.folder), path});
    }

    Plan planRemove(const std::string& app, bool purge) const {
        Plan plan;
        plan.action = Plan::Action::Remove;
        const std::optional<std::string> installed = resolveInstalled(app);
        if (!installed) {
            const std::string guid = resolveKept(app);
            if (!purge)
                refuse(FaultKind::NotInstalled,
                       app + " is not installed; files kept from it remain (--purge removes them)");
            const InstalledVersion last = keptVersion(guid);
            plan.guid = guid;
            plan.name = last.name;
            return plan;
        }
        const VersionRow current = *records->version(*records->currentId(*installed));
        plan.guid = current.version.guid;
        plan.name = current.version.name;
        plan.fromVersion = current.version.version;
        plan.fromSigner = current.version.signerSubject;
        plan.signerChanges = false;  // no version signed by anyone else comes in
        for (const VersionRow& row : records->versionsOf(*installed)) {
            plan.diskChange -= static_cast<std::int64_t>(row.version.size);
            if (!purge) changedFiles(row, plan.kept);
        }
        return plan;
    }

    Plan planRollback(const std::string& app, const RollbackOptions& rollbackOptions) const {
        const std::string guid = resolve(app);
        const auto currentId = *records->currentId(guid);
        std::optional<VersionRow> current, previous;
        for (const VersionRow& row : records->versionsOf(guid)) {
            if (row.id == currentId)
                current = row;
            else if (!previous)
                previous = row;
        }
        if (!previous)
            refuse(FaultKind::NoPrevious, guid + " has no previous version to roll back to");
        checkReturnTo(*previous, rollbackOptions.force);
        Plan plan;
        plan.action = Plan::Action::Rollback;
        plan.guid = guid;
        plan.name = previous->version.name;
        plan.fromVersion = current->version.version;
        plan.toVersion = previous->version.version;
        plan.fromSigner = current->version.signerSubject;
        plan.toSigner = previous->version.signerSubject;
        plan.signerChanges = !sameKey(current->version, previous->version);
        if (!rollbackOptions.force) {
            plan.diskChange = -static_cast<std::int64_t>(current->version.size);
            changedFiles(*current, plan.kept);
        }
        return plan;
    }

    // --- audit --------------------------------------------------------------

    AuditReport audit(const std::string& guid) const {
        const VersionRow row = *records->version(*records->currentId(guid));
        AuditReport report;
        report.version = publicVersion(row);
        if (const auto revoked = revocationOf(row.version))
            report.findings.push_back({AuditFinding::Kind::Revoked,
                                       integrity::SIGNATURE_PART_NAME + 1,
                                       "its signer's key (SHA-256 " +
                                           row.version.signerKeyFingerprint + ") " + *revoked});
        for (AuditFinding& f : folderFindings(row)) report.findings.push_back(std::move(f));
        for (const VersionRow& previous : records->versionsOf(guid))
            if (previous.id != row.id) sharedFindings(previous, report.findings);
        std::stable_sort(
            report.findings.begin(), report.findings.end(),
            [](const AuditFinding& a, const AuditFinding& b) { return a.path < b.path; });
        auditLink(appsFolder(), row, report.findings);
        report.kept = presentKept(guid);
        return report;
    }

    // An app that is no longer installed, by what it kept.
    AuditReport keptReport(const std::string& guid) const {
        AuditReport report;
        report.version = keptVersion(guid);
        report.installed = false;
        report.kept = presentKept(guid);
        return report;
    }

    // A version's files against its records: missing, modified, mode and
    // extra, by path.
    std::vector<AuditFinding> folderFindings(const VersionRow& row) const {
        std::vector<AuditFinding> findings;
        const std::string shownFolder = shown("apps/" + row.folder);
        const auto files = records->files(row.id);
        const OpsFd apps = appsFolder();
        OpsFd folder(ops, ops.openBeneath(apps.get(), row.folder.c_str(),
                                          O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!folder) {
            if (errno != ENOENT) failed(shownFolder + " cannot be opened", errno);
            for (const InstalledFile& file : files)
                findings.push_back({AuditFinding::Kind::Missing, file.path, ""});
            return findings;
        }
        std::set<std::string> recorded;
        for (const InstalledFile& file : files) {
            recorded.insert(file.path);
            auditFile(folder.get(), file, shownFolder, findings);
        }
        walk(ops, folder.get(), shownFolder, [&](const std::string& path, bool isFolder) {
            if (!isFolder && !recorded.count(path))
                findings.push_back({AuditFinding::Kind::Extra, path, ""});
        });
        std::stable_sort(
            findings.begin(), findings.end(),
            [](const AuditFinding& a, const AuditFinding& b) { return a.path < b.path; });
        return findings;
    }

    // A version kept for rollback shares, as a link, each file an upgrade
    // took from it: a write into one changes the other. Its shared files
    // (those with more than one name) are audited with the current
    // version, each finding naming it.
    void sharedFindings(const VersionRow& row, std::vector<AuditFinding>& findings) const {
        const std::string shownFolder = shown("apps/" + row.folder);
        const OpsFd apps = appsFolder();
        const OpsFd folder(ops, ops.openBeneath(apps.get(), row.folder.c_str(),
                                                O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!folder) return;  // a rollback to it says so
        OpenParent parent;
        for (const InstalledFile& file : records->files(row.id)) {
            const FoundFile found =
                findFile(ops, folder.get(), file.path, false, shownFolder, &parent);
            if (found.state != FoundFile::State::Regular || found.links < 2) continue;
            std::vector<AuditFinding> own;
            auditFile(folder.get(), file, shownFolder, own);
            for (AuditFinding& f : own) {
                f.detail = "in version " + row.version.version +
                           ", kept for rollback, which shares the file: " + f.detail;
                findings.push_back(std::move(f));
            }
        }
    }

    // What runs is what `current` names, so the audited folder must be the
    // one it names: by the leaf the store writes, compared as text and
    // never followed, so that a copy beside it or a path out of the root
    // is a finding, however like the recorded folder it looks.
    void auditLink(const OpsFd& apps, const VersionRow& row,
                   std::vector<AuditFinding>& findings) const {
        const auto finding = [&](const std::string& detail) {
            findings.push_back({AuditFinding::Kind::Link, "current", detail});
        };
        const OpsFd app = appFolderIfThere(apps, row.version.guid);
        struct stat info {};
        if (!app || ops.lstatat(app.get(), "current", &info) != 0) {
            if (app && errno != ENOENT)
                failed(shown("apps/" + row.version.guid + "/current") + " cannot be read", errno);
            return finding("missing");
        }
        if (!S_ISLNK(info.st_mode)) return finding("not a symbolic link");
        const std::string target =
            linkTarget(ops, app.get(), "current", shown("apps/" + row.version.guid + "/current"));
        if (target != leafOf(row.folder))
            finding("points at " + target + ", not at " + leafOf(row.folder));
    }

    void auditFile(int folder, const InstalledFile& file, const std::string& shownFolder,
                   std::vector<AuditFinding>& findings) const {
        FoundFile found = findFile(ops, folder, file.path, false, shownFolder);
        using State = FoundFile::State;
        if (found.state == State::Missing)
            return findings.push_back({AuditFinding::Kind::Missing, file.path, ""});
        if (found.state == State::Link)
            return findings.push_back(
                {AuditFinding::Kind::Modified, file.path, "replaced by a symbolic link"});
        if (found.state == State::Other)
            return findings.push_back(
                {AuditFinding::Kind::Modified, file.path, "not a regular file"});
        if (found.size != file.size) {
            findings.push_back(
                {AuditFinding::Kind::Modified, file.path,
                 "size " + std::to_string(found.size) + ", recorded " + std::to_string(file.size)});
        } else if (findFile(ops, folder, file.path, true, shownFolder).sha256 != file.sha256) {
            findings.push_back({AuditFinding::Kind::Modified, file.path, "content differs"});
        }
        if (found.mode != file.mode)
            findings.push_back({AuditFinding::Kind::Mode, file.path,
                                modeText(found.mode) + ", recorded " + modeText(file.mode)});
    }

    // Audits read with the root's lock shared, so no writer is halfway;
    // one a crash left halfway is settled first.
    template <class Read>
    auto auditing(Read read) {
        if (!options.readOnly && !records->pending().empty()) {
            RootLock lock = lockRoot(RootLock::Mode::Exclusive);
            settle();
        }
        RootLock lock = lockRoot(RootLock::Mode::Shared);
        return read();
    }

    std::filesystem::path root;
    Options options;
    opc::FileSystemOpsSelector selector;
    const FileOps& ops;
    LockWait lockWait;
    // SQLite's I/O through `ops` when they are a seam's; declared before
    // the database, whose connection must close before it goes.
    std::unique_ptr<SeamVfs> vfs;
    OpsFd rootFd;
    bool present = false;                            // the shared flock on rootFd is held
    bool madeDatabase = false;                       // this object made store.db
    std::vector<std::filesystem::path> madeFolders;  // deepest first
    std::optional<RootLock> readerLock;              // an immutable reader's, held while it reads
    std::unique_ptr<Database> db;
    std::unique_ptr<Records> records;
    std::vector<std::string> settledOnOpen;  // what opening settled, for recover() to tell
};

AppStore::AppStore(const std::filesystem::path& root) : AppStore(root, Options()) {}

AppStore::AppStore(const std::filesystem::path& root, Options options)
    : impl_(std::make_unique<Impl>(root, options, opc::FileSystemOpsSelector())) {}

AppStore::AppStore(const std::filesystem::path& root, Options options, const FileSeam& seam)
    : impl_(std::make_unique<Impl>(root, options, seam.ops)) {}

AppStore::~AppStore() = default;

bool AppStore::exists(const std::filesystem::path& root) {
    struct stat info {};
    return ::lstat((root / "store.db").c_str(), &info) == 0;
}

const std::filesystem::path& AppStore::root() const {
    return impl_->root;
}

InstallResult AppStore::install(const std::filesystem::path& package, const HostProfile& host,
                                const InstallOptions& options) {
    return impl_->install(package, host, options);
}

std::vector<InstalledApp> AppStore::list() const {
    Transaction snapshot(*impl_->db, "BEGIN");
    std::vector<InstalledApp> apps;
    std::map<std::string, std::size_t> at;  // GUID -> index in apps
    for (const auto& [row, current] : impl_->records->allVersions()) {
        auto [found, added] = at.try_emplace(row.version.guid, apps.size());
        if (added) {
            apps.emplace_back();
            apps.back().link = impl_->root / "apps" / row.version.guid / "current";
        }
        InstalledApp& app = apps[found->second];
        if (current) {
            app.current = impl_->publicVersion(row);
            app.held = impl_->isHeld(row.version.guid);
        } else
            app.previous.push_back(impl_->publicVersion(row));
    }
    apps.erase(std::remove_if(apps.begin(), apps.end(),
                              [](const InstalledApp& app) { return app.current.guid.empty(); }),
               apps.end());
    std::sort(apps.begin(), apps.end(), [](const InstalledApp& a, const InstalledApp& b) {
        return std::tie(a.current.name, a.current.guid) < std::tie(b.current.name, b.current.guid);
    });
    return apps;
}

InstalledApp AppStore::show(const std::string& app) const {
    Transaction snapshot(*impl_->db, "BEGIN");
    return impl_->appOf(impl_->resolve(app));
}

std::vector<InstalledFile> AppStore::files(const std::string& app) const {
    Transaction snapshot(*impl_->db, "BEGIN");
    return impl_->records->files(*impl_->records->currentId(impl_->resolve(app)));
}

std::optional<FileOwner> AppStore::owner(const std::filesystem::path& path) const {
    namespace fs = std::filesystem;
    const fs::path wanted = fs::absolute(path).lexically_normal();
    std::error_code error;
    // The root as given and as it really is: either may be how the path
    // was written.
    std::vector<fs::path> roots = {fs::absolute(impl_->root).lexically_normal() / "apps"};
    const fs::path real = fs::canonical(impl_->root, error);
    if (!error) roots.push_back(real / "apps");
    Transaction snapshot(*impl_->db, "BEGIN");
    for (const fs::path& apps : roots) {
        const fs::path below = wanted.lexically_relative(apps);
        auto part = below.begin();
        if (below.empty() || *part == ".." || std::distance(below.begin(), below.end()) < 3)
            continue;
        const std::string guid = (part++)->string(), leaf = (part++)->string();
        fs::path rest;
        for (; part != below.end(); ++part) rest /= *part;
        std::optional<std::int64_t> id;
        if (leaf == "current") id = impl_->records->currentId(guid);
        for (const VersionRow& row : impl_->records->versionsOf(guid))  // never a retired one
            if (row.folder == guid + "/" + leaf) id = row.id;
        if (!id) continue;
        for (InstalledFile& file : impl_->records->files(*id))
            if (file.path == rest.generic_string())
                return FileOwner{impl_->publicVersion(*impl_->records->version(*id)),
                                 std::move(file)};
    }
    return std::nullopt;
}

Plan AppStore::planInstall(const std::filesystem::path& package, const HostProfile& host,
                           const InstallOptions& options) const {
    return impl_->auditing([&] { return impl_->planInstall(package, host, options); });
}

Plan AppStore::planInstall(const PackageFacts& package, const InstallOptions& options) const {
    return impl_->auditing(
        [&] { return impl_->planInstall(package, options, true, package.sharedBytes); });
}

Plan AppStore::planRemove(const std::string& app, bool purge) const {
    return impl_->auditing([&] { return impl_->planRemove(app, purge); });
}

Plan AppStore::planRollback(const std::string& app, const RollbackOptions& options) const {
    return impl_->auditing([&] { return impl_->planRollback(app, options); });
}

RemoveResult AppStore::remove(const std::string& app, bool purge) {
    return impl_->remove(app, purge);
}

RollbackResult AppStore::rollback(const std::string& app, const RollbackOptions& options) {
    return impl_->rollback(app, options);
}

bool AppStore::hold(const std::string& app, bool held) {
    Impl& impl = *impl_;
    RootLock lock = impl.lockRoot(RootLock::Mode::Exclusive);
    const std::string guid = impl.resolve(app);
    const bool was = impl.isHeld(guid);
    if (held == was) return was;
    const VersionRow current = *impl.records->version(*impl.records->currentId(guid));
    HistoryEntry entry = Impl::change(held ? "hold" : "unhold", current.version);
    entry.oldVersion = entry.newVersion = current.version.version;
    entry.forced = current.version.forced;
    Transaction transaction(*impl.db);
    impl.records->addHistory(entry);
    if (held)
        impl.records->setState(HELD_SCOPE, guid, "held");
    else
        impl.records->dropState(HELD_SCOPE, guid);
    transaction.commit();
    return was;
}

InstalledVersion AppStore::rollback(const std::string& app) {
    return impl_->rollback(app, {}).current;
}

std::vector<KeptFile> AppStore::kept() const {
    Transaction snapshot(*impl_->db, "BEGIN");
    std::vector<KeptFile> kept;
    for (const KeptRow& row : impl_->records->kept("")) kept.push_back(impl_->publicKept(row));
    return kept;
}

std::vector<KeptFile> AppStore::purge(const std::string& app) {
    RootLock lock = impl_->lockRoot(RootLock::Mode::Exclusive);
    impl_->settle();
    const auto installed = impl_->resolveInstalled(app);
    return impl_->purgeKept(installed ? *installed : impl_->resolveKept(app));
}

AuditReport AppStore::audit(const std::string& app) const {
    return impl_->auditing([&] {
        const auto installed = impl_->resolveInstalled(app);
        return installed ? impl_->audit(*installed) : impl_->keptReport(impl_->resolveKept(app));
    });
}

std::vector<AuditReport> AppStore::auditAll() const {
    return impl_->auditing([&] {
        std::vector<AuditReport> reports;
        std::set<std::string> installed;
        for (const InstalledApp& app : list()) {
            installed.insert(app.current.guid);
            reports.push_back(impl_->audit(app.current.guid));
        }
        std::set<std::string> removed;
        for (const KeptRow& row : impl_->records->kept(""))
            if (!installed.count(row.guid)) removed.insert(row.guid);
        for (const std::string& guid : removed) {
            AuditReport report = impl_->keptReport(guid);
            if (!report.kept.empty()) reports.push_back(std::move(report));
        }
        std::stable_sort(reports.begin(), reports.end(),
                         [](const AuditReport& a, const AuditReport& b) {
                             return std::tie(a.version.name, a.version.guid) <
                                    std::tie(b.version.name, b.version.guid);
                         });
        return reports;
    });
}

std::vector<HistoryEntry> AppStore::history(const std::string& app) const {
    const Impl& impl = *impl_;
    Transaction snapshot(*impl.db, "BEGIN");
    if (app.empty()) return impl.records->history({});
    std::string guid;
    if (isGuid(app)) {
        guid = opc::detail::ascii_lower(app);
    } else if (const auto installed = impl.resolveInstalled(app)) {
        guid = *installed;
    } else {
        const auto guids = impl.records->historyGuidsNamed(app);
        if (guids.size() > 1) {
            std::string list;
            for (const auto& g : guids) list += (list.empty() ? "" : ", ") + g;
            refuse(FaultKind::AmbiguousName, app + " was last the name of " +
                                                 std::to_string(guids.size()) + " apps (" + list +
                                                 "); give a GUID");
        }
        if (guids.empty()) impl.resolve(app);  // refuses as for an installed app
        guid = guids.front();
    }
    auto entries = impl.records->history(guid);
    if (entries.empty() && !impl.records->currentId(guid))
        refuse(FaultKind::NotInstalled, "no app " + guid + " is installed or on record");
    return entries;
}

std::vector<std::string> AppStore::recover() {
    RootLock lock = impl_->lockRoot(RootLock::Mode::Exclusive);
    std::vector<std::string> done = std::exchange(impl_->settledOnOpen, {});
    for (auto& line : impl_->settle(true)) done.push_back(std::move(line));
    impl_->dropAbandonedDownloads(done);
    return done;
}

std::filesystem::path AppStore::downloadFolder() const {
    const Impl& impl = *impl_;
    const std::filesystem::path folder = impl.root / ".downloads";
    if (impl.options.readOnly)
        refuse(FaultKind::StoreFailed,
               impl.root.string() + " is open read-only: it is not changed");
    if (impl.ops.mkdirat(impl.rootFd.get(), ".downloads", 0700) != 0 && errno != EEXIST)
        failed(folder.string() + " cannot be made", errno);
    // One that exists must be this user's folder, not a link elsewhere.
    struct stat info {};
    if (impl.ops.lstatat(impl.rootFd.get(), ".downloads", &info) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_uid != ::geteuid())
        refuse(FaultKind::StoreFailed,
               folder.string() + ": not a folder of this user's; remove it");
    return folder;
}

const opc::detail::FileOps& RootStateAccess::ops(const AppStore& apps) {
    return apps.impl_->ops;
}

std::optional<std::string> RootStateAccess::read(const AppStore& apps, const std::string& scope,
                                                 const std::string& key) {
    return apps.impl_->records->state(scope, key);
}

void RootStateAccess::update(AppStore& apps, const std::string& scope, const std::string& key,
                             const Change& change) {
    AppStore::Impl& impl = *apps.impl_;
    // A reader keeps nothing: what it learns (a higher index version, a
    // revocation) is for the next writer to record. `change` still runs,
    // so that what it refuses is refused.
    if (impl.options.readOnly) return void(change(impl.records->state(scope, key)));
    RootLock lock = impl.lockRoot(RootLock::Mode::Exclusive);
    if (auto value = change(impl.records->state(scope, key)))
        impl.records->setState(scope, key, *value);
}

void RootStateAccess::erase(AppStore& apps, const std::string& scope, const std::string& key) {
    AppStore::Impl& impl = *apps.impl_;
    if (impl.options.readOnly) return;
    RootLock lock = impl.lockRoot(RootLock::Mode::Exclusive);
    impl.records->dropState(scope, key);
}

}  // namespace tsappinstall::store
