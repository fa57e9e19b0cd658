#include "PackageItems.hpp"
#include "VerifySteps.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsappinstall::integrity {
namespace {

using detail::forEachItem;
using detail::integrityParts;
using detail::targetsOf;
using opc::model::PartName;

std::string readPart(opc::model::Package& package, const PartName& name) {
    opc::model::Part part = package.getPart(name);
    opc::InputStream& in = part.getInputStream();
    std::string bytes;
    unsigned char buffer[1 << 14];
    for (std::size_t n; (n = in.read(buffer, sizeof buffer)) > 0;)
        bytes.append(reinterpret_cast<const char*>(buffer), n);
    return bytes;
}

// One relationship of `type` to a part that is there, or a fault.
const PartName* single(const std::vector<PartName>& targets, const opc::model::Package& package,
                       const char* what, std::vector<Fault>& faults, FaultKind kind) {
    std::string why;
    if (targets.size() != 1)
        why = std::to_string(targets.size()) + " relationships to " + what + " (one expected)";
    else if (!package.containsPart(targets.front()))
        why = std::string("the ") + what + " is not in the package";
    if (why.empty()) return &targets.front();
    faults.push_back({kind, targets.empty() ? std::string() : targets.front().ascii(), why});
    return nullptr;
}

void checkDigests(opc::model::Package& package, const std::vector<DigestEntry>& list,
                  std::vector<Fault>& faults) {
    DigestCheck check(list);
    std::vector<unsigned char> buffer(1 << 16);
    forEachItem(package, integrityParts(package),
                [&](const std::string& item, opc::InputStream& in) {
                    try {
                        detail::readItem(item, in, &check, buffer);
                    } catch (const opc::Exception&) {
                        // a fault of the item's own, from abandon()
                    }
                });
    const std::vector<Fault>& found = check.finish();
    faults.insert(faults.end(), found.begin(), found.end());
}

}  // namespace

namespace detail {

std::optional<DigestListPart> readDigestList(opc::model::Package& package,
                                             std::vector<Fault>& faults) {
    const auto parts = targetsOf(package, DIGESTS_RELATIONSHIP_TYPE);
    const PartName* part =
        single(parts, package, "the digest list", faults, FaultKind::NoDigestList);
    if (part == nullptr) return std::nullopt;
    DigestListPart list{*part, readPart(package, *part), std::nullopt};
    try {
        list.entries = parseDigestList(list.text);
    } catch (const IntegrityError& e) {
        faults.push_back({FaultKind::MalformedDigestList, part->ascii(), e.what()});
    }
    return list;
}

void checkAuthor(opc::model::Package& package, const std::string& list,
                 const VerificationPolicy& policy, VerificationReport& report) {
    const auto signatureParts = targetsOf(package, SIGNATURE_RELATIONSHIP_TYPE);
    if (signatureParts.empty()) {
        if (policy.requireSignature)
            report.faults.push_back({FaultKind::Unsigned, {}, "the package carries no signature"});
        return;
    }
    const PartName* signature = single(signatureParts, package, "the signature", report.faults,
                                       FaultKind::MalformedSignature);
    if (signature == nullptr) return;
    report.isSigned = true;
    SignatureCheck check = checkSignature(readPart(package, *signature), list, policy.trustAnchors);
    report.signer = check.signer;
    if (check.fault) {
        check.fault->partName = signature->ascii();
        report.faults.push_back(*check.fault);
    }
}

}  // namespace detail

namespace {

void verifyOpen(opc::model::Package& package, const VerificationPolicy& policy,
                VerificationReport& report) {
    const auto list = detail::readDigestList(package, report.faults);
    if (!list) return;
    if (list->entries) checkDigests(package, *list->entries, report.faults);
    detail::checkAuthor(package, list->text, policy, report);
}

}  // namespace

VerificationReport verifyPackage(const std::string& path, const VerificationPolicy& policy) {
    VerificationReport report;
    try {
        opc::model::OpenedPackage opened(fl::i18n::to_ustring(path));
        verifyOpen(opened.package(), policy, report);
        opened.close();
    } catch (const opc::Exception& e) {
        // Only opening and the two integrity parts' reads get here: every
        // other item's read failure is a fault of its own.
        report.faults.push_back({FaultKind::UnreadablePackage, {}, e.what()});
    }
    return report;
}

}  // namespace tsappinstall::integrity
