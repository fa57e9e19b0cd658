#pragma once

#include <functional>
#include <string>

#include "Sqlite.hpp"

namespace tsappinstall::store::detail {

// The schema this code reads and writes (PRAGMA user_version).
inline constexpr int kSchemaVersion = 6;

// The signature part a version's folder (relative to ROOT/apps) holds, as
// it was unpacked; empty when there is none that can be read.
using StoredSignature = std::function<std::string(const std::string& folder)>;

// Brings the database up to kSchemaVersion in one transaction, in WAL
// mode; records written before the signer's key was recorded get it from
// `storedSignature`. Throws StoreError (BadDatabase) for a database
// written by a newer schema, which is never touched.
void migrate(const Database& db, const StoredSignature& storedSignature);

// Whether the database is at kSchemaVersion already, so that migrate()
// has nothing to write.
bool isCurrent(const Database& db);

// For a reader that may not write: throws StoreError unless the database
// is at kSchemaVersion (BadDatabase when it is newer), never migrating.
void checkReadable(const Database& db);

}  // namespace tsappinstall::store::detail
