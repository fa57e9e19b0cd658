#include "BackgroundDigestCheck.hpp"
#include "PackageItems.hpp"
#include "VerifySteps.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsappinstall::integrity {

VerifiedExtraction extractVerified(opc::model::Package& package,
                                   const std::filesystem::path& folder,
                                   const VerificationPolicy& policy,
                                   opc::extraction::Options options,
                                   opc::qvservices::ReplaceMode replace) {
    VerifiedExtraction result;
    VerificationReport& report = result.report;
    const auto list = detail::readDigestList(package, report.faults);
    if (!list || !list->list) return result;
    detail::checkAuthor(package, list->text, policy, report);
    if (!report.ok()) return result;

    DigestCheck check(*list->list);
    // The extraction itself hands over the parts; the content types, which
    // are not extracted, come by on their own (pinned: no second read).
    detail::DigestSink contentTypes(check, {}, true);
    opc::model::readEveryItem(package, contentTypes);
    detail::BackgroundDigestCheck hashing(check, detail::integrityParts(package));
    options.observer = &hashing;
    opc::extraction::Extractor extractor(package, opc::FileSystemOpsSelector(), std::move(options));
    try {
        result.leftAside = extractor
                               .extractAll(folder, opc::qvservices::RestoreMode::AllParts,
                                           opc::qvservices::TransformMode::PercentDecode, replace)
                               .leftAside;
    } catch (const detail::DigestFaults& found) {
        report.faults = found.faults;
    }
    return result;
}

VerifiedExtraction extractVerified(const std::filesystem::path& path,
                                   const std::filesystem::path& folder,
                                   const VerificationPolicy& policy,
                                   opc::extraction::Options options,
                                   opc::qvservices::ReplaceMode replace) {
    opc::model::OpenedPackage package(path);
    VerifiedExtraction result =
        extractVerified(package.package(), folder, policy, std::move(options), replace);
    package.close();
    return result;
}

}  // namespace tsappinstall::integrity
