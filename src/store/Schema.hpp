#pragma once

#include "Sqlite.hpp"

namespace tsappinstall::store::detail {

// The schema this code reads and writes (PRAGMA user_version).
inline constexpr int kSchemaVersion = 2;

// Brings the database up to kSchemaVersion in one transaction, in WAL
// mode. Throws StoreError (BadDatabase) for a database written by a newer
// schema, which is never touched.
void migrate(const Database& db);

// Whether the database is at kSchemaVersion already, so that migrate()
// has nothing to write.
bool isCurrent(const Database& db);

}  // namespace tsappinstall::store::detail
