#pragma once

// The steps of verification that checking a package and extracting it
// with verification share.

#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/platform/opc/Package.hpp"

namespace tsappinstall::integrity::detail {

struct DigestListPart {
    opc::model::PartName name;
    std::string text;
    // Parsed; none when the text is malformed (a MalformedDigestList fault).
    std::optional<std::vector<DigestEntry>> entries;
};

// The one digest part, or a NoDigestList fault.
std::optional<DigestListPart> readDigestList(opc::model::Package& package,
                                             std::vector<Fault>& faults);

// The signature over `list` as `policy` asks: sets isSigned and signer,
// adds the faults.
void checkAuthor(opc::model::Package& package, const std::string& list,
                 const VerificationPolicy& policy, VerificationReport& report);

}  // namespace tsappinstall::integrity::detail
