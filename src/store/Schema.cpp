#include "Schema.hpp"

#include <iterator>

#include "tsappinstall/store/AppStore.hpp"

namespace tsappinstall::store::detail {
namespace {

// migrations[i] takes the schema from version i to i + 1. Only ever append.
const char* const migrations[] = {
    R"sql(
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
    // Where each version came from, written in its install's transaction.
    // Before, the repository layer kept it apart, by GUID, in the state.
    R"sql(
ALTER TABLE versions ADD COLUMN origin TEXT NOT NULL DEFAULT '';
UPDATE versions SET origin = COALESCE(
  (SELECT value FROM state WHERE scope = 'app-repository' AND key = versions.guid), '');
DELETE FROM state WHERE scope = 'app-repository';
)sql",
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

void migrate(const Database& db) {
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
    for (int at = now; at < kSchemaVersion; ++at) db.exec(migrations[at]);
    db.exec(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
    transaction.commit();
}

}  // namespace tsappinstall::store::detail
