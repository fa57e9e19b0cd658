#include "tsappinstall/store/AppStore.hpp"

#include <fcntl.h>
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
        const std::string path =
            opc::detail::joinSegments(opc::detail::fileSegmentsFor(name.ascii(), true));
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
        : root(rootPath), options(opts), selector(selected), ops(opc::detail::fileOpsOf(selector)) {
        std::error_code error;
        std::filesystem::create_directories(root, error);
        rootFd = OpsFd(ops, ops.openat(AT_FDCWD, root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!rootFd) failed(root.string() + " cannot be opened", errno);
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

    // A root's database is made, or brought up to this schema, by one
    // writer at a time: two that found no root would otherwise both make
    // it, and one would meet the other's database half made ("database is
    // locked"). A root that is ready takes no lock.
    void makeDatabase() {
        std::optional<RootLock> making;
        if (!AppStore::exists(root))
            making.emplace(ops, rootFd.get(), RootLock::Mode::Exclusive, root.string());
        makeFolder(ops, rootFd.get(), "apps", shown("apps"));
        db = std::make_unique<Database>((root / "store.db").string(), kBusyMillis);
        if (!making && !isCurrent(*db))
            making.emplace(ops, rootFd.get(), RootLock::Mode::Exclusive, root.string());
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
    std::vector<std::string> settle(bool everyLink = false) {
        const std::vector<PendingRow> rows = records->pending();
        std::vector<std::string> done;
        std::set<std::string> relinked, removed;
        for (const PendingRow& row : rows) {
            replay(row, done);
            (row.action == PendingAction::Remove ? removed : relinked).insert(row.guid);
        }
        if (everyLink)
            for (const auto& entry : records->currentFolders()) relinked.insert(entry.first);
        for (const std::string& guid : removed) relinked.erase(guid);
        repointLinks(relinked, done);
        forget(rows);
        return done;
    }

    void replay(const PendingRow& row, std::vector<std::string>& done) {
        switch (row.action) {
            case PendingAction::Install:
                discardFolder(row.folder);
                done.push_back("removed the unfinished install " + shown("apps/" + row.folder));
                return;
            case PendingAction::Purge:
                discardFolder(row.folder);
                done.push_back("removed the old version " + shown("apps/" + row.folder));
                return;
            case PendingAction::Remove:
                removeAppFiles(row);
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

    // The replayed rows, and the records of the apps they removed.
    void forget(const std::vector<PendingRow>& rows) {
        if (rows.empty()) return;
        Transaction transaction(*db);
        for (const PendingRow& row : rows) {
            if (row.action == PendingAction::Remove) dropAppRecords(row.guid);
            records->dropPending(row.id);
        }
        transaction.commit();
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
        // Staging folders of an extraction that died beside it go too.
        opc::extraction::recover(folderOf(relative), selector);
        const OpsFd apps = appsFolder();
        OpsFd app = appFolderIfThere(apps, guid);
        if (!app) return;
        removeTree(ops, app.get(), relative.substr(slash + 1), shown("apps/" + relative));
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
    void settleAfterSuccess(std::vector<std::string>& leftOver) {
        try {
            settle();
        } catch (const std::exception& e) {
            leftOver.push_back(e.what());
        }
    }

    // --- install ------------------------------------------------------------

    InstallResult install(const std::filesystem::path& package, const HostProfile& host,
                          const InstallOptions& installOptions) {
        // The package is no part of the root. A caller that verified its
        // digest as it wrote the file (a download) spares a second read.
        std::optional<PackageHash> packageSha;
        if (installOptions.packageSha256.empty()) packageSha.emplace(package);
        RootLock lock(ops, rootFd.get(), RootLock::Mode::Exclusive, root.string());
        settle();
        db->exec(installOptions.sync ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
        AppManifestSerializer serializer;
        std::optional<opc::model::OpenedPackage> opened;
        std::string manifestSha256;
        const inspect::Report report =
            inspect::detail::checkPackage(package, serializer, false, 1, opened, &manifestSha256);
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
        version.package = package.string();
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
            makeFolder(ops, appsFolder().get(), version.guid, shown("apps/" + version.guid));
            unpacked = unpack(opened->package(), folderOf(relative), installOptions, selector);
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
            commitInstall(version, relative, unpacked.files, pendingId);
        } catch (...) {
            settleAfterFailure();
            throw;
        }
        result.installed = publicVersion({0, version, relative});
        result.leftOver = std::move(unpacked.leftAside);
        settleAfterSuccess(result.leftOver);
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
    void commitInstall(const InstalledVersion& version, const std::string& relative,
                       const std::vector<InstalledFile>& files, std::int64_t pendingId) {
        Transaction transaction(*db);
        const std::int64_t id = records->addVersion(version, relative, files);
        records->setCurrent(version.guid, id);
        records->dropPending(pendingId);
        unsigned kept = 0;
        for (const VersionRow& row : records->versionsOf(version.guid)) {  // newest first
            if (row.id == id || kept++ < options.keepPrevious) continue;
            records->dropVersion(row.id);
            records->addPending(PendingAction::Purge, version.guid, row.folder, false);
        }
        const OpsFd apps = appsFolder();
        const OpsFd app = openFolder(ops, apps.get(), version.guid, shown("apps/" + version.guid));
        switchLink(ops, app.get(), "current", leafOf(relative),
                   shown("apps/" + version.guid + "/current"));
        transaction.commit();
    }

    // --- remove -------------------------------------------------------------

    RemoveResult remove(const std::string& app, bool purge) {
        RootLock lock(ops, rootFd.get(), RootLock::Mode::Exclusive, root.string());
        settle();
        const std::string guid = resolve(app);
        const VersionRow current = *records->version(*records->currentId(guid));
        const PendingRow row{
            records->addPending(PendingAction::Remove, guid, current.folder, purge),
            PendingAction::Remove, guid, current.folder, purge};
        RemoveResult result;
        result.removed = publicVersion(current);
        result.kept = removeAppFiles(row);
        forget({row});
        return result;
    }

    // Deletes what the records say is the app's, keeping (unless purging)
    // what changed or was added; the records stay, for forget() to drop.
    // Run again from the top after a crash, it does the same: what is gone
    // stays gone and what changed is kept.
    std::vector<std::string> removeAppFiles(const PendingRow& row) {
        std::vector<std::string> kept;
        const OpsFd apps = appsFolder();
        OpsFd app = appFolderIfThere(apps, row.guid);
        if (app) {
            if (ops.unlinkat(app.get(), "current", 0) != 0 && errno != ENOENT)
                failed(shown("apps/" + row.guid + "/current") + " cannot be removed", errno);
            for (const VersionRow& version : records->versionsOf(row.guid))
                if (version.folder != row.folder) discardFolder(version.folder);
            if (row.purge)
                discardFolder(row.folder);
            else
                kept = removeRecordedFiles(app.get(), row.folder);
            app.reset();
            removeEmptyFolder(ops, apps.get(), row.guid, shown("apps"));  // when nothing is kept
        }
        return kept;
    }

    void dropAppRecords(const std::string& guid) {
        for (const VersionRow& version : records->versionsOf(guid))
            records->dropVersion(version.id);
        records->dropApp(guid);
    }

    std::vector<std::string> removeRecordedFiles(int app, const std::string& relative) {
        std::vector<std::string> kept;
        const std::string leaf = leafOf(relative);
        OpsFd folder(
            ops, ops.openat(app, leaf.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder) {
            if (errno == ENOENT) return kept;
            failed(shown("apps/" + relative) + " cannot be opened", errno);
        }
        const auto id = records->versionIdOf(relative);
        const auto files = id ? records->files(*id) : std::vector<InstalledFile>();
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

    // --- rollback -----------------------------------------------------------

    InstalledVersion rollback(const std::string& app) {
        RootLock lock(ops, rootFd.get(), RootLock::Mode::Exclusive, root.string());
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
        // Marks the app for settling should the link switch but the
        // records not commit.
        const std::int64_t pendingId =
            records->addPending(PendingAction::Rollback, guid, current->folder, false);
        try {
            Transaction transaction(*db);
            records->dropPending(pendingId);
            records->setCurrent(guid, previous->id);
            records->dropVersion(current->id);
            records->addPending(PendingAction::Purge, guid, current->folder, false);
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
        settleAfterSuccess(ignored);
        return publicVersion(*previous);
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
        const std::string shownFolder = shown("apps/" + row.folder);
        const auto files = records->files(row.id);
        const OpsFd apps = appsFolder();
        OpsFd folder(ops, ops.openBeneath(apps.get(), row.folder.c_str(),
                                          O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!folder) {
            if (errno != ENOENT) failed(shownFolder + " cannot be opened", errno);
            for (const InstalledFile& file : files)
                report.findings.push_back({AuditFinding::Kind::Missing, file.path, ""});
            return report;
        }
        std::set<std::string> recorded;
        for (const InstalledFile& file : files) {
            recorded.insert(file.path);
            auditFile(folder.get(), file, shownFolder, report.findings);
        }
        walk(ops, folder.get(), shownFolder, [&](const std::string& path, bool isFolder) {
            if (!isFolder && !recorded.count(path))
                report.findings.push_back({AuditFinding::Kind::Extra, path, ""});
        });
        std::stable_sort(
            report.findings.begin(), report.findings.end(),
            [](const AuditFinding& a, const AuditFinding& b) { return a.path < b.path; });
        auditLink(apps, row, report.findings);
        return report;
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
                                octal(found.mode) + ", recorded " + octal(file.mode)});
    }

    static std::string octal(unsigned mode) {
        char text[8];
        std::snprintf(text, sizeof text, "%04o", mode);
        return text;
    }

    // Audits read with the root's lock shared, so no writer is halfway;
    // one a crash left halfway is settled first.
    template <class Read>
    auto auditing(Read read) {
        if (!records->pending().empty()) {
            RootLock lock(ops, rootFd.get(), RootLock::Mode::Exclusive, root.string());
            settle();
        }
        RootLock lock(ops, rootFd.get(), RootLock::Mode::Shared, root.string());
        return read();
    }

    std::filesystem::path root;
    Options options;
    opc::FileSystemOpsSelector selector;
    const FileOps& ops;
    OpsFd rootFd;
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
    return ::lstat((root / "store.db").c_str(), &info) == 0 && S_ISREG(info.st_mode);
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
        }
        else
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
        if (leaf == "current")
            id = impl_->records->currentId(guid);
        else
            id = impl_->records->versionIdOf(guid + "/" + leaf);
        if (!id) continue;
        for (InstalledFile& file : impl_->records->files(*id))
            if (file.path == rest.generic_string())
                return FileOwner{impl_->publicVersion(*impl_->records->version(*id)),
                                 std::move(file)};
    }
    return std::nullopt;
}

RemoveResult AppStore::remove(const std::string& app, bool purge) {
    return impl_->remove(app, purge);
}

bool AppStore::hold(const std::string& app, bool held) {
    Impl& impl = *impl_;
    RootLock lock(impl.ops, impl.rootFd.get(), RootLock::Mode::Exclusive, impl.root.string());
    const std::string guid = impl.resolve(app);
    const bool was = impl.isHeld(guid);
    if (held && !was) impl.records->setState(HELD_SCOPE, guid, "held");
    if (!held && was) impl.records->dropState(HELD_SCOPE, guid);
    return was;
}

InstalledVersion AppStore::rollback(const std::string& app) {
    return impl_->rollback(app);
}

AuditReport AppStore::audit(const std::string& app) const {
    return impl_->auditing([&] { return impl_->audit(impl_->resolve(app)); });
}

std::vector<AuditReport> AppStore::auditAll() const {
    return impl_->auditing([&] {
        std::vector<AuditReport> reports;
        for (const InstalledApp& app : list()) reports.push_back(impl_->audit(app.current.guid));
        return reports;
    });
}

std::vector<std::string> AppStore::recover() {
    RootLock lock(impl_->ops, impl_->rootFd.get(), RootLock::Mode::Exclusive, impl_->root.string());
    std::vector<std::string> done = std::exchange(impl_->settledOnOpen, {});
    for (auto& line : impl_->settle(true)) done.push_back(std::move(line));
    return done;
}

std::filesystem::path AppStore::downloadFolder() const {
    const std::filesystem::path folder = impl_->root / ".downloads";
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        failed(folder.string() + " cannot be made", errno);
    // One that exists must be this user's folder, not a link elsewhere.
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid())
        refuse(FaultKind::StoreFailed,
               folder.string() + ": not a folder of this user's; remove it");
    return folder;
}

std::optional<std::string> RootStateAccess::read(const AppStore& apps, const std::string& scope,
                                                 const std::string& key) {
    return apps.impl_->records->state(scope, key);
}

void RootStateAccess::update(AppStore& apps, const std::string& scope, const std::string& key,
                             const Change& change) {
    AppStore::Impl& impl = *apps.impl_;
    RootLock lock(impl.ops, impl.rootFd.get(), RootLock::Mode::Exclusive, impl.root.string());
    if (auto value = change(impl.records->state(scope, key)))
        impl.records->setState(scope, key, *value);
}

void RootStateAccess::erase(AppStore& apps, const std::string& scope, const std::string& key) {
    AppStore::Impl& impl = *apps.impl_;
    RootLock lock(impl.ops, impl.rootFd.get(), RootLock::Mode::Exclusive, impl.root.string());
    impl.records->dropState(scope, key);
}

}  // namespace tsappinstall::store
