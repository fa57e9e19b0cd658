#pragma once

// The verified extraction's step that unpacking in the store shares.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "PackageIntegrity.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/platform/opc/Package.hpp"

namespace tsappinstall::integrity::detail {

// The verified extraction once `list` is read and `author` holds what
// checkAuthor() found, for a caller that needed both before: the digests
// are checked in the pass that writes, and the result's report starts as
// `author`.
VerifiedExtraction extractListed(opc::model::Package& package, const std::filesystem::path& folder,
                                 const DigestList& list, const VerificationReport& author,
                                 opc::extraction::Options options,
                                 opc::qvservices::ReplaceMode replace);

}  // namespace tsappinstall::integrity::detail
