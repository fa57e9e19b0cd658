#pragma once

// The signature check's steps that key rotation proofs share with package
// and index signatures.

#include <string>
#include <vector>

#include "OpenSsl.hpp"
#include "tsappinstall/integrity/Signature.hpp"

namespace tsappinstall::integrity::detail {

// The certificates and revocation lists of the PEM files. Throws
// IntegrityError (CannotRead) naming a file that cannot be loaded.
StorePtr trustStore(const std::vector<std::string>& anchors);

// Whether the signer's chain must be valid now, or only have been valid
// at some time: a key rotation proof is read long after its signer's
// certificate has expired, which is when it is needed.
enum class ChainTime { Now, Any };

// checkSignature() against a store already loaded.
SignatureCheck checkSigned(const std::string& signature, const std::string& content,
                           X509_STORE* anchors, ChainTime time);

}  // namespace tsappinstall::integrity::detail
