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

using detail::targetsOf;
using opc::model::PartName;

// Where an integrity part must be, what it is called in faults, the most
// bytes it may declare, and the kind of fault it gets.
struct IntegrityPart {
    const char* name;
    const char* what;
    std::uint64_t limit;
    FaultKind kind;
};

const IntegrityPart kDigestList{DIGESTS_PART_NAME, "digest list", MAX_DIGEST_LIST_BYTES,
                                FaultKind::NoDigestList};
const IntegrityPart kSignature{SIGNATURE_PART_NAME, "signature", MAX_SIGNATURE_BYTES,
                               FaultKind::MalformedSignature};

// Why the one relationship target in `targets` is not `expected`'s part,
// or empty. Names are compared byte for byte: part names that differ in
// case only name the same part, but not the same file once extracted.
std::string misplaced(const std::vector<PartName>& targets, const opc::model::Package& package,
                      const IntegrityPart& expected) {
    const std::string what = std::string("the ") + expected.what;
    if (targets.size() != 1)
        return std::to_string(targets.size()) + " relationships to " + what + " (one expected)";
    const std::string& named = targets.front().ascii();
    if (named != expected.name)
        return "the relationship names " + named + ", but " + what + " must be " + expected.name;
    if (!package.containsPart(targets.front())) return what + " is not in the package";
    const std::string stored = package.getPart(targets.front()).getPartName().ascii();
    if (stored != expected.name)
        return "the package holds " + what + " as " + stored + ", not as " + expected.name;
    return {};
}

// One relationship of `type` to the part `expected` names, or a fault.
const PartName* single(const std::vector<PartName>& targets, const opc::model::Package& package,
                       const IntegrityPart& expected, std::vector<Fault>& faults) {
    const std::string why = misplaced(targets, package, expected);
    if (why.empty()) return &targets.front();
    faults.push_back(
        {expected.kind, targets.empty() ? std::string() : targets.front().ascii(), why});
    return nullptr;
}

// The part's bytes, pinned first so that whatever reads the part later
// (extraction) gets these very bytes; none, with a fault of `malformed`,
// when it declares more than it may hold, before anything is read.
std::optional<std::string> readPinned(opc::model::Package& package, const PartName& name,
                                      const IntegrityPart& expected, FaultKind malformed,
                                      std::vector<Fault>& faults) {
    opc::model::Part part = package.getPart(name);
    const std::uint64_t declared = part.getEntry().size;
    if (declared > expected.limit) {
        faults.push_back({malformed, expected.name,
                          "it declares " + std::to_string(declared) + " bytes; " +
                              std::string("a ") + expected.what + " may have at most " +
                              std::to_string(expected.limit)});
        return std::nullopt;
    }
    part.pin(expected.limit);
    opc::InputStream& in = part.getInputStream();
    std::string bytes;
    unsigned char buffer[1 << 14];
    for (std::size_t n; (n = in.read(buffer, sizeof buffer)) > 0;)
        bytes.append(reinterpret_cast<const char*>(buffer), n);
    return bytes;
}

void checkDigests(opc::model::Package& package, const DigestList& list, unsigned threads,
                  std::vector<Fault>& faults) {
    DigestCheck check(list);
    const std::vector<PartName> skipped = integrityParts(package);
    const opc::model::SinksPerThread<detail::DigestSink> sinks(
        opc::model::threadCount(threads),
        [&](unsigned) { return std::make_unique<detail::DigestSink>(check, skipped); });
    opc::model::readEveryItem(package, sinks.sinks);
    const std::vector<Fault>& found = check.finish();
    faults.insert(faults.end(), found.begin(), found.end());
}

}  // namespace

std::optional<DigestListPart> readDigestList(opc::model::Package& package,
                                             std::vector<Fault>& faults) {
    const auto parts = targetsOf(package, DIGESTS_RELATIONSHIP_TYPE);
    const PartName* part = single(parts, package, kDigestList, faults);
    if (part == nullptr) return std::nullopt;
    std::optional<std::string> text =
        readPinned(package, *part, kDigestList, FaultKind::MalformedDigestList, faults);
    if (!text) return std::nullopt;
    DigestListPart list{*part, std::move(*text), std::nullopt};
    try {
        list.list = parseDigestList(list.text);
    } catch (const IntegrityError& e) {
        faults.push_back({FaultKind::MalformedDigestList, part->ascii(), e.what()});
    }
    return list;
}

void checkAuthor(opc::model::Package& package, const std::string& list,
                 const VerificationPolicy& policy, VerificationReport& report) {
    if (!policy.checkSignature) return;
    const auto signatureParts = targetsOf(package, SIGNATURE_RELATIONSHIP_TYPE);
    if (signatureParts.empty()) {
        if (policy.requireSignature)
            report.faults.push_back({FaultKind::Unsigned, {}, "the package carries no signature"});
        return;
    }
    const PartName* part = single(signatureParts, package, kSignature, report.faults);
    if (part == nullptr) return;
    report.isSigned = true;
    const std::optional<std::string> signature =
        readPinned(package, *part, kSignature, FaultKind::MalformedSignature, report.faults);
    if (!signature) return;
    SignatureCheck check = checkSignature(*signature, list, policy.trustAnchors);
    report.signer = check.signer;
    report.certificate = check.certificate;
    if (check.fault) {
        check.fault->item = SIGNATURE_PART_NAME;
        report.faults.push_back(*check.fault);
    }
}

VerificationReport verifyPackage(opc::model::Package& package, const VerificationPolicy& policy,
                                 unsigned threads) {
    VerificationReport report;
    try {
        const auto list = readDigestList(package, report.faults);
        if (!list) return report;
        if (list->list) checkDigests(package, *list->list, threads, report.faults);
        checkAuthor(package, list->text, policy, report);
    } catch (const opc::Exception& e) {
        // Only the two integrity parts' reads get here: every other item's
        // read failure is a fault of its own.
        report.faults.push_back({FaultKind::UnreadablePackage, {}, e.what()});
    }
    return report;
}

VerificationReport verifySignature(const std::filesystem::path& path,
                                   const VerificationPolicy& policy) {
    VerificationReport report;
    try {
        opc::model::OpenedPackage opened(path);
        const auto list = readDigestList(opened.package(), report.faults);
        if (list) checkAuthor(opened.package(), list->text, policy, report);
        opened.close();
    } catch (const opc::Exception& e) {
        report.faults.push_back({FaultKind::UnreadablePackage, {}, e.what()});
    }
    return report;
}

VerificationReport verifyPackage(const std::filesystem::path& path,
                                 const VerificationPolicy& policy, unsigned threads) {
    try {
        opc::model::OpenedPackage opened(path);
        VerificationReport report = verifyPackage(opened.package(), policy, threads);
        opened.close();
        return report;
    } catch (const opc::Exception& e) {
        VerificationReport report;
        report.faults.push_back({FaultKind::UnreadablePackage, {}, e.what()});
        return report;
    }
}

}  // namespace tsappinstall::integrity
