#pragma once

// What the store's commands share with the commands that install from
// repositories: the apps root, the host profile and one install.

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsapp::tool {

struct RootOption {
    std::string root;
    std::filesystem::path path() const;
};

void addRoot(CLI::App* command, RootOption& option);

// The root as a command's subject: its --root, or "the apps root".
std::function<std::string()> rootSubject(const RootOption& option);

// The store in the root, created when missing.
std::unique_ptr<tsappinstall::store::AppStore> openRoot(const RootOption& option);

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
        return run();
    } catch (const tsappinstall::store::StoreError& error) {
        failOnStore(subject, error);
    } catch (const Failure&) {
        throw;
    } catch (const tsappinstall::Error& error) {
        if (error.fault().item.empty()) throw;
        throw Failure(error.fault().item, error.what(), error.kind());
    }
}

// ROOT/host.json, overridden by --host-release, --platform and --product.
struct HostOptions {
    std::string release, platform;
    std::vector<std::string> products;  // ID=VERSION
};

void addHostOptions(CLI::App* command, HostOptions& options);
tsappinstall::store::HostProfile hostProfile(const HostOptions& options,
                                             const std::filesystem::path& root);

// Installs through `run`, given `options` with the progress line and the
// stop signals added; prints one result line about `shown`.
void installWith(const std::string& shown, tsappinstall::store::InstallOptions options,
                 const std::function<tsappinstall::store::InstallResult(
                     const tsappinstall::store::InstallOptions&)>& run);

// Installs the package file `package`, shown as `shown`.
void installOne(tsappinstall::store::AppStore& apps, const std::string& package,
                const std::string& shown, const tsappinstall::store::HostProfile& host,
                const tsappinstall::store::InstallOptions& options);

}  // namespace tsapp::tool
