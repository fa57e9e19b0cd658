#pragma once

// What the store's commands share with the commands that install from
// repositories: the apps root, the host profile and one install.

#include <filesystem>
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

// ROOT/host.json, overridden by --host-release, --platform and --product.
struct HostOptions {
    std::string release, platform;
    std::vector<std::string> products;  // ID=VERSION
};

void addHostOptions(CLI::App* command, HostOptions& options);
tsappinstall::store::HostProfile hostProfile(const HostOptions& options,
                                             const std::filesystem::path& root);

// Installs `package`, shown as `shown` in what is printed; one result line.
void installOne(tsappinstall::store::AppStore& apps, const std::string& package,
                const std::string& shown, const tsappinstall::store::HostProfile& host,
                tsappinstall::store::InstallOptions options);

}  // namespace tsapp::tool
