#pragma once

// The one description of a failure that every layer uses: a kind callers
// act on, the item it concerns and a detail for people. The package layer
// throws it (opc::Exception), the digest and signature checks and the
// package check report it, the manifest's loading maps its verdicts onto
// its kinds, so that a tool needs one vocabulary for all of them.

#include <memory>
#include <stdexcept>
#include <string>

#include "tsappinstall/export.hpp"

namespace tsappinstall {

// Stable: new kinds are added at the end, and a kind's token never changes.
enum class FaultKind : int {
    // Failures of reading and writing packages (opc::Reason).
    Other = 0,     // a misuse of the API or a failure that fits no kind below
    CannotRead,    // the file is missing or a read failed
    NotZip,        // the container is not a ZIP file this library accepts
    DamagedEntry,  // an entry's bytes disagree with its declared size or CRC-32
    NotPackage,    // a ZIP file that breaks the packaging rules
    MalformedXml,  // an XML part is not well-formed, too large or too deep
    InvalidXml,    // an XML document breaks its schema
    BadPath,       // a part name cannot become a file path below the folder
    CannotWrite,   // writing a file or folder failed
    Cancelled,     // the caller asked to stop; nothing was left changed

    // What the whole-package check and the digest check find.
    NotAppFile,          // the extension is not .tsappinstall
    UnreadablePackage,   // not a package the library can open
    UnreadableItem,      // a part's bytes disagree with its size or CRC-32 while read
    NoManifest,          // not exactly one manifest relationship, or no such part
    BadManifest,         // unreadable, not well-formed, or refused by the schema
    BadSeal,             // the manifest's seal is missing or wrong
    WrongFileCount,      // numFiles is not a number, or not the number of app entries
    BrokenRelationship,  // the icon or screenshot relationship names no part
    MissingAppFile,      // an app entry has no part (packer's layout only)
    UnlistedAppFile,     // a part in the app-files folder is no app entry (packer's layout)
    ReservedName,        // a part takes a name the extractor keeps for its own state

    // The digest list and the author signature.
    NoDigestList,         // no single digest part
    MalformedDigestList,  // the digest part is not in sha256sum line format
    DigestMismatch,       // an item's SHA-256 differs from the listed one
    MissingItem,          // listed, but not in the package
    UnlistedItem,         // in the package, but not listed
    Unsigned,             // a signature is required and there is none
    MalformedSignature,   // the signature part is not a CMS signed-data structure
    SignatureMismatch,    // the signature was made over other bytes
    UntrustedSigner,      // the signer's chain does not lead to a trust anchor

    // A repository's index and the packages fetched through it.
    BadIndex,        // the index does not parse, is too large, or breaks its rules
    ExpiredIndex,    // the index is past its expiry time
    IndexRollback,   // the index is older than one already seen
    SizeMismatch,    // a download's size differs from the indexed one
    DownloadFailed,  // the transfer failed, stalled or was refused

    // The app store and the repositories recorded in it.
    NotCompatible,      // the host does not fit the app (forcing installs it anyway)
    Refused,            // a version or signer rule refuses the install
    NotInstalled,       // no installed app is called that
    AmbiguousName,      // a name that several installed apps share
    NoPrevious,         // nothing to roll back to
    BadDatabase,        // the store's database is damaged or from a newer schema
    StoreFailed,        // a file or database operation of the store failed
    PackageChanged,     // the package file changed while it was being installed
    UnknownRepository,  // no repository is recorded under that name
    RepositoryExists,   // a repository is recorded under that name already
    NotOffered,         // no repository offers a version of the app that fits
    WrongRepository,    // the index names another repository, or another key signed it
    RevokedSigner,      // a recorded repository revoked the key that signed the package
    NotReusable,  // a part left out of a partial package cannot be taken from the installed version

    // The seal's former name; it was never an author's signature.
    BadSignature = BadSeal,
};

struct Fault {
    FaultKind kind = FaultKind::Other;
    std::string item;  // "/files/a.js", "[Content_Types].xml", or empty
    std::string detail;
};

// "digest-mismatch", "cannot-read", ...: stable words for scripts.
TSAPP_API const char* token(FaultKind kind);

// A few words naming the kind for people: "damaged entry", "bad digest".
TSAPP_API const char* describe(FaultKind kind);

// One line for people and scripts alike: "token item: detail" ("token:
// detail" when no item is concerned).
TSAPP_API std::string describe(const Fault& fault);

// A failure thrown with its fault. what() is the text given, which for
// most throwers is the fault's detail alone.
class TSAPP_API Error : public std::runtime_error {
  public:
    Error(FaultKind kind, const std::string& what) : Error(Fault{kind, {}, what}, what) {}
    Error(Fault fault, const std::string& what)
        : std::runtime_error(what), fault_(std::make_shared<const Fault>(std::move(fault))) {}

    const Fault& fault() const noexcept { return *fault_; }
    FaultKind kind() const noexcept { return fault_->kind; }

  private:
    // Shared, so that copying the exception cannot throw.
    std::shared_ptr<const Fault> fault_;
};

}  // namespace tsappinstall
