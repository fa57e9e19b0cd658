#include "Schema.hpp"

#include <iterator>
#include <tuple>
#include <vector>

#include "integrity/PackageIntegrity.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsappinstall::store::detail {
namespace {

// The key of each version whose signer was recorded by its certificate
// alone, from the signature unpacked with it: taken only when that
// signature's certificate is the one on record, so that a file changed
// since can make the key unknown (empty), never another one.
void addSignerKeys(const Database& db, const StoredSignature& storedSignature) {
    std::vector<std::tuple<std::int64_t, std::string, std::string>> recorded;
    Statement rows(db,
                   "SELECT id, folder, signer_fingerprint FROM versions "
                   "WHERE signer_fingerprint != ''");
    while (rows.step()) recorded.emplace_back(rows.integer(0), rows.text(1), rows.text(2));
    Statement update(db, "UPDATE versions SET signer_key = ? WHERE id = ?");
    for (const auto& [id, folder, fingerprint] : recorded) {
        const integrity::SignerCertificate found =
            integrity::signerCertificateOf(storedSignature(folder));
        if (found.fingerprint != fingerprint) continue;
        update.bind(1, found.keyFingerprint).bind(2, id).run();
        update.reset();
    }
}

struct Migration {
    const char* sql;
    void (*after)(const Database&, const StoredSignature&);
};

// migrations[i] takes the schema from version i to i + 1. Only ever append.
const Migration migrations[] = {
    {R"sql(
CREATE TABLE apps(
  guid TEXT PRIMARY KEY,
  current INTEGER NOT NULL
) WITHOUT ROWID;
CREATE TABLE versions(
  id INTEGER PRIMARY KEY,
  guid TEXT NOT NULL,
  name TEXT NOT NULL,
  version TEXT NOT NULL,
  folder TEXT NOT NULL,
  package TEXT NOT NULL,
  package_sha256 TEXT NOT NULL,
  signer_subject TEXT NOT NULL,
  signer_fingerprint TEXT NOT NULL,
  installed_at INTEGER NOT NULL,
  host_profile TEXT NOT NULL,
  forced INTEGER NOT NULL,
  forced_reasons TEXT NOT NULL
);
CREATE INDEX versions_by_guid ON versions(guid);
CREATE TABLE files(
  version_id INTEGER NOT NULL,
  path TEXT NOT NULL,
  size INTEGER NOT NULL,
  mode INTEGER NOT NULL,
  sha256 TEXT NOT NULL,
  PRIMARY KEY(version_id, path)
) WITHOUT ROWID;
CREATE TABLE pending(
  id INTEGER PRIMARY KEY,
  action TEXT NOT NULL,
  guid TEXT NOT NULL,
  folder TEXT NOT NULL,
  purge INTEGER NOT NULL
);
CREATE TABLE state(
  scope TEXT NOT NULL,
  key TEXT NOT NULL,
  value TEXT NOT NULL,
  PRIMARY KEY(scope, key)
) WITHOUT ROWID;
)sql",
     nullptr},
    // Where each version came from, written in its install's transaction.
    // Before, the repository layer kept it apart, by GUID, in the state.
    {R"sql(
ALTER TABLE versions ADD COLUMN origin TEXT NOT NULL DEFAULT '';
UPDATE versions SET origin = COALESCE(
  (SELECT value FROM state WHERE scope = 'app-repository' AND key = versions.guid), '');
DELETE FROM state WHERE scope = 'app-repository';
)sql",
     nullptr},
    // The signer's key beside its certificate, so that a renewed
    // certificate of the same key is the same signer, and the keys whose
    // rotation proofs handed over to it (a JSON list).
    {R"sql(
ALTER TABLE versions ADD COLUMN signer_key TEXT NOT NULL DEFAULT '';
ALTER TABLE versions ADD COLUMN rotated_from TEXT NOT NULL DEFAULT '[]';
)sql",
     addSignerKeys},
    // Files changed or added since their version was installed, kept when
    // the version was removed or retired, stay on record until purged. A
    // retired version's records stay (marked) until its folder is settled,
    // so that the settling knows which of its files are the user's. The
    // old versions that earlier programs marked for deletion had already
    // lost their records: their folders still go whole.
    {R"sql(
CREATE TABLE kept(
  folder TEXT NOT NULL,
  path TEXT NOT NULL,
  guid TEXT NOT NULL,
  name TEXT NOT NULL,
  version TEXT NOT NULL,
  PRIMARY KEY(folder, path)
) WITHOUT ROWID;
CREATE INDEX kept_by_guid ON kept(guid);
ALTER TABLE versions ADD COLUMN retired INTEGER NOT NULL DEFAULT 0;
UPDATE pending SET purge = 1 WHERE action = 'purge';
)sql",
     nullptr},
    // Every change from here on, each in its own transaction. What came
    // before was never recorded and is not made up.
    {R"sql(
CREATE TABLE history(
  id INTEGER PRIMARY KEY,
  at INTEGER NOT NULL,
  action TEXT NOT NULL,
  uid INTEGER NOT NULL,
  user TEXT NOT NULL,
  guid TEXT NOT NULL,
  name TEXT NOT NULL,
  old_version TEXT NOT NULL,
  new_version TEXT NOT NULL,
  package_sha256 TEXT NOT NULL,
  signer TEXT NOT NULL,
  origin TEXT NOT NULL,
  forced INTEGER NOT NULL,
  signer_changed INTEGER NOT NULL
);
CREATE INDEX history_by_guid ON history(guid);
)sql",
     nullptr},
    // Each file's inode and modification time as it was recorded (Records.hpp,
    // FileStamp); files recorded before have none and are read in full.
    {R"sql(
ALTER TABLE files ADD COLUMN inode INTEGER NOT NULL DEFAULT 0;
ALTER TABLE files ADD COLUMN modified_ns INTEGER NOT NULL DEFAULT 0;
)sql",
     nullptr},
};

constexpr int kKnown = static_cast<int>(std::size(migrations));
static_assert(kKnown == kSchemaVersion);

int userVersion(const Database& db) {
    Statement read(db, "PRAGMA user_version");
    return read.step() ? static_cast<int>(read.integer(0)) : 0;
}

void refuseNewer(const Database& db, int found) {
    if (found <= kSchemaVersion) return;
    throw StoreError(
        FaultKind::BadDatabase,
        {"the database " + std::string(sqlite3_db_filename(db.get(), "main")) +
         " has schema version " + std::to_string(found) + ", newer than this program knows (" +
         std::to_string(kSchemaVersion) + "); it was left as it is"});
}

}  // namespace

bool isCurrent(const Database& db) {
    return userVersion(db) == kSchemaVersion;
}

void checkReadable(const Database& db) {
    const int found = userVersion(db);
    refuseNewer(db, found);
    if (found == kSchemaVersion) return;
    throw StoreError(FaultKind::StoreFailed,
                     {"the database " + std::string(sqlite3_db_filename(db.get(), "main")) +
                      " has schema version " + std::to_string(found) +
                      ", older than this program reads (" + std::to_string(kSchemaVersion) +
                      "); a command that changes the root brings it up to date"});
}

void migrate(const Database& db, const StoredSignature& storedSignature) {
    // Reading the version first finds a file that is no database at all
    // before anything is written to it.
    const int found = userVersion(db);
    refuseNewer(db, found);
    if (found == kSchemaVersion) return;
    Statement mode(db, "PRAGMA journal_mode=WAL");
    mode.run();
    Transaction transaction(db);
    const int now = userVersion(db);  // another process may have migrated meanwhile
    refuseNewer(db, now);
    for (int at = now; at < kSchemaVersion; ++at) {
        db.exec(migrations[at].sql);
        if (migrations[at].after) migrations[at].after(db, storedSignature);
    }
    db.exec(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
    transaction.commit();
}

}  // namespace tsappinstall::store::detail
