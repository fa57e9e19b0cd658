// The repository commands on an apps root: repo add, list and remove,
// install by name, outdated and upgrade. The library's installer keeps the
// records; this file parses and prints.

#include "RepoClient.hpp"

#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "Progress.hpp"
#include "StoreTool.hpp"
#include "Text.hpp"
#include "tsappinstall/installer/Installer.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsapp::tool {
namespace {

using Json = nlohmann::ordered_json;

// The progress line of the download under way, on a terminal.
std::optional<ProgressLine> downloading;

installer::InstallerOptions installerOptions() {
    installer::InstallerOptions options;
    if (::isatty(STDERR_FILENO))
        options.progress = [](std::uint64_t done, std::uint64_t size) {
            if (downloading) downloading->update(done, size, done == size ? 1 : 0, 1);
        };
    return options;
}

void installOffer(installer::Installer& installer, const installer::Offer& offer,
                  const store::HostProfile& host, const store::InstallOptions& options) {
    const std::string subject = offer.entry->name + " " + offer.entry->version;
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
}

void installArgument(store::AppStore& apps, const std::string& argument,
                     const RepositoryChoice& choice, const store::HostProfile& host,
                     const store::InstallOptions& options) {
    std::error_code error;
    const bool file = std::filesystem::is_regular_file(nativePath(argument), error);
    installer::Installer installer(apps, installerOptions());
    std::vector<installer::Remote> where;
    if (!file && !choice.location.empty())
        where.push_back({"", choice.location, options.trustAnchors, choice.serverCa});
    if (file || (where.empty() && installer.remotes().empty()))
        return installOne(apps, argument, argument, host, options);
    for (auto& remote : where) {  // recorded as the origin: later commands run elsewhere
        for (auto& trust : remote.trust) trust = std::filesystem::absolute(trust).string();
        if (!remote.serverCa.empty())
            remote.serverCa = std::filesystem::absolute(remote.serverCa).string();
    }
    const auto offer =
        onRepository(argument, [&] { return installer.find(argument, host, where); });
    if (!offer)
        throw Failure(argument, "no repository offers a version of it that fits this host",
                      tsappinstall::FaultKind::NotOffered);
    installOffer(installer, *offer, host, options);
}

std::vector<std::shared_ptr<const repository::Repository>> recordedIndexes(
    const std::string& root) {
    const auto apps = openExisting(RootOption{root}, false);
    if (!apps) return {};
    installer::Installer installer(*apps);
    return onRepository(root, [&] { return installer.indexes(); });
}

namespace {

struct UpgradeSettings {
    RootOption root;
    HostOptions host;
    std::vector<std::string> apps;
    bool all = false;
    bool json = false;
    store::InstallOptions options;
};

int runOutdated(const UpgradeSettings& s) {
    const auto apps = openExisting(s.root, false);
    if (!apps) return kGood;
    installer::Installer installer(*apps);
    const auto host = hostProfile(s.host, apps->root());
    for (const auto& o : onRepository("outdated", [&] { return installer.outdated({}, host); })) {
        if (s.json) {
            const Json line = {{"guid", o.installed.guid},
                               {"name", o.installed.name},
                               {"installed", o.installed.version},
                               {"available", o.offer.entry->version},
                               {"repository", o.offer.remote.key()}};
            std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
            continue;
        }
        std::cout << fl::i18n::shown(o.installed.guid) << "  "
                  << fl::i18n::shown(o.installed.version) << " -> "
                  << fl::i18n::shown(o.offer.entry->version) << "  "
                  << fl::i18n::shown(o.installed.name) << "\n";
    }
    return kGood;
}

int runUpgrade(const UpgradeSettings& s) {
    if (s.all == !s.apps.empty()) throw UsageError("upgrade", "name the apps, or give --all");
    catchStopSignals();
    const auto apps = openRoot(s.root);
    const auto host = hostProfile(s.host, apps->root());
    for (const auto& app : s.apps) onStore(app, [&] { return apps->show(app); });
    installer::Installer installer(*apps, installerOptions());
    const auto outdated = onRepository("upgrade", [&] { return installer.outdated(s.apps, host); });
    if (outdated.empty()) std::cout << "every app is up to date\n";
    return runEach(outdated, [&](const installer::Outdated& o) {
        installOffer(installer, o.offer, host, s.options);
    });
}

}  // namespace

std::vector<Command> addUpgrade(CLI::App& app) {
    auto old = std::make_shared<UpgradeSettings>();
    CLI::App* outdated = app.add_subcommand(
        "outdated", "List installed apps whose repository has a newer version that fits.");
    outdated->add_flag("--json", old->json, "One JSON object per line and app");
    addRoot(outdated, old->root);
    addHostOptions(outdated, old->host);

    auto up = std::make_shared<UpgradeSettings>();
    CLI::App* upgrade = app.add_subcommand(
        "upgrade", "Install the newer versions outdated lists, as install would.");
    addNonEmpty(upgrade, "APP", up->apps, "Installed app: GUID or name");
    upgrade->add_flag("--all", up->all, "Every installed app");
    upgrade->add_flag("--json", up->json, "Failures also as JSON objects on stdout, one per line");
    addRoot(upgrade, up->root);
    addHostOptions(upgrade, up->host);
    upgrade->add_flag("--allow-signer-change", up->options.allowSignerChange,
                      "Upgrade even when another key signed the installed version and the package "
                      "carries no key rotation proof from it");
    addUnpackOptions(upgrade, up->options);
    return {{outdated, [old] { return runOutdated(*old); }, rootSubject(old->root)},
            {upgrade, [up] { return runUpgrade(*up); }, rootSubject(up->root)}};
}

}  // namespace tsapp::tool
