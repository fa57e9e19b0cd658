#pragma once

// What this layer asks of an X.509 certificate: how people recognise it,
// and whether it may sign packages and indexes. Signing (pack's warnings)
// and verifying (packages, indexes, key rotation proofs) apply the same
// rule, so that a certificate pack accepts without a word is never refused
// by verify, nor the other way round.

#include <openssl/x509.h>

#include <string>
#include <vector>

#include "tsappinstall/integrity/Signature.hpp"

namespace tsappinstall::integrity::detail {

// Its fingerprints and validity, as SignerCertificate holds them.
SignerCertificate describeCertificate(X509* certificate);

// Its subject, RFC 2253; empty when it cannot be printed.
std::string subjectOf(X509* certificate);
// A name as RFC 2253 writes it; empty when it cannot be printed.
std::string nameText(const X509_NAME* name);

// Why `certificate` may not sign, one line each; empty when it may. A
// signer's uses, when it names any, include code signing (or any use),
// its key usage, when given, digital signatures, and its key is RSA of
// 2048 bits or more, ECDSA on P-256 or P-384, or Ed25519.
std::vector<std::string> signerProblems(X509* certificate);

// Why a certificate above the signer's may not vouch for it: its uses are
// restricted to others than code signing. Empty when it may.
std::string issuerProblem(X509* certificate);

}  // namespace tsappinstall::integrity::detail
