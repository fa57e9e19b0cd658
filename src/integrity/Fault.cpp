#include "tsappinstall/integrity/Fault.hpp"

namespace tsappinstall::integrity {

const char* faultKindName(FaultKind kind) {
    switch (kind) {
        case FaultKind::UnreadablePackage:
            return "unreadable-package";
        case FaultKind::NoDigestList:
            return "no-digest-list";
        case FaultKind::MalformedDigestList:
            return "malformed-digest-list";
        case FaultKind::UnreadableItem:
            return "unreadable-item";
        case FaultKind::DigestMismatch:
            return "digest-mismatch";
        case FaultKind::MissingItem:
            return "missing-item";
        case FaultKind::UnlistedItem:
            return "unlisted-item";
        case FaultKind::Unsigned:
            return "unsigned";
        case FaultKind::MalformedSignature:
            return "malformed-signature";
        case FaultKind::SignatureMismatch:
            return "signature-mismatch";
        case FaultKind::UntrustedSigner:
            return "untrusted-signer";
    }
    return "unknown";
}

std::string describe(const Fault& fault) {
    return std::string(faultKindName(fault.kind)) +
           (fault.partName.empty() ? "" : " " + fault.partName) + ": " + fault.detail;
}

}  // namespace tsappinstall::integrity
