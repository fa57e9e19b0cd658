#include "tsappinstall/Fault.hpp"

namespace tsappinstall {
namespace {

struct KindTexts {
    const char* token;
    const char* words;
};

// The one place a kind gets its texts. A switch without a default: a kind
// added to the enum and not here is a compiler warning (an error in CI),
// not a silent "failed".
KindTexts textsOf(FaultKind kind) {
    switch (kind) {
        case FaultKind::Other:
            return {"other", "failed"};
        case FaultKind::CannotRead:
            return {"cannot-read", "cannot be read"};
        case FaultKind::NotZip:
            return {"not-zip", "not a ZIP file"};
        case FaultKind::DamagedEntry:
            return {"damaged-entry", "damaged entry"};
        case FaultKind::NotPackage:
            return {"not-package", "not a valid package"};
        case FaultKind::MalformedXml:
            return {"malformed-xml", "not well-formed XML"};
        case FaultKind::InvalidXml:
            return {"invalid-xml", "does not match the schema"};
        case FaultKind::BadPath:
            return {"bad-path", "bad part path"};
        case FaultKind::CannotWrite:
            return {"cannot-write", "cannot be written"};
        case FaultKind::Cancelled:
            return {"cancelled", "cancelled"};
        case FaultKind::NotAppFile:
            return {"not-app-file", "not an app file"};
        case FaultKind::UnreadablePackage:
            return {"unreadable-package", "not an app package"};
        case FaultKind::UnreadableItem:
            return {"unreadable-item", "damaged part"};
        case FaultKind::NoManifest:
            return {"no-manifest", "no manifest"};
        case FaultKind::BadManifest:
            return {"bad-manifest", "bad manifest"};
        case FaultKind::BadSeal:
            return {"bad-seal", "bad seal"};
        case FaultKind::WrongFileCount:
            return {"wrong-file-count", "wrong file count"};
        case FaultKind::BrokenRelationship:
            return {"broken-relationship", "broken relationship"};
        case FaultKind::MissingAppFile:
            return {"missing-app-file", "missing app file"};
        case FaultKind::UnlistedAppFile:
            return {"unlisted-app-file", "unlisted app file"};
        case FaultKind::ReservedName:
            return {"reserved-name", "reserved name"};
        // The package check reports every digest-list fault as a bad digest.
        case FaultKind::NoDigestList:
            return {"no-digest-list", "bad digest"};
        case FaultKind::MalformedDigestList:
            return {"malformed-digest-list", "bad digest"};
        case FaultKind::DigestMismatch:
            return {"digest-mismatch", "bad digest"};
        case FaultKind::MissingItem:
            return {"missing-item", "bad digest"};
        case FaultKind::UnlistedItem:
            return {"unlisted-item", "bad digest"};
        case FaultKind::Unsigned:
            return {"unsigned", "unsigned"};
        case FaultKind::MalformedSignature:
            return {"malformed-signature", "malformed signature"};
        case FaultKind::SignatureMismatch:
            return {"signature-mismatch", "signature mismatch"};
        case FaultKind::UntrustedSigner:
            return {"untrusted-signer", "untrusted signer"};
        case FaultKind::BadIndex:
            return {"bad-index", "bad index"};
        case FaultKind::ExpiredIndex:
            return {"expired-index", "expired index"};
        case FaultKind::IndexRollback:
            return {"index-rollback", "index rolled back"};
        case FaultKind::SizeMismatch:
            return {"size-mismatch", "size mismatch"};
        case FaultKind::DownloadFailed:
            return {"download-failed", "download failed"};
        case FaultKind::NotCompatible:
            return {"not-compatible", "does not fit this host"};
        case FaultKind::Refused:
            return {"refused", "refused"};
        case FaultKind::NotInstalled:
            return {"not-installed", "not installed"};
        case FaultKind::AmbiguousName:
            return {"ambiguous-name", "ambiguous name"};
        case FaultKind::NoPrevious:
            return {"no-previous", "no previous version"};
        case FaultKind::BadDatabase:
            return {"bad-database", "bad database"};
        case FaultKind::StoreFailed:
            return {"store-failed", "store operation failed"};
        case FaultKind::PackageChanged:
            return {"package-changed", "package changed"};
        case FaultKind::UnknownRepository:
            return {"unknown-repository", "unknown repository"};
        case FaultKind::RepositoryExists:
            return {"repository-exists", "repository recorded already"};
        case FaultKind::NotOffered:
            return {"not-offered", "not offered"};
        case FaultKind::WrongRepository:
            return {"wrong-repository", "another repository"};
        case FaultKind::RevokedSigner:
            return {"revoked-signer", "signer's key revoked"};
        case FaultKind::NotReusable:
            return {"not-reusable", "installed file not reusable"};
    }
    return {"unknown", "failed"};  // a value outside the enum
}

}  // namespace

const char* token(FaultKind kind) {
    return textsOf(kind).token;
}

const char* describe(FaultKind kind) {
    return textsOf(kind).words;
}

std::string describe(const Fault& fault) {
    return std::string(token(fault.kind)) + (fault.item.empty() ? "" : " " + fault.item) + ": " +
           fault.detail;
}

}  // namespace tsappinstall
