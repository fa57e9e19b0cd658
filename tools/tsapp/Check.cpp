// tsapp check: one verdict per package, in the order given, then a count.
//
// The analysis is the library's package check; this file only runs it on a
// pool of workers, each with its own serializer so the schema is compiled
// once per worker rather than once per package, and prints the reports.
// Threads that would find no package of their own decode parts instead.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace tsapp::tool {
namespace {

namespace inspect = tsappinstall::inspect;

struct CheckOptions {
    unsigned jobs = 0;
    bool json = false;
    bool quiet = false;  // only the bad packages
    bool all = false;    // every fault, not only the first
};

struct Verdict {
    bool bad = false;
    std::string text;  // what to print, possibly empty
};

Verdict format(const std::string& path, const inspect::Report& report,
               const CheckOptions& options) {
    Verdict verdict{!report.good(), {}};
    if (options.quiet && !verdict.bad) return verdict;
    if (options.json) {
        auto faults = nlohmann::ordered_json::array();
        for (const auto& fault : report.faults)
            faults.push_back(
                {{"kind", tsappinstall::describe(fault.kind)}, {"text", fault.detail}});
        const nlohmann::ordered_json object = {
            {"package", path}, {"good", report.good()}, {"faults", faults}};
        verdict.text =
            object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
        return verdict;
    }
    verdict.text = path + ": " + (report.good() ? "OK" : report.faults.front().detail) + '\n';
    if (options.all)
        for (std::size_t i = 1; i < report.faults.size(); ++i)
            verdict.text += "  " + report.faults[i].detail + '\n';
    return verdict;
}

inspect::Report unchecked(const std::string& why) {
    inspect::Report report;
    report.faults.push_back(
        {inspect::FaultKind::UnreadablePackage, {}, "cannot be checked: " + why});
    return report;
}

// Verdicts are printed in input order as soon as they and all before them
// are known.
class OrderedPrinter {
  public:
    explicit OrderedPrinter(std::size_t count) : verdicts_(count) {}
    void put(std::size_t index, Verdict verdict) {
        std::lock_guard<std::mutex> lock(mutex_);
        verdicts_[index] = std::move(verdict);
    }
    // Prints whatever is ready from the front; returns the number of bad ones.
    std::size_t flush() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (; printed_ < verdicts_.size() && verdicts_[printed_]; ++printed_) {
            if (verdicts_[printed_]->bad) ++bad_;
            std::cout << verdicts_[printed_]->text;
        }
        std::cout.flush();
        return bad_;
    }

  private:
    std::mutex mutex_;
    std::vector<std::optional<Verdict>> verdicts_;
    std::size_t printed_ = 0;
    std::size_t bad_ = 0;
};

int runCheck(const std::vector<std::string>& packages, const CheckOptions& options) {
    const unsigned asked =
        options.jobs ? options.jobs : std::max(1u, std::thread::hardware_concurrency());
    // Fewer packages than jobs: the jobs left over decode the parts of one
    // package on several threads.
    const auto jobs = static_cast<unsigned>(std::min<std::size_t>(asked, packages.size()));
    const unsigned threadsPerPackage = std::max(1u, asked / jobs);
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
            inspect::Report report;
            try {
                report = serializer ? inspect::checkPackage(packages[i], *serializer, true,
                                                            threadsPerPackage)
                                    : unchecked(setupError);
            } catch (const std::exception& e) {
                report = unchecked(e.what());
            }
            printer.put(i, format(packages[i], report, options));
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
            printer.flush();
            lock.lock();
        }
    }
    for (auto& thread : pool) thread.join();
    const std::size_t bad = printer.flush();
    if (!options.json) std::cout << bad << " of " << packages.size() << " packages bad\n";
    return bad == 0 ? kGood : kBad;
}

}  // namespace

std::vector<Command> addCheck(CLI::App& app) {
    struct Options {
        std::vector<std::string> packages;
        CheckOptions checking;
    };
    auto o = std::make_shared<Options>();
    CLI::App* check = app.add_subcommand(
        "check", "Check every part, the manifest, its seal and the files it lists.");
    check->add_option("PKG", o->packages, "App packages")->required()->check(nonEmpty());
    check->add_option(
        "-j,--jobs", o->checking.jobs,
        "Threads checking packages, or the parts of fewer packages (default: one per core)");
    check->add_flag("--json", o->checking.json,
                    "One JSON object per line and package, every fault");
    check->add_flag("-q,--quiet", o->checking.quiet, "Print only the bad packages");
    check->add_flag("-a,--all,--verbose", o->checking.all, "List every fault, not only the first");
    // Each package's failure is reported on its own line; what escapes is
    // about no one file.
    return {
        {check, [o] { return runCheck(o->packages, o->checking); }, [] { return std::string(); }}};
}

}  // namespace tsapp::tool
