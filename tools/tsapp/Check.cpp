// tsapp check: one verdict line per package, in the order given.
//
// The facade folds every manifest problem into one error; the check reads
// the package and the manifest through the package layer and the
// serializer directly so it can say which rule a package breaks. Packages
// are checked by a pool of workers, each with its own serializer, so the
// schema is compiled once per worker rather than once per package.

#include <algorithm>
#include <atomic>
#include <boost/lexical_cast.hpp>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/filesystem/Path.hpp"
#include "tsappinstall/platform/opc/Package.hpp"
#include "tsappinstall/platform/opc/XercesHelper.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace tsapp::tool {
namespace {

using namespace tsapp_builtins::tsapp_builtins;

const char* const kGoodVerdict = "OK";

// Tells a manifest that is not XML at all from one that breaks the schema:
// only the first fails a parse without the schema.
std::string xmlReason(opc::model::Part& part, const std::string& error) {
    opc::model::XercesPtr<xercesc::DOMLSParser> plain(opc::model::XercesHelper::createParser());
    try {
        opc::model::XercesHelper::readDocumentFromStream(plain.get(), part.getInputStream(), true,
                                                         u"", u"");
    } catch (const opc::Exception&) {
        return "the manifest is not well-formed XML: " + error;
    }
    return "the manifest does not match the schema: " + error;
}

std::string manifestVerdict(AppManifestSerializer& serializer, opc::model::Part& part) {
    AppManifest record;
    try {
        serializer.load(part.getInputStream(), record);
    } catch (const boost::bad_lexical_cast&) {
        return "bad file count in the manifest (numFiles is not a decimal number)";
    } catch (const std::runtime_error& e) {
        const std::string what = e.what();
        if (what == message_text(TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION()))
            return "the manifest's signature is missing or wrong";
        if (what == message_text(TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR()))
            return "the manifest cannot be read: " + what;
        return xmlReason(part, what);
    }
    return kGoodVerdict;
}

std::string verdictFor(const std::string& path, AppManifestSerializer& serializer) {
    const std::u16string native = fl::filesystem::detail::make_native_form(utf16(path), true);
    if (fl::filesystem::detail::extract_extension(native) != u"tsappinstall")
        return "not an app file: the extension is not .tsappinstall";
    try {
        opc::zippackage::ZipPhysicalPackage container(native, true);
        opc::model::Package package(container);
        package.open(opc::interfaces::OpenMode::Read);
        const auto manifests = package.getRelationshipsByType(
            utf16(Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE));
        if (manifests.size() != 1)
            return "no single manifest relationship (found " + std::to_string(manifests.size()) +
                   ")";
        opc::model::Part part =
            package.getPart(opc::model::PartName(manifests.front().getTargetURI()));
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
