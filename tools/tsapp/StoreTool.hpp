#pragma once

// What the store's commands share with the commands that install from
// repositories: the apps root, the host profile and one install.

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "Progress.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsapp::tool {

namespace store = tsappinstall::store;

struct RootOption {
    std::string root;
    long waitSeconds = -1;  // --wait; -1: as long as it takes
    bool noWait = false;
    std::filesystem::path path() const;
    // How the store waits for the root's lock, saying so once on stderr.
    tsappinstall::store::AppStore::Options storeOptions() const;
};

// --root, --wait and --no-wait.
void addRoot(CLI::App* command, RootOption& option);

// The root as a command's subject: its --root, or "the apps root".
std::function<std::string()> rootSubject(const RootOption& option);

// The store in the root, created when missing; a root this command made is
// taken away again when nothing was recorded in it (a first install that
// failed). Throws a Failure for a root that is anything but a folder.
std::unique_ptr<tsappinstall::store::AppStore> openRoot(const RootOption& option);

// The store in the root, or null when the root holds none: commands that
// only read or take away leave such a root as it is rather than create it.
// A reader (`writes` false) that may not write the root reads it
// read-only. A root that is not a folder is a Failure, and so is a missing
// one when `mustExist`.
std::unique_ptr<tsappinstall::store::AppStore> openExisting(const RootOption& option, bool writes,
                                                            bool mustExist = false);
// A command about `app` on a root that holds no store.
[[noreturn]] void nothingInstalled(const std::string& app, const RootOption& root);

// Every line of a store's refusal, the last one thrown as a Failure about
// `subject` (about the root when the database is at fault).
[[noreturn]] void failOnStore(const std::string& subject,
                              const tsappinstall::store::StoreError& error);

template <class Run>
auto onStore(const std::string& subject, Run run) {
    try {
        return run();
    } catch (const tsappinstall::store::StoreError& error) {
        failOnStore(subject, error);
    }
}

// Runs `run`: a store's refusal as failOnStore(subject) does; a library
// failure that names its item (the repository) as a Failure about that
// item, of its kind.
template <class Run>
auto onRepository(const std::string& subject, Run run) {
    try {
        return onStore(subject, run);
    } catch (const Failure&) {
        throw;
    } catch (const tsappinstall::Error& error) {
        if (error.fault().item.empty()) throw;
        throw Failure(error.fault().item, error.what(), error.kind());
    }
}

// Runs `run` on each of `items` in turn: a Failure is reported and the
// next item tried (the status is then 1); a stop signal ends the loop with
// 128 + its number, what is left untried.
template <class Items, class Run>
int runEach(const Items& items, Run run) {
    int status = kGood;
    for (const auto& item : items) {
        try {
            run(item);
        } catch (const Failure& e) {
            reportFailure(e);
            status = kBad;
        }
        if (caughtSignal) return 128 + caughtSignal;
    }
    return status;
}

// ROOT/host.json, overridden by --host-release, --platform and --product.
struct HostOptions {
    std::string release, platform;
    std::vector<std::string> products;  // ID=VERSION
};

void addHostOptions(CLI::App* command, HostOptions& options);

// --sync and -j of install and upgrade: how the store unpacks.
void addUnpackOptions(CLI::App* command, tsappinstall::store::InstallOptions& options);
tsappinstall::store::HostProfile hostProfile(const HostOptions& options,
                                             const std::filesystem::path& root);

// Installs through `run`, given `options` with the progress line and the
// stop signals added; prints one result line. Failures and warnings are
// about `subject`.
void installWith(const std::string& subject, tsappinstall::store::InstallOptions options,
                 const std::function<tsappinstall::store::InstallResult(
                     const tsappinstall::store::InstallOptions&)>& run);

// The store in the root for a command given --dry-run: read-only when the
// root holds one; else an empty one that is taken away again, so that the
// root is left as it was either way.
std::unique_ptr<tsappinstall::store::AppStore> openForPlan(const RootOption& option,
                                                           unsigned keep = 1);

// --dry-run and --json of a command that installs, removes or rolls back.
void addPlanFlags(CLI::App* command);

// What an operation would do: lines of text, or one JSON object with --json.
void printPlan(const tsappinstall::store::Plan& plan);

// Installs the package file `package`, called `subject` in messages.
void installOne(tsappinstall::store::AppStore& apps, const std::string& package,
                const std::string& subject, const tsappinstall::store::HostProfile& host,
                const tsappinstall::store::InstallOptions& options);

}  // namespace tsapp::tool
