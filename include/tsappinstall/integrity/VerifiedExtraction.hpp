#pragma once

// Unpacking a package under a policy: its author signature checked first
// and its content digests in the same pass that writes its files, so that
// on any fault the destination is left exactly as it was. One call for
// every caller: the tool's extract, the store and so the installer.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/integrity/Digests.hpp"
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
    // The digest list the parts were checked against; none when the
    // digests were not checked.
    std::optional<DigestList> digests;
};

// Whether an unpacking checks the package's content digests.
enum class DigestPolicy {
    Required,     // a package without a digest list is refused (NoDigestList)
    WhenPresent,  // checked when the package has a digest list; else unpacked as it is
    Off,          // not checked: the package is unpacked as it is
};

// Unpacks `package` (which stays open) into `folder` (absolute) as the
// facade's extractAppFile does: every part, names percent-decoded,
// existing files replaced unless `replace` says FailIfExists. With
// `signature.checkSignature` (and a digest list, which the signature
// covers) the signature is checked as `signature` asks before the first
// byte is written; WhenPresent turns to Required when a signature is
// required. While digests are checked, the check takes the place of
// `options.observer`; with none checked, the observer sees every part.
// Every item that is read twice (the content types and package
// relationships, parsed when the package was opened; the digest list and
// the signature, checked before unpacking) is pinned, and every other part
// is hashed in the read that writes it: what lands in `folder` is what was
// verified, even if the package file is rewritten meanwhile. Throws
// opc::Exception when the extraction itself fails (a damaged entry, an
// unwritable destination, a cancellation), the folder then unchanged too,
// and IntegrityError when a trust file cannot be read.
TSAPP_API VerifiedExtraction
unpack(opc::model::Package& package, const std::filesystem::path& folder, DigestPolicy digests,
       const VerificationPolicy& signature, opc::extraction::Options options = {},
       opc::qvservices::ReplaceMode replace = opc::qvservices::ReplaceMode::Replace);

// unpack() with the digests Required, for the package file at `path`.
// Each part is hashed as it is inflated (on a second thread, or with
// `options.threads` above one by the thread that writes it);
// [Content_Types].xml, which is not extracted, is hashed on its own.
TSAPP_API VerifiedExtraction
extractVerified(const std::filesystem::path& path, const std::filesystem::path& folder,
                const VerificationPolicy& policy, opc::extraction::Options options = {},
                opc::qvservices::ReplaceMode replace = opc::qvservices::ReplaceMode::Replace);

// The same for a package already open, which stays open.
TSAPP_API VerifiedExtraction
extractVerified(opc::model::Package& package, const std::filesystem::path& folder,
                const VerificationPolicy& policy, opc::extraction::Options options = {},
                opc::qvservices::ReplaceMode replace = opc::qvservices::ReplaceMode::Replace);

}  // namespace tsappinstall::integrity
