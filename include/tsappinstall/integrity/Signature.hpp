#pragma once

// Author signatures: a detached CMS (PKCS#7) signed-data structure, DER,
// over the bytes of the digest part, carrying the signer's certificate and
// the certificates up to its root, and nothing else.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/integrity/Fault.hpp"

namespace tsappinstall::integrity {

class TSAPP_API Signer {
  public:
    // PEM files: the private key (RSA, EC or Ed25519) and the signer's
    // certificate, optionally followed by intermediate certificates; those
    // on the way from the signer's up to a root go into every signature,
    // any other is left out. Throws IntegrityError when either cannot be
    // read or the key does not belong to the certificate.
    Signer(const std::string& keyFile, const std::string& certificateFile);
    ~Signer();
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    std::vector<unsigned char> sign(const std::string& content) const;

  private:
    struct Keys;
    std::unique_ptr<Keys> keys_;
};

struct SignatureCheck {
    std::optional<Fault> fault;
    std::string signer;  // the signer's subject (RFC 2253), when it could be read
    // SHA-256 of the signer's certificate (DER), 64 lower-case hex digits,
    // when it could be read: a subject anyone may copy, this no one can.
    std::string fingerprint;
};

// Checks `signature` over `content` and the signer's chain against the
// certificates in the PEM files `trustAnchors` only; the system's store is
// never consulted. A MalformedSignature fault refuses a signature that
// carries anything its signer did not sign or does not need: content of
// its own, unsigned attributes, revocation information, certificates that
// are not X.509 ones or that the chain to the anchor does not use (this
// last found only once the chain is trusted). Throws IntegrityError when a
// trust file cannot be read.
TSAPP_API SignatureCheck checkSignature(const std::string& signature, const std::string& content,
                                        const std::vector<std::string>& trustAnchors);

}  // namespace tsappinstall::integrity
