#pragma once

// Extraction that checks a package's author signature first and its
// content digests in the same pass that writes its files: on any fault the
// destination is left exactly as it was.

#include <filesystem>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"

namespace tsappinstall::integrity {

struct VerifiedExtraction {
    // The faults verifyPackage() would find; when there are any, nothing
    // was extracted. A signature fault is found before the first byte is
    // written, and then the digests are not checked.
    VerificationReport report;
    // After a success, what could not be cleaned up (see
    // opc::extraction::Outcome).
    std::vector<std::string> leftAside;
};

// Extracts the package at `path` into `folder` (absolute) as the facade's
// extractAppFile does: every part, names percent-decoded, existing files
// replaced unless `replace` says FailIfExists. Each part is hashed as it
// is inflated (on a second thread, or with `options.threads` above one by
// the thread that writes it); [Content_Types].xml, which is not
// extracted, is hashed on its own. `options.observer` is taken for the
// digests. Throws opc::Exception when the extraction itself fails (a
// damaged entry, an unwritable destination, a cancellation), the folder
// then unchanged too, and IntegrityError when a trust file cannot be read.
TSAPP_API VerifiedExtraction
extractVerified(const std::filesystem::path& path, const std::filesystem::path& folder,
                const VerificationPolicy& policy, opc::extraction::Options options = {},
                opc::qvservices::ReplaceMode replace = opc::qvservices::ReplaceMode::Replace);

// The same for a package already open, which stays open. Every item that
// is read twice (the content types and package relationships, parsed when
// the package was opened; the digest list and the signature, checked
// before extraction) is pinned, and every other part is hashed in the read
// that writes it: what lands in `folder` is what was verified, even if the
// package file is rewritten meanwhile.
TSAPP_API VerifiedExtraction
extractVerified(opc::model::Package& package, const std::filesystem::path& folder,
                const VerificationPolicy& policy, opc::extraction::Options options = {},
                opc::qvservices::ReplaceMode replace = opc::qvservices::ReplaceMode::Replace);

}  // namespace tsappinstall::integrity
