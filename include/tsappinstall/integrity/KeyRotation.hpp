#pragma once

// Key rotation proofs: a publisher moving to a new signing key says so
// with the old one. A proof is a detached CMS signature, made by the old
// key as package signatures are, over a fixed statement naming both keys
// by their fingerprints (SHA-256 of the SubjectPublicKeyInfo, hex):
//
//   tsapp-key-rotation 1
//   old-key <64 hex digits>
//   new-key <64 hex digits>
//
// Proofs travel as PEM ("-----BEGIN CMS-----"), one after another, oldest
// first, so that a chain of moves (A to B, then B to C) is the files put
// one after the other. A package carries them as the part
// KEY_ROTATIONS_PART_NAME, which its digest list covers like any other.
// Each proof's new key is the key of the proof that follows it, and the
// last one's is the key that signed the package: the statement of each
// step is rebuilt from keys the verifier already knows, never read.

#include <cstdint>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/integrity/Signature.hpp"

namespace tsappinstall::integrity {

inline constexpr const char* KEY_ROTATIONS_PART_NAME = "/_digests/key-rotations.pem";
inline constexpr const char* KEY_ROTATIONS_CONTENT_TYPE = "application/x-pem-file";
inline constexpr const char* KEY_ROTATIONS_RELATIONSHIP_TYPE =
    "http://schemas.corvane.com/tessal/app/2026/relationships/keyRotations";
// The most proofs, and bytes, a package may carry.
inline constexpr std::size_t MAX_KEY_ROTATIONS = 16;
inline constexpr std::uint64_t MAX_KEY_ROTATIONS_BYTES = 1u << 20;

// The statement a proof signs.
TSAPP_API std::string keyRotationStatement(const std::string& oldKey, const std::string& newKey);

// The proof, PEM, that the key of `oldSigner` hands over to the key whose
// fingerprint is `newKey`. Throws IntegrityError when `newKey` is not 64
// lower-case hex digits or is the old key itself (a renewed certificate
// keeps its key and needs no proof).
TSAPP_API std::string signKeyRotation(const Signer& oldSigner, const std::string& newKey);

// Each proof's DER, in order. Throws IntegrityError for anything but one to
// MAX_KEY_ROTATIONS PEM blocks of type CMS, at most
// MAX_KEY_ROTATIONS_BYTES in all.
TSAPP_API std::vector<std::string> readKeyRotations(const std::string& pem);

struct RotationCheck {
    // Why the proofs do not hand over from the old key to the new one;
    // empty when they do.
    std::string problem;
    // The keys that handed over, from the old key on, oldest first.
    std::vector<std::string> handedOver;
    bool ok() const { return problem.empty(); }
};

// Whether `pem` holds a chain of proofs from `oldKey` to `newKey`: it
// starts at the first proof the old key signed and follows the proofs
// after it, each checked as checkSignature() checks a signature, against
// the same trust files and by the same certificate rule, but at any time
// (a proof outlives its signer's certificate: it is needed once that
// certificate is replaced); a revoked certificate still refuses its
// proofs. Throws IntegrityError when a trust file cannot be read.
TSAPP_API RotationCheck checkKeyRotation(const std::string& pem, const std::string& oldKey,
                                         const std::string& newKey,
                                         const std::vector<std::string>& trustAnchors);

}  // namespace tsappinstall::integrity
