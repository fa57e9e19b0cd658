#pragma once

// Installing from repositories: the ones recorded in an apps root or named
// with --repo, through the library's installer, which keeps the records.

#include <memory>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "tsappinstall/installer/Installer.hpp"
#include "tsappinstall/repository/Client.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsapp::tool {

namespace installer = tsappinstall::installer;
namespace repository = tsappinstall::repository;

// --repo LOCATION and --repo-ca PEM of install; install's --trust files
// also check the index's signature.
struct RepositoryChoice {
    std::string location;
    std::string serverCa;
    bool full = false;  // download whole packages, never in ranges
};

void addRepositoryOptions(CLI::App* install, RepositoryChoice& choice);
// --full of install and upgrade.
void addFullFlag(CLI::App* command, bool& full);

// Installs `argument`: a package file as it is; an app's name or GUID,
// when no such file exists, as the newest version that fits `host` in the
// repository chosen or, without one, in the recorded ones.
void installArgument(tsappinstall::store::AppStore& apps, const std::string& argument,
                     const RepositoryChoice& choice, const tsappinstall::store::HostProfile& host,
                     const tsappinstall::store::InstallOptions& options);

// The indexes `search` reads when it is given no --repo: every
// repository recorded in the apps root `root` ("" for the default one),
// each held to the highest index version seen of it before.
std::vector<std::shared_ptr<const tsappinstall::repository::Repository>> recordedIndexes(
    const std::string& root);

}  // namespace tsapp::tool
