#include "Records.hpp"

#include <nlohmann/json.hpp>

namespace tsappinstall::store::detail {
namespace {

const std::string kColumns =
    "SELECT id, guid, name, version, folder, package, package_sha256, signer_subject, "
    "signer_fingerprint, installed_at, host_profile, forced, forced_reasons, origin, signer_key, "
    "rotated_from, (SELECT COALESCE(SUM(size), 0) FROM files WHERE version_id = versions.id)";
const std::string kVersionColumns = kColumns + " FROM versions ";

// A JSON list of strings as the records keep it; anything else is none.
std::vector<std::string> textList(const std::string& json) {
    std::vector<std::string> list;
    const auto parsed = nlohmann::json::parse(json, nullptr, false);
    if (parsed.is_array())
        for (const auto& item : parsed)
            if (item.is_string()) list.push_back(item.get<std::string>());
    return list;
}

std::string jsonOf(const std::vector<std::string>& list) {
    const nlohmann::json json = list;
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

VersionRow versionRow(const Statement& s) {
    VersionRow row;
    row.id = s.integer(0);
    InstalledVersion& v = row.version;
    v.guid = s.text(1);
    v.name = s.text(2);
    v.version = s.text(3);
    row.folder = s.text(4);
    v.package = s.text(5);
    v.packageSha256 = s.text(6);
    v.signerSubject = s.text(7);
    v.signerFingerprint = s.text(8);
    v.installedAt = s.integer(9);
    v.hostProfile = s.text(10);
    v.forced = s.integer(11) != 0;
    v.forcedReasons = textList(s.text(12));
    v.origin = s.text(13);
    v.signerKeyFingerprint = s.text(14);
    v.rotatedFrom = textList(s.text(15));
    v.size = static_cast<std::uint64_t>(s.integer(16));
    return row;
}

}  // namespace

const char* token(PendingAction action) {
    switch (action) {
        case PendingAction::Install:
            return "install";
        case PendingAction::Purge:
            return "purge";
        case PendingAction::Remove:
            return "remove";
        case PendingAction::Rollback:
            return "rollback";
    }
    return "install";
}

PendingAction pendingAction(const std::string& name, const std::string& database) {
    for (const PendingAction action : {PendingAction::Install, PendingAction::Purge,
                                       PendingAction::Remove, PendingAction::Rollback})
        if (name == token(action)) return action;
    throw StoreError(FaultKind::BadDatabase,
                     {"the database " + database + " holds an unfinished operation \"" + name +
                      "\" that this program does not know; it was left as it is"});
}

std::optional<std::int64_t> Records::currentId(const std::string& guid) const {
    Statement s(db_, "SELECT current FROM apps WHERE guid = ?");
    s.bind(1, guid);
    if (!s.step()) return std::nullopt;
    return s.integer(0);
}

std::optional<VersionRow> Records::version(std::int64_t id) const {
    Statement s(db_, (kVersionColumns + "WHERE id = ?").c_str());
    s.bind(1, id);
    if (!s.step()) return std::nullopt;
    return versionRow(s);
}

std::vector<VersionRow> Records::versionsOf(const std::string& guid) const {
    Statement s(db_, (kVersionColumns + "WHERE guid = ? AND retired = 0 ORDER BY id DESC").c_str());
    s.bind(1, guid);
    std::vector<VersionRow> rows;
    while (s.step()) rows.push_back(versionRow(s));
    return rows;
}

std::vector<std::pair<VersionRow, bool>> Records::allVersions() const {
    Statement s(db_, (kColumns + ", id = (SELECT current FROM apps a WHERE a.guid = versions.guid) "
                                 "FROM versions WHERE retired = 0 ORDER BY guid, id DESC")
                         .c_str());
    std::vector<std::pair<VersionRow, bool>> rows;
    while (s.step()) rows.emplace_back(versionRow(s), s.integer(17) != 0);
    return rows;
}

std::optional<VersionRow> Records::versionAt(const std::string& folder) const {
    Statement s(db_, (kVersionColumns + "WHERE folder = ?").c_str());
    s.bind(1, folder);
    if (!s.step()) return std::nullopt;
    return versionRow(s);
}

std::vector<std::string> Records::guidsNamed(const std::string& name) const {
    Statement s(db_,
                "SELECT a.guid FROM apps a JOIN versions v ON v.id = a.current WHERE v.name = ? "
                "ORDER BY a.guid");
    s.bind(1, name);
    std::vector<std::string> guids;
    while (s.step()) guids.push_back(s.text(0));
    return guids;
}

std::vector<std::pair<std::string, std::string>> Records::currentFolders() const {
    Statement s(db_, "SELECT a.guid, v.folder FROM apps a JOIN versions v ON v.id = a.current");
    std::vector<std::pair<std::string, std::string>> folders;
    while (s.step()) folders.emplace_back(s.text(0), s.text(1));
    return folders;
}

std::vector<InstalledFile> Records::files(std::int64_t version) const {
    Statement s(db_,
                "SELECT path, size, mode, sha256 FROM files WHERE version_id = ? ORDER BY path");
    s.bind(1, version);
    std::vector<InstalledFile> files;
    while (s.step())
        files.push_back({s.text(0), static_cast<std::uint64_t>(s.integer(1)),
                         static_cast<unsigned>(s.integer(2)), s.text(3)});
    return files;
}

FileStamps Records::stamps(std::int64_t version) const {
    Statement s(db_,
                "SELECT path, inode, modified_ns FROM files WHERE version_id = ? AND inode != 0");
    s.bind(1, version);
    FileStamps stamps;
    while (s.step())
        stamps.emplace(s.text(0),
                       FileStamp{static_cast<std::uint64_t>(s.integer(1)), s.integer(2)});
    return stamps;
}

std::vector<PendingRow> Records::pending() const {
    Statement s(db_, "SELECT id, action, guid, folder, purge FROM pending ORDER BY id");
    std::vector<PendingRow> rows;
    const std::string database = sqlite3_db_filename(db_.get(), "main");
    while (s.step())
        rows.push_back({s.integer(0), pendingAction(s.text(1), database), s.text(2), s.text(3),
                        s.integer(4) != 0});
    return rows;
}

std::int64_t Records::addVersion(const InstalledVersion& v, const std::string& folder,
                                 const std::vector<InstalledFile>& files,
                                 const FileStamps& stamps) {
    Statement s(db_,
                "INSERT INTO versions(guid, name, version, folder, package, package_sha256, "
                "signer_subject, signer_fingerprint, installed_at, host_profile, forced, "
                "forced_reasons, origin, signer_key, rotated_from) "
                "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    s.bind(1, v.guid).bind(2, v.name).bind(3, v.version).bind(4, folder).bind(5, v.package);
    s.bind(6, v.packageSha256).bind(7, v.signerSubject).bind(8, v.signerFingerprint);
    s.bind(9, v.installedAt).bind(10, v.hostProfile).bind(11, std::int64_t{v.forced});
    s.bind(12, jsonOf(v.forcedReasons)).bind(13, v.origin).bind(14, v.signerKeyFingerprint);
    s.bind(15, jsonOf(v.rotatedFrom));
    s.run();
    const std::int64_t id = sqlite3_last_insert_rowid(db_.get());
    Statement file(db_,
                   "INSERT INTO files(version_id, path, size, mode, sha256, inode, modified_ns) "
                   "VALUES(?, ?, ?, ?, ?, ?, ?)");
    for (const InstalledFile& f : files) {
        const auto stamp = stamps.find(f.path);
        const FileStamp none;
        const FileStamp& st = stamp == stamps.end() ? none : stamp->second;
        file.bind(1, id).bind(2, f.path).bind(3, static_cast<std::int64_t>(f.size));
        file.bind(4, static_cast<std::int64_t>(f.mode)).bind(5, f.sha256);
        file.bind(6, static_cast<std::int64_t>(st.inode)).bind(7, st.modifiedNs);
        file.run();
        file.reset();
    }
    return id;
}

void Records::setCurrent(const std::string& guid, std::int64_t version) {
    Statement s(db_, "INSERT OR REPLACE INTO apps(guid, current) VALUES(?, ?)");
    s.bind(1, guid).bind(2, version).run();
}

void Records::dropVersion(std::int64_t id) {
    Statement(db_, "DELETE FROM files WHERE version_id = ?").bind(1, id).run();
    Statement(db_, "DELETE FROM versions WHERE id = ?").bind(1, id).run();
}

void Records::dropRetired(const std::string& folder) {
    Statement(db_,
              "DELETE FROM files WHERE version_id IN "
              "(SELECT id FROM versions WHERE folder = ? AND retired = 1)")
        .bind(1, folder)
        .run();
    Statement(db_, "DELETE FROM versions WHERE folder = ? AND retired = 1").bind(1, folder).run();
}

void Records::retireVersion(std::int64_t id) {
    Statement(db_, "UPDATE versions SET retired = 1 WHERE id = ?").bind(1, id).run();
}

void Records::dropApp(const std::string& guid) {
    Statement(db_, "DELETE FROM files WHERE version_id IN (SELECT id FROM versions WHERE guid = ?)")
        .bind(1, guid)
        .run();
    Statement(db_, "DELETE FROM versions WHERE guid = ?").bind(1, guid).run();
    Statement(db_, "DELETE FROM apps WHERE guid = ?").bind(1, guid).run();
}

std::int64_t Records::addPending(PendingAction action, const std::string& guid,
                                 const std::string& folder, bool purge) {
    Statement s(db_, "INSERT INTO pending(action, guid, folder, purge) VALUES(?, ?, ?, ?)");
    s.bind(1, std::string(token(action)))
        .bind(2, guid)
        .bind(3, folder)
        .bind(4, std::int64_t{purge})
        .run();
    return sqlite3_last_insert_rowid(db_.get());
}

void Records::dropPending(std::int64_t id) {
    Statement(db_, "DELETE FROM pending WHERE id = ?").bind(1, id).run();
}

std::vector<KeptRow> Records::kept(const std::string& guid) const {
    Statement s(db_,
                "SELECT folder, path, guid, name, version FROM kept WHERE ? IN ('', guid) "
                "ORDER BY folder, path");
    s.bind(1, guid);
    std::vector<KeptRow> rows;
    while (s.step()) rows.push_back({s.text(0), s.text(1), s.text(2), s.text(3), s.text(4)});
    return rows;
}

std::vector<std::string> Records::keptGuidsNamed(const std::string& name) const {
    Statement s(db_, "SELECT DISTINCT guid FROM kept WHERE name = ? ORDER BY guid");
    s.bind(1, name);
    std::vector<std::string> guids;
    while (s.step()) guids.push_back(s.text(0));
    return guids;
}

void Records::addKept(const KeptRow& row) {
    Statement s(db_,
                "INSERT OR REPLACE INTO kept(folder, path, guid, name, version) "
                "VALUES(?, ?, ?, ?, ?)");
    s.bind(1, row.folder).bind(2, row.path).bind(3, row.guid).bind(4, row.name);
    s.bind(5, row.version).run();
}

void Records::dropKept(const std::string& folder, const std::string& path) {
    Statement(db_, "DELETE FROM kept WHERE folder = ? AND path = ?")
        .bind(1, folder)
        .bind(2, path)
        .run();
}

std::vector<HistoryEntry> Records::history(const std::string& guid) const {
    Statement s(db_,
                "SELECT id, at, action, uid, user, guid, name, old_version, new_version, "
                "package_sha256, signer, origin, forced, signer_changed FROM history "
                "WHERE ?1 = '' OR guid = ?1 ORDER BY id");
    s.bind(1, guid);
    std::vector<HistoryEntry> rows;
    while (s.step())
        rows.push_back({s.integer(0), s.integer(1), s.text(2), static_cast<long>(s.integer(3)),
                        s.text(4), s.text(5), s.text(6), s.text(7), s.text(8), s.text(9),
                        s.text(10), s.text(11), s.integer(12) != 0, s.integer(13) != 0});
    return rows;
}

std::vector<std::string> Records::historyGuidsNamed(const std::string& name) const {
    Statement s(db_,
                "SELECT guid FROM history AS h WHERE name = ? AND id = "
                "(SELECT MAX(id) FROM history WHERE guid = h.guid) ORDER BY guid");
    s.bind(1, name);
    std::vector<std::string> guids;
    while (s.step()) guids.push_back(s.text(0));
    return guids;
}

void Records::addHistory(const HistoryEntry& e) {
    Statement s(db_,
                "INSERT INTO history(at, action, uid, user, guid, name, old_version, "
                "new_version, package_sha256, signer, origin, forced, signer_changed) "
                "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    s.bind(1, e.at).bind(2, e.action).bind(3, static_cast<std::int64_t>(e.uid)).bind(4, e.user);
    s.bind(5, e.guid).bind(6, e.name).bind(7, e.oldVersion).bind(8, e.newVersion);
    s.bind(9, e.packageSha256).bind(10, e.signer).bind(11, e.origin);
    s.bind(12, std::int64_t{e.forced}).bind(13, std::int64_t{e.signerChanged}).run();
}

std::optional<std::string> Records::state(const std::string& scope, const std::string& key) const {
    Statement s(db_, "SELECT value FROM state WHERE scope = ? AND key = ?");
    s.bind(1, scope).bind(2, key);
    if (!s.step()) return std::nullopt;
    return s.text(0);
}

void Records::setState(const std::string& scope, const std::string& key, const std::string& value) {
    Statement s(db_, "INSERT OR REPLACE INTO state(scope, key, value) VALUES(?, ?, ?)");
    s.bind(1, scope).bind(2, key).bind(3, value).run();
}

void Records::dropState(const std::string& scope, const std::string& key) {
    Statement(db_, "DELETE FROM state WHERE scope = ? AND key = ?")
        .bind(1, scope)
        .bind(2, key)
        .run();
}

}  // namespace tsappinstall::store::detail
