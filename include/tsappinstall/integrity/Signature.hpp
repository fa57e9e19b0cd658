#pragma once

// Author signatures: a detached CMS (PKCS#7) signed-data structure, DER,
// over the bytes of the digest part, carrying the signer's certificate and
// the certificates up to its root, and nothing else.

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/integrity/Fault.hpp"

namespace tsappinstall::integrity {

// A signer's certificate, for people and records to recognise; empty
// strings when no certificate could be read.
struct SignerCertificate {
    std::string fingerprint;  // SHA-256 of its DER form, 64 lower-case hex digits
    // SHA-256 of its SubjectPublicKeyInfo (DER), the same hex: the key,
    // which stays when the certificate is renewed.
    std::string keyFingerprint;
    std::string notBefore;  // UTC, "2026-01-31T12:00:00Z"
    std::string notAfter;
};

class TSAPP_API Signer {
  public:
    // PEM files: the private key (RSA, EC or Ed25519) and the signer's
    // certificate, optionally followed by intermediate certificates; those
    // on the way from the signer's up to a root go into every signature,
    // any other is left out. Throws IntegrityError when either cannot be
    // read or the key does not belong to the certificate.
    Signer(const std::string& keyFile, const std::string& certificateFile);
    // The same with the key's passphrase given, so that no terminal is
    // asked for it (a key without one ignores it).
    Signer(const std::string& keyFile, const std::string& certificateFile,
           const std::string& passphrase);
    ~Signer();
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    std::vector<unsigned char> sign(const std::string& content) const;

    // What makes the signer's certificate unfit to sign at `now`, one line
    // each: not valid yet, expired, or failing the rule verification
    // applies (see checkSignature) — its uses restricted to others than
    // code signing (one that names no uses is not restricted), a key usage
    // without digital signatures, a key that is not RSA of 2048 bits or
    // more, ECDSA on P-256 or P-384, or Ed25519 — or a certificate of its
    // chain restricted to other uses. Empty when none.
    std::vector<std::string> certificateProblems(std::time_t now) const;

    // The signer's certificate, described.
    SignerCertificate certificate() const;

  private:
    void load(const std::string& keyFile, const std::string& certificateFile,
              const std::string* passphrase);
    struct Keys;
    std::unique_ptr<Keys> keys_;
};

// The first certificate in the PEM file `file`, described. Throws
// IntegrityError (CannotRead) when there is none.
TSAPP_API SignerCertificate readCertificate(const std::string& file);

struct SignatureCheck {
    std::optional<Fault> fault;
    std::string signer;  // the signer's subject (RFC 2253), when it could be read
    SignerCertificate certificate;
};

// Checks `signature` over `content` and the signer's chain against the
// certificates in the PEM files `trustAnchors` only; the system's store is
// never consulted. Revocation lists in those files (PEM, beside the
// certificates) are honoured for the certificates their issuers issued: a
// revoked one is "the signer is not trusted: certificate revoked"; an
// issuer with no list there is not asked about revocation. The signer's
// certificate must be fit to sign (see Signer::certificateProblems; an
// UntrustedSigner fault "the signer is not trusted: <reason>" when not)
// and so must the chain above it. A MalformedSignature fault refuses a signature that
// carries anything its signer did not sign or does not need: content of
// its own, unsigned attributes, revocation information, certificates that
// are not X.509 ones or that the chain to the anchor does not use (this
// last found only once the chain is trusted). Throws IntegrityError when a
// trust file cannot be read.
TSAPP_API SignatureCheck checkSignature(const std::string& signature, const std::string& content,
                                        const std::vector<std::string>& trustAnchors);

// Loads the PEM files as checkSignature would, so that a caller can refuse
// an unusable trust file before it opens a package, whatever the package
// holds. Throws IntegrityError whose fault names the file as its item and
// the cause as its detail ("cannot load trust anchors: ...").
TSAPP_API void checkTrustAnchors(const std::vector<std::string>& trustAnchors);

// A certificate or revocation list of a trust file, for people to
// recognise and for a caller to keep a copy of what it was given.
struct AnchorCertificate {
    std::string subject;      // RFC 2253; "revocation list of <issuer>" for a list
    std::string fingerprint;  // SHA-256 of its DER form, 64 lower-case hex digits
    std::string pem;          // the certificate (or list) alone, PEM
};

// The certificates in the PEM files, in their order, each file's
// revocation lists after its certificates (anything else, such as a
// private key, is left out). Throws IntegrityError as checkTrustAnchors
// does.
TSAPP_API std::vector<AnchorCertificate> readTrustAnchors(
    const std::vector<std::string>& trustAnchors);

}  // namespace tsappinstall::integrity
