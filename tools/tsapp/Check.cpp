// tsapp check: one verdict line per package, in the order given.
//
// The facade folds every manifest problem into one error; the check reads
// the package and the manifest through the package layer and the
// serializer's fault kinds so it can say which rule a package breaks. Packages
// are checked by a pool of workers, each with its own serializer, so the
// schema is compiled once per worker rather than once per package.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/ManifestFault.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/filesystem/Path.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsapp::tool {
namespace {

const char* const kGoodVerdict = "OK";

std::string manifestVerdict(AppManifestSerializer& serializer, opc::model::Part& part) {
    using tsappinstall::ManifestFault;
    AppManifest record;
    std::string text;
    switch (tsappinstall::loadManifest(serializer, part.getInputStream(), record, text)) {
        case ManifestFault::None:
            return kGoodVerdict;
        case ManifestFault::Unreadable:
            return "the manifest cannot be read: " + text;
        case ManifestFault::MalformedXml:
            return "the manifest is not well-formed XML: " + text;
        case ManifestFault::InvalidXml:
            return "the manifest does not match the schema: " + text;
        case ManifestFault::BadFileCount:
            return "bad file count in the manifest (numFiles is not a decimal number)";
        case ManifestFault::BadSignature:
            return "the manifest's signature is missing or wrong";
    }
    return "the manifest cannot be read: " + text;
}

std::string verdictFor(const std::string& path, AppManifestSerializer& serializer) {
    const std::u16string native = fl::filesystem::detail::make_native_form(utf16(path), true);
    if (fl::filesystem::detail::extract_extension(native) != u"tsappinstall")
        return "not an app file: the extension is not .tsappinstall";
    try {
        opc::model::OpenedPackage package(native);
        const auto manifests = package->getRelationshipsByType(
            utf16(Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE));
        if (manifests.size() != 1)
            return "no single manifest relationship (found " + std::to_string(manifests.size()) +
                   ")";
        opc::model::Part part =
            package->getPart(opc::model::PartName(manifests.front().getTargetURI()));
        return manifestVerdict(serializer, part);
    } catch (const opc::Exception& e) {
        return std::string("not an app package: ") + e.what();
    }
}

// Verdicts are printed in input order as soon as they and all before them
// are known.
class OrderedPrinter {
  public:
    explicit OrderedPrinter(std::size_t count) : verdicts_(count) {}
    void put(std::size_t index, std::string verdict) {
        std::lock_guard<std::mutex> lock(mutex_);
        verdicts_[index] = std::move(verdict);
    }
    // Prints whatever is ready from the front; returns the number of bad ones.
    std::size_t flush(const std::vector<std::string>& paths) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (; printed_ < verdicts_.size() && verdicts_[printed_]; ++printed_) {
            if (*verdicts_[printed_] != kGoodVerdict) ++bad_;
            std::cout << paths[printed_] << ": " << *verdicts_[printed_] << '\n';
        }
        std::cout.flush();
        return bad_;
    }

  private:
    std::mutex mutex_;
    std::vector<std::optional<std::string>> verdicts_;
    std::size_t printed_ = 0;
    std::size_t bad_ = 0;
};

}  // namespace

int runCheck(const std::vector<std::string>& packages, unsigned jobs) {
    if (jobs == 0) jobs = std::max(1u, std::thread::hardware_concurrency());
    jobs = static_cast<unsigned>(std::min<std::size_t>(jobs, packages.size()));
    OrderedPrinter printer(packages.size());
    std::atomic<std::size_t> next{0};
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    std::size_t finishedWorkers = 0;

    auto worker = [&] {
        std::optional<AppManifestSerializer> serializer;
        std::string setupError;
        try {
            serializer.emplace();
        } catch (const std::exception& e) {
            setupError = e.what();
        }
        for (std::size_t i; (i = next++) < packages.size();) {
            std::string verdict;
            try {
                verdict = serializer ? verdictFor(packages[i], *serializer)
                                     : "cannot be checked: " + setupError;
            } catch (const std::exception& e) {
                verdict = std::string("cannot be checked: ") + e.what();
            }
            printer.put(i, std::move(verdict));
            doneSignal.notify_one();
        }
        std::lock_guard<std::mutex> lock(doneMutex);
        ++finishedWorkers;
        doneSignal.notify_one();
    };
    std::vector<std::thread> pool;
    for (unsigned j = 0; j < jobs; ++j) pool.emplace_back(worker);
    {
        std::unique_lock<std::mutex> lock(doneMutex);
        while (finishedWorkers < pool.size()) {
            doneSignal.wait_for(lock, std::chrono::milliseconds(50));
            lock.unlock();
            printer.flush(packages);
            lock.lock();
        }
    }
    for (auto& thread : pool) thread.join();
    return printer.flush(packages) == 0 ? kGood : kBad;
}

}  // namespace tsapp::tool
