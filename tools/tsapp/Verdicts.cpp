#include "Verdicts.hpp"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include "Commands.hpp"
#include "tsappinstall/Threads.hpp"

namespace tsapp::tool {
namespace {

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

}  // namespace

namespace {

// `stdinCopy`: the file standard input was copied into, for "-".
int judgeEach(const std::vector<std::string>& packages, const VerdictOptions& options,
              const std::function<Judge()>& makeJudge, const std::string& stdinCopy) {
    const unsigned jobs = workersFor(options, packages.size()).packages;
    OrderedPrinter printer(packages.size());
    std::atomic<std::size_t> next{0};
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    std::size_t finishedWorkers = 0;

    auto worker = [&] {
        const Judge judge = makeJudge();
        for (std::size_t i; (i = next++) < packages.size();) {
            const std::string& package = packages[i];
            printer.put(i, judge(package == "-" ? stdinCopy : package, shownPackage(package)));
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
    if (!options.json && !(options.quiet && bad == 0))
        std::cout << bad << " of " << packages.size() << " packages bad\n";
    return bad == 0 ? kGood : kBad;
}

}  // namespace

void addVerdictOptions(CLI::App* command, VerdictOptions& options, const std::string& judged) {
    addJobs(
        command, options.jobs,
        "Packages " + judged + " at once, the jobs left over decoding the parts of fewer packages");
    command->add_flag("--json", options.json, "One JSON object per line and package, every fault");
    command->add_flag("-q,--quiet", options.quiet, "Print only the bad packages");
}

Workers workersFor(const VerdictOptions& options, std::size_t packages) {
    const unsigned asked = tsappinstall::jobsOrCores(options.jobs);
    const auto judges = static_cast<unsigned>(std::clamp<std::size_t>(packages, 1, asked));
    return {judges, std::max(1u, asked / judges)};
}

int judgeAll(const std::vector<std::string>& packages, const VerdictOptions& options,
             const std::function<Judge()>& makeJudge) {
    const auto fromStdin = std::count(packages.begin(), packages.end(), "-");
    if (fromStdin > 1) throw UsageError("-", "standard input can be read only once");
    if (fromStdin == 0) return judgeEach(packages, options, makeJudge, {});
    return withPackage("-", [&](const std::string& copy) {
        return judgeEach(packages, options, makeJudge, copy);
    });
}

nlohmann::ordered_json faultJson(const tsappinstall::Fault& fault) {
    return {
        {"kind", tsappinstall::token(fault.kind)}, {"item", fault.item}, {"text", fault.detail}};
}

std::string jsonLine(const nlohmann::ordered_json& object) {
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

}  // namespace tsapp::tool
