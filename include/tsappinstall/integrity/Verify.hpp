#pragma once

// Checks a package's content digests and author signature.

#include <filesystem>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/integrity/Fault.hpp"

namespace opc::model {
class Package;
}

namespace tsappinstall::integrity {

struct VerificationPolicy {
    std::vector<std::string> trustAnchors;  // PEM files
    // When false, a package without a signature passes on its digests; a
    // signature that is there is checked all the same.
    bool requireSignature = true;
};

struct VerificationReport {
    std::vector<Fault> faults;  // empty when the package is good
    bool isSigned = false;
    std::string signer;  // the signer's subject, when a signature could be read
    std::string signerFingerprint;  // as SignatureCheck::fingerprint
    bool ok() const { return faults.empty(); }
};

// Reads the package once. Every fault is reported, not only the first.
// Throws IntegrityError when a trust file cannot be read.
TSAPP_API VerificationReport verifyPackage(const std::filesystem::path& path,
                                           const VerificationPolicy& policy);

// The same for a package already open. The digest and signature parts
// (and, since the package was opened, its content types and relationships)
// stay pinned in memory: whatever reads them from `package` later gets the
// bytes verified here, even if the file has been rewritten meanwhile.
TSAPP_API VerificationReport verifyPackage(opc::model::Package& package,
                                           const VerificationPolicy& policy);

}  // namespace tsappinstall::integrity
