#pragma once

// What can be wrong with a package's content digests or its author
// signature: a machine-readable kind, the part it concerns, and a text for
// people.

#include <stdexcept>
#include <string>

#include "tsappinstall/export.hpp"

namespace tsappinstall::integrity {

enum class FaultKind {
    UnreadablePackage,    // not a package the library can open
    NoDigestList,         // no single digest part
    MalformedDigestList,  // the digest part is not in sha256sum line format
    UnreadableItem,       // an item fails its size or CRC-32 check while read
    DigestMismatch,       // an item's SHA-256 differs from the listed one
    MissingItem,          // listed, but not in the package
    UnlistedItem,         // in the package, but not listed
    Unsigned,             // a signature is required and there is none
    MalformedSignature,   // the signature part is not a CMS signed-data structure
    SignatureMismatch,    // the signature was made over other bytes
    UntrustedSigner,      // the signer's chain does not lead to a trust anchor
};

// "digest-mismatch", "untrusted-signer", ...: stable words for scripts.
TSAPP_API const char* faultKindName(FaultKind kind);

struct Fault {
    FaultKind kind;
    std::string partName;  // "/files/a.js", "[Content_Types].xml", or empty
    std::string detail;
};

// One line for people and scripts alike: "kind part: detail" ("kind:
// detail" when no part is concerned).
TSAPP_API std::string describe(const Fault& fault);

// Bad input to the signing and verification calls themselves: an
// unreadable key, certificate or trust file.
class TSAPP_API IntegrityError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace tsappinstall::integrity
