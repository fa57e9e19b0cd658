#pragma once

// What the layers that check packages (the whole-package check, the
// repository's indexer) ask of a package's integrity items: whether it
// lists digests, its digest list read once, the signature over it, and the
// parts no digest covers.

#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/platform/opc/Package.hpp"

namespace tsappinstall::integrity {

struct DigestListPart {
    opc::model::PartName name;
    std::string text;
    // Parsed; none when the text is malformed (a MalformedDigestList fault).
    std::optional<DigestList> list;
};

// Whether the package has a relationship to a digest list.
bool listsDigests(const opc::model::Package& package);

// The one digest part, exactly DIGESTS_PART_NAME, pinned, so that what is
// extracted later is this text; or a fault: NoDigestList, or
// MalformedDigestList when it declares more than MAX_DIGEST_LIST_BYTES.
std::optional<DigestListPart> readDigestList(opc::model::Package& package,
                                             std::vector<Fault>& faults);

// The signature over `list` as `policy` asks: sets isSigned and signer,
// adds the faults. The signature part, exactly SIGNATURE_PART_NAME and at
// most MAX_SIGNATURE_BYTES, is pinned like the list.
void checkAuthor(opc::model::Package& package, const std::string& list,
                 const VerificationPolicy& policy, VerificationReport& report);

// The certificate that made the CMS signature `signature` (DER), described
// as it is, not verified: for records that name a signer checked before.
// Empty strings when the signature or its certificate cannot be read.
SignerCertificate signerCertificateOf(const std::string& signature);

namespace detail {
// unpack() for a caller that has read the package's digest list already
// (`read`, from readDigestList; null, or one that did not parse, and it is
// read here): the same checks and unpacking without reading and parsing
// the list a second time.
VerifiedExtraction unpackListed(opc::model::Package& package, const std::filesystem::path& folder,
                                DigestPolicy digests, const VerificationPolicy& signature,
                                opc::extraction::Options options,
                                opc::qvservices::ReplaceMode replace, const DigestListPart* read);
}  // namespace detail

// The digest and signature parts: never themselves covered.
std::vector<opc::model::PartName> integrityParts(const opc::model::Package& package);

}  // namespace tsappinstall::integrity
