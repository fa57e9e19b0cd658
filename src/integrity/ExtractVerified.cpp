#include <algorithm>
#include <optional>
#include <unordered_map>

#include "BackgroundDigestCheck.hpp"
#include "PackageItems.hpp"
#include "VerifySteps.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsappinstall::integrity {
namespace {

using opc::model::PartName;

// Checks the parts an extraction on several threads writes: each thread
// hashes the parts it writes itself, so that hashing is spread as widely
// as inflating. The observer the extraction is given makes one for each
// thread and, at the end, collects their verdict.
class SpreadDigestCheck final : public opc::extraction::PartObserver {
  public:
    // Places in the package's order, by part name.
    using Orders = std::unordered_map<std::string, std::size_t>;

    SpreadDigestCheck(DigestCheck& check, const std::vector<PartName>& skipped,
                      const Orders& orders)
        : check_(check), skipped_(skipped), orders_(orders) {}

    void begin(const PartName& part) override {
        if (std::find(skipped_.begin(), skipped_.end(), part) != skipped_.end()) return;
        item_.emplace(check_, part.ascii(), orders_.at(part.ascii()));
    }
    void update(const unsigned char* data, std::size_t size) override {
        if (item_) item_->update(data, size);
    }
    void end() override {
        if (item_) item_->end();
        item_.reset();
    }
    void taken(const PartName& part, const std::string& sha256) override {
        if (std::find(skipped_.begin(), skipped_.end(), part) != skipped_.end()) return;
        check_.taken(part.ascii(), sha256, orders_.at(part.ascii()));
    }
    void beforeCommit() override {
        const std::vector<Fault>& faults = check_.finish();
        if (!faults.empty()) throw detail::DigestFaults{faults};
    }
    std::unique_ptr<PartObserver> forThread() override {
        return std::make_unique<SpreadDigestCheck>(check_, skipped_, orders_);
    }

    static Orders ordersOf(const opc::model::Package& package) {
        Orders orders;
        for (const PartName& name : package.getPartNames())
            orders.emplace(name.ascii(), orders.size() + 1);
        return orders;
    }

  private:
    DigestCheck& check_;
    const std::vector<PartName>& skipped_;
    const Orders& orders_;
    std::optional<DigestCheck::Item> item_;
};

}  // namespace

namespace detail {

VerifiedExtraction extractListed(opc::model::Package& package, const std::filesystem::path& folder,
                                 const DigestList& list, const VerificationReport& author,
                                 opc::extraction::Options options,
                                 opc::qvservices::ReplaceMode replace) {
    VerifiedExtraction result;
    result.report = author;
    DigestCheck check(list);
    // The extraction itself hands over the parts; the content types, which
    // are not extracted, come by on their own (pinned: no second read).
    DigestSink contentTypes(check, {}, true);
    opc::model::readEveryItem(package, contentTypes);
    // On one thread, hashing has a thread of its own; on several, each
    // hashes what it writes.
    const std::vector<PartName> skipped = integrityParts(package);
    const SpreadDigestCheck::Orders orders = SpreadDigestCheck::ordersOf(package);
    std::optional<BackgroundDigestCheck> background;
    std::optional<SpreadDigestCheck> spread;
    if (opc::model::threadCount(options.threads) > 1)
        options.observer = &spread.emplace(check, skipped, orders);
    else
        options.observer = &background.emplace(check, skipped);
    const opc::FileSystemOpsSelector ops = options.ops;
    opc::extraction::Extractor extractor(package, ops, std::move(options));
    try {
        result.leftAside = extractor
                               .extractAll(folder, opc::qvservices::RestoreMode::AllParts,
                                           opc::qvservices::TransformMode::PercentDecode, replace)
                               .leftAside;
    } catch (const DigestFaults& found) {
        result.report.faults = found.faults;
    }
    return result;
}

}  // namespace detail

namespace {

bool checksDigests(const opc::model::Package& package, DigestPolicy digests,
                   const VerificationPolicy& signature) {
    switch (digests) {
        case DigestPolicy::Required:
            return true;
        case DigestPolicy::WhenPresent:
            return listsDigests(package) ||
                   (signature.checkSignature && signature.requireSignature);
        case DigestPolicy::Off:
            return false;
    }
    return true;
}

VerifiedExtraction unpackAsItIs(opc::model::Package& package, const std::filesystem::path& folder,
                                opc::extraction::Options options,
                                opc::qvservices::ReplaceMode replace) {
    const opc::FileSystemOpsSelector ops = options.ops;
    opc::extraction::Extractor extractor(package, ops, std::move(options));
    VerifiedExtraction result;
    result.leftAside = extractor
                           .extractAll(folder, opc::qvservices::RestoreMode::AllParts,
                                       opc::qvservices::TransformMode::PercentDecode, replace)
                           .leftAside;
    return result;
}

}  // namespace

VerifiedExtraction unpack(opc::model::Package& package, const std::filesystem::path& folder,
                          DigestPolicy digests, const VerificationPolicy& signature,
                          opc::extraction::Options options, opc::qvservices::ReplaceMode replace) {
    return detail::unpackListed(package, folder, digests, signature, std::move(options), replace,
                                nullptr);
}

namespace detail {

VerifiedExtraction unpackListed(opc::model::Package& package, const std::filesystem::path& folder,
                                DigestPolicy digests, const VerificationPolicy& signature,
                                opc::extraction::Options options,
                                opc::qvservices::ReplaceMode replace, const DigestListPart* read) {
    if (!checksDigests(package, digests, signature))
        return unpackAsItIs(package, folder, std::move(options), replace);
    VerifiedExtraction result;
    VerificationReport& report = result.report;
    std::optional<DigestListPart> list;
    if (!read || !read->list) {
        list = readDigestList(package, report.faults);
        if (!list || !list->list) return result;
        read = &*list;
    }
    if (signature.checkSignature) checkAuthor(package, read->text, signature, report);
    if (!report.ok()) return result;
    result =
        detail::extractListed(package, folder, *read->list, report, std::move(options), replace);
    if (result.report.ok()) result.digests = list ? std::move(list->list) : read->list;
    return result;
}

}  // namespace detail

VerifiedExtraction extractVerified(opc::model::Package& package,
                                   const std::filesystem::path& folder,
                                   const VerificationPolicy& policy,
                                   opc::extraction::Options options,
                                   opc::qvservices::ReplaceMode replace) {
    return unpack(package, folder, DigestPolicy::Required, policy, std::move(options), replace);
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
