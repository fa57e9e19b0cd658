#pragma once

// Checks a package's content digests and author signature.

#include <filesystem>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/integrity/Fault.hpp"
#include "tsappinstall/integrity/Signature.hpp"

namespace opc::model {
class Package;
}

namespace tsappinstall::integrity {

struct VerificationPolicy {
    std::vector<std::string> trustAnchors;  // PEM files
    // When false, a package without a signature passes on its digests; a
    // signature that is there is checked all the same.
    bool requireSignature = true;
    // When false, only the digests are checked and the signature part is
    // not read: what an extraction without a trust decision asks for.
    bool checkSignature = true;
};

struct VerificationReport {
    std::vector<Fault> faults;  // empty when the package is good
    bool isSigned = false;
    std::string signer;  // the signer's subject, when a signature could be read
    SignerCertificate certificate;
    bool ok() const { return faults.empty(); }
};

// Reads the package once, its parts decoded and hashed on `threads`
// threads (0: one per core). Every fault is reported, not only the first.
// Throws IntegrityError when a trust file cannot be read.
TSAPP_API VerificationReport verifyPackage(const std::filesystem::path& path,
                                           const VerificationPolicy& policy, unsigned threads = 1);

// The signature alone, over the digest list as the package holds it: who
// signed, and the faults of the signature and its signer under `policy`
// (with no trust anchors, UntrustedSigner for every signature that is
// otherwise sound); the parts are not read against the list. For a reader
// that checked the digests already and wants to show the signer.
TSAPP_API VerificationReport verifySignature(const std::filesystem::path& path,
                                             const VerificationPolicy& policy);

// The same for a package already open. The digest and signature parts
// (and, since the package was opened, its content types and relationships)
// stay pinned in memory: whatever reads them from `package` later gets the
// bytes verified here, even if the file has been rewritten meanwhile.
TSAPP_API VerificationReport verifyPackage(opc::model::Package& package,
                                           const VerificationPolicy& policy, unsigned threads = 1);

}  // namespace tsappinstall::integrity
