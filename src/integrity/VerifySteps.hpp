#pragma once

// The steps of verification that checking a package and extracting it
// with verification share.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/platform/opc/Package.hpp"

namespace tsappinstall::integrity::detail {

struct DigestListPart {
    opc::model::PartName name;
    std::string text;
    // Parsed; none when the text is malformed (a MalformedDigestList fault).
    std::optional<DigestList> list;
};

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

// The verified extraction once `list` is read and `author` holds what
// checkAuthor() found, for a caller that needed both before: the digests
// are checked in the pass that writes, and the result's report starts as
// `author`.
VerifiedExtraction extractListed(opc::model::Package& package, const std::filesystem::path& folder,
                                 const DigestList& list, const VerificationReport& author,
                                 opc::extraction::Options options,
                                 opc::qvservices::ReplaceMode replace);

}  // namespace tsappinstall::integrity::detail
