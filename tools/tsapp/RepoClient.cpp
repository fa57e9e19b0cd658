// The repository commands on an apps root: repo add, list and remove,
// install by name, outdated and upgrade. The library's installer keeps the
// records; this file parses and prints.

#include "RepoClient.hpp"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <tuple>
#include <utility>

#include "Progress.hpp"
#include "StoreTool.hpp"
#include "Text.hpp"
#include "tsappinstall/installer/Installer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsapp::tool {
namespace {

using Json = nlohmann::ordered_json;

// The progress line of the download under way, on a terminal.
std::optional<ProgressLine> downloading;

installer::InstallerOptions installerOptions(bool full = false) {
    installer::InstallerOptions options;
    options.full = full;
    options.note = [](const std::string& line) { printError(line); };
    if (::isatty(STDERR_FILENO))
        options.progress = [](std::uint64_t done, std::uint64_t size) {
            if (downloading) downloading->update(done, size, done == size ? 1 : 0, 1);
        };
    return options;
}

void installOffer(installer::Installer& installer, const installer::Offer& offer,
                  const store::HostProfile& host, const store::InstallOptions& options) {
    const std::string subject = offer.entry->name + " " + offer.entry->version;
    if (dryRun) {
        printPlan(onRepository(subject, [&] { return installer.plan(offer, host, options); }));
        return;
    }
    installWith(subject, options, [&](const store::InstallOptions& with) {
        struct Showing {
            Showing() { downloading.emplace(); }
            ~Showing() { downloading.reset(); }  // cleared before the result line
        } showing;
        return onRepository(subject, [&] { return installer.install(offer, host, with); });
    });
}

}  // namespace

void addRepositoryOptions(CLI::App* install, RepositoryChoice& choice) {
    addNonEmpty(install, "--repo", choice.location,
                "Install apps named by name or GUID from this repository (a folder, a file: or "
                "http(s): URL); --trust checks its index");
    addNonEmpty(install, "--repo-ca", choice.serverCa,
                "PEM file of the CA for an https: repository (default: the system's)");
    addFullFlag(install, choice.full);
}

void addFullFlag(CLI::App* command, bool& full) {
    command->add_flag("--full", full,
                      "Download whole packages, even where only the files that differ from the "
                      "installed version would be fetched");
}

namespace {

// A package file as the user would name one: with the extension, or a
// path. A name is looked for in repositories and never taken for a file
// that happens to lie in the current folder, nor the other way round.
bool namesFile(const std::string& argument) {
    const std::string extension = std::string(".") + Corvane::addons::apps::APP_FILE_EXTENSION;
    return argument == "-" || argument.find('/') != std::string::npos ||
           (argument.size() > extension.size() &&
            argument.compare(argument.size() - extension.size(), extension.size(), extension) == 0);
}

// "Name@1.2.0": the app and the version asked for; the whole argument when
// what follows the last "@" is no version (empty, or with spaces).
std::pair<std::string, std::string> splitVersion(const std::string& argument) {
    const auto at = argument.rfind('@');
    if (at == std::string::npos || at == 0 || at + 1 == argument.size() ||
        argument.find_first_of(" \t", at) != std::string::npos)
        return {argument, ""};
    return {argument.substr(0, at), argument.substr(at + 1)};
}

// Looking in several repositories, one that cannot be read is said and
// the others are used.
installer::InstallerOptions reportingInstallerOptions(bool full = false) {
    installer::InstallerOptions options = installerOptions(full);
    options.unreachable = [](const installer::Remote& remote, const tsappinstall::Error& e) {
        printError(remote.key() + ": left out: " + e.what());
    };
    return options;
}

}  // namespace

void installArgument(store::AppStore& apps, const std::string& argument,
                     const RepositoryChoice& choice, const store::HostProfile& host,
                     const store::InstallOptions& options) {
    if (namesFile(argument)) {
        if (!choice.location.empty())
            throw UsageError(argument, "--repo installs apps by name or GUID, not package files");
        withPackage(argument, [&](const std::string& path) {
            requireAppFileName(path);
            installOne(apps, path, shownPackage(argument), host, options);
            return kGood;
        });
        return;
    }
    installer::Installer installer(apps, reportingInstallerOptions(choice.full));
    std::vector<installer::Remote> where;
    if (!choice.location.empty())
        where.push_back({"", choice.location, options.trustAnchors, choice.serverCa});
    if (where.empty() && installer.remotes().empty())
        throw Failure(argument,
                      "no repository is recorded to look for it in; give a package file "
                      "(NAME.tsappinstall), --repo LOCATION, or add one with tsapp repo add",
                      tsappinstall::FaultKind::NotOffered);
    for (auto& remote : where) {  // recorded as the origin: later commands run elsewhere
        for (auto& trust : remote.trust) trust = std::filesystem::absolute(trust).string();
        if (!remote.serverCa.empty())
            remote.serverCa = std::filesystem::absolute(remote.serverCa).string();
    }
    auto [app, version] = splitVersion(argument);
    installer::FindOptions wanted{version, options.force};
    auto offer = onRepository(argument, [&] { return installer.find(app, host, where, wanted); });
    if (!offer && !version.empty()) {  // an app whose name holds an "@"
        wanted.version.clear();
        app = argument;
        offer = onRepository(argument, [&] { return installer.find(app, host, where, wanted); });
        if (!offer) std::tie(app, wanted.version) = splitVersion(argument);
    }
    if (!offer)
        throw Failure(
            argument,
            onRepository(argument, [&] { return installer.whyNotFound(app, host, where, wanted); }),
            tsappinstall::FaultKind::NotOffered);
    installOffer(installer, *offer, host, options);
}

std::vector<std::shared_ptr<const repository::Repository>> recordedIndexes(
    const std::string& root) {
    const auto apps = openExisting(RootOption{root}, false);
    if (!apps) return {};
    installer::Installer installer(*apps, reportingInstallerOptions());
    return onRepository(root, [&] { return installer.indexes(); });
}

namespace {

struct UpgradeSettings {
    RootOption root;
    HostOptions host;
    std::vector<std::string> apps;
    bool all = false;
    bool json = false;
    bool full = false;
    store::InstallOptions options;
};

// Exit status of outdated when some app can be upgraded, so that a script
// can tell it from "all up to date" (0) and from a failure (1).
constexpr int kUpgradable = 100;

int runOutdated(const UpgradeSettings& s) {
    const auto apps = openExisting(s.root, false);
    if (!apps) return kGood;
    installer::Installer installer(*apps, reportingInstallerOptions());
    const auto host = hostProfile(s.host, apps->root());
    auto found = onRepository("outdated", [&] { return installer.outdated({}, host); });
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
        return byName(a.installed.name, b.installed.name);
    });
    std::vector<std::vector<std::string>> rows = {
        {"NAME", "INSTALLED", "AVAILABLE", "REPOSITORY", ""}};
    bool upgradable = false;
    for (const auto& o : found) {
        upgradable = upgradable || !o.held;
        if (s.json) {
            const Json line = {
                {"guid", o.installed.guid},           {"name", o.installed.name},
                {"installed", o.installed.version},   {"available", o.offer.entry->version},
                {"repository", o.offer.remote.key()}, {"held", o.held}};
            std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
            continue;
        }
        using fl::i18n::shown;
        rows.push_back({shown(o.installed.name), shown(o.installed.version),
                        shown(o.offer.entry->version), shown(o.offer.remote.key()),
                        o.held ? "held" : ""});
    }
    if (!s.json && !found.empty()) printColumns(rows);
    return upgradable ? kUpgradable : kGood;
}

int runUpgrade(const UpgradeSettings& s) {
    if (s.all && !s.apps.empty())
        throw UsageError("upgrade", "give --all or name the apps, not both");
    if (!s.all && s.apps.empty()) throw UsageError("upgrade", "name the apps, or give --all");
    catchStopSignals();
    const auto apps = dryRun ? openForPlan(s.root) : openRoot(s.root);
    const auto host = hostProfile(s.host, apps->root());
    for (const auto& app : s.apps) onStore(app, [&] { return apps->show(app); });
    installer::Installer installer(*apps, reportingInstallerOptions(s.full));
    if (installer.remotes().empty())
        throw Failure("upgrade",
                      "no repository is recorded to look for newer versions in; add "
                      "one with tsapp repo add",
                      tsappinstall::FaultKind::NotOffered);
    const auto outdated = onRepository("upgrade", [&] { return installer.outdated(s.apps, host); });
    if (outdated.empty() && !jsonFailures) std::cout << "every app is up to date\n";
    return runEach(outdated, [&](const installer::Outdated& o) {
        if (o.held && s.all && !s.options.ignoreHold) {
            printError(o.installed.name + ": held at version " + o.installed.version + "; " +
                       o.offer.entry->version + " is not installed (tsapp unhold lets it go)");
            return;
        }
        installOffer(installer, o.offer, host, s.options);
    });
}

}  // namespace

std::vector<Command> addUpgrade(CLI::App& app) {
    auto old = std::make_shared<UpgradeSettings>();
    CLI::App* outdated = app.add_subcommand(
        "outdated",
        "List installed apps whose repository has a newer version that fits; exit status 100 "
        "when there is one, 0 when every app is up to date.");
    outdated->add_flag("--json", old->json, "One JSON object per line and app");
    addRoot(outdated, old->root);
    addHostOptions(outdated, old->host);

    auto up = std::make_shared<UpgradeSettings>();
    CLI::App* upgrade = app.add_subcommand(
        "upgrade", "Install the newer versions outdated lists, as install would.");
    addNonEmpty(upgrade, "APP", up->apps, "Installed app: GUID or name");
    upgrade->add_flag("--all", up->all, "Every installed app");
    addRoot(upgrade, up->root);
    addPlanFlags(upgrade);
    addHostOptions(upgrade, up->host);
    upgrade->add_flag("--allow-signer-change", up->options.allowSignerChange,
                      "Upgrade even when another key signed the installed version and the package "
                      "carries no key rotation proof from it");
    addUnpackOptions(upgrade, up->options);
    upgrade->add_flag("--ignore-hold", up->options.ignoreHold, "Upgrade held apps too");
    addFullFlag(upgrade, up->full);
    return {{outdated, [old] { return runOutdated(*old); }, rootSubject(old->root)},
            {upgrade, [up] { return runUpgrade(*up); }, rootSubject(up->root)}};
}

}  // namespace tsapp::tool
