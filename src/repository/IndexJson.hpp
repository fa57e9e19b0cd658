#pragma once

// One index entry as JSON and back, for the index and for the indexer's
// cache, which keeps each package's entry between runs.

#include <nlohmann/json.hpp>

#include "tsappinstall/repository/Index.hpp"

namespace tsappinstall::repository {

using Json = nlohmann::ordered_json;

Json entryJson(const PackageEntry& entry);
// Throws Error (BadIndex) as parseIndex does.
PackageEntry readEntry(const Json& item);

}  // namespace tsappinstall::repository
