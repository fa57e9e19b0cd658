// The controls an administrator reaches for beside install and remove:
// tsapp files (what an installed app's files are), tsapp owner (which
// installed app a file belongs to), tsapp hold and unhold (keep an app at
// its version), tsapp history (every change on record, who made it and
// what it installed).

#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "Commands.hpp"
#include "StoreTool.hpp"
#include "Text.hpp"
#include "tsappinstall/installer/Installer.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/timeconv/UtcText.hpp"

namespace tsapp::tool {
namespace {

using Json = nlohmann::ordered_json;
using fl::i18n::shown;

std::string octal(unsigned mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode);
    return text;
}

struct FilesSettings {
    RootOption root;
    std::string app;
    std::vector<std::string> paths;
    bool json = false;
};

// Each file of the current version by the path it is reached at, through
// the app's `current` link, as a program of the app names it.
int runFiles(const FilesSettings& s) {
    const auto apps = openExisting(s.root, false);
    if (!apps) nothingInstalled(s.app, s.root);
    const auto app = onStore(s.app, [&] { return apps->show(s.app); });
    const auto files = onStore(s.app, [&] { return apps->files(app.current.guid); });
    std::vector<std::vector<std::string>> rows = {{"MODE", "SIZE", "SHA-256", "PATH"}};
    for (const auto& file : files) {
        const std::string path = (app.link / file.path).string();
        if (s.json) {
            const Json line = {{"path", path},
                               {"file", file.path},
                               {"size", file.size},
                               {"mode", octal(file.mode)},
                               {"sha256", file.sha256}};
            std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
            continue;
        }
        rows.push_back({octal(file.mode), std::to_string(file.size), file.sha256, shown(path)});
    }
    if (!s.json) printColumns(rows);
    return kGood;
}

int runOwner(const FilesSettings& s) {
    const auto apps = openExisting(s.root, false);
    return runEach(s.paths, [&](const std::string& path) {
        const auto owner =
            apps ? onStore(path, [&] { return apps->owner(nativePath(path)); }) : std::nullopt;
        if (!owner)
            throw Failure(path, "no installed app owns it", tsappinstall::FaultKind::NotInstalled);
        const auto& v = owner->version;
        if (s.json) {
            const Json line = {{"path", path},
                               {"guid", v.guid},
                               {"name", v.name},
                               {"version", v.version},
                               {"file", owner->file.path}};
            std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
            return;
        }
        std::cout << shown(path) << ": " << shown(v.name) << " " << shown(v.version) << " ("
                  << v.guid << ")\n";
    });
}

struct HoldSettings {
    RootOption root;
    std::vector<std::string> apps;
};

int runHold(const HoldSettings& s, bool held) {
    const auto apps = openExisting(s.root, true);
    return runEach(s.apps, [&](const std::string& name) {
        if (!apps) nothingInstalled(name, s.root);
        const bool was = onStore(name, [&] { return apps->hold(name, held); });
        const auto app = onStore(name, [&] { return apps->show(name); });
        const std::string what = shown(app.current.name) + " " + shown(app.current.version);
        if (held)
            std::cout << (was ? what + " was held already" : "held " + what) << "\n";
        else
            std::cout << (was ? "let go of " + what : what + " was not held") << "\n";
    });
}

struct HistorySettings {
    RootOption root;
    std::string app;
    bool json = false;
};

// "upgrade", "install (forced)", "upgrade (forced, signer changed)".
std::string actionText(const store::HistoryEntry& e) {
    std::string notes = e.forced ? "forced" : "";
    if (e.signerChanged) notes += (notes.empty() ? "" : ", ") + std::string("signer changed");
    return notes.empty() ? e.action : e.action + " (" + notes + ")";
}

int runHistory(const HistorySettings& s) {
    const auto apps = openExisting(s.root, false);
    if (!apps) {
        if (!s.app.empty()) nothingInstalled(s.app, s.root);
        return kGood;
    }
    const std::string subject = s.app.empty() ? s.root.path().string() : s.app;
    const auto entries = onStore(subject, [&] { return apps->history(s.app); });
    std::vector<std::vector<std::string>> rows = {
        {"TIME", "USER", "ACTION", "NAME", "OLD", "NEW", "ORIGIN"}};
    for (const auto& e : entries) {
        store::InstalledVersion from;
        from.origin = e.origin;
        const auto origin = tsappinstall::installer::originOf(from);
        if (s.json) {
            const Json line = {
                {"time", tsappinstall::formatUtc(e.at)},
                {"action", e.action},
                {"uid", e.uid},
                {"user", e.user},
                {"guid", e.guid},
                {"name", e.name},
                {"oldVersion", e.oldVersion},
                {"newVersion", e.newVersion},
                {"packageSha256", e.packageSha256},
                {"signerKey", e.signer},
                {"origin", origin ? Json{{"name", origin->name}, {"location", origin->location}}
                                  : Json(nullptr)},
                {"forced", e.forced},
                {"signerChanged", e.signerChanged}};
            std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
            continue;
        }
        const std::string user = e.user.empty() ? std::to_string(e.uid) : e.user;
        rows.push_back(
            {localMinute(e.at), shown(user), actionText(e), shown(e.name),
             shown(e.oldVersion.empty() ? "-" : e.oldVersion),
             shown(e.newVersion.empty() ? "-" : e.newVersion),
             origin ? shown(origin->name.empty() ? origin->location : origin->name) : "-"});
    }
    if (!s.json && !entries.empty()) printColumns(rows);
    return kGood;
}

}  // namespace

std::vector<Command> addFiles(CLI::App& app) {
    auto listed = std::make_shared<FilesSettings>();
    CLI::App* files = app.add_subcommand(
        "files", "List an installed app's files as recorded: mode, size, SHA-256 and path.");
    addRequired(files, "APP", listed->app, "Installed app: GUID or name");
    files->add_flag("--json", listed->json, "One JSON object per line and file");
    addRoot(files, listed->root);

    auto owned = std::make_shared<FilesSettings>();
    CLI::App* owner = app.add_subcommand(
        "owner", "Name the installed app each file belongs to; exit 1 for one no app owns.");
    addRequired(owner, "PATH", owned->paths, "Files below the apps root");
    owner->add_flag("--json", owned->json, "One JSON object per line and file");
    addRoot(owner, owned->root);

    auto holding = std::make_shared<HoldSettings>();
    CLI::App* hold = app.add_subcommand(
        "hold",
        "Keep installed apps at their version: upgrade --all passes them by, and "
        "upgrade and install refuse to replace them unless --ignore-hold.");
    addRequired(hold, "APP", holding->apps, "Installed app: GUID or name");
    addRoot(hold, holding->root);
    auto letting = std::make_shared<HoldSettings>();
    CLI::App* unhold = app.add_subcommand("unhold", "Let held apps be upgraded again.");
    addRequired(unhold, "APP", letting->apps, "Installed app: GUID or name");
    addRoot(unhold, letting->root);

    auto recorded = std::make_shared<HistorySettings>();
    CLI::App* history =
        app.add_subcommand("history",
                           "List every change to the installed apps, oldest first: when, by whom, "
                           "what, from which version to which and where from.");
    history->add_option("APP", recorded->app,
                        "An app's GUID or name (a removed app's last name too); all by default");
    history->add_flag("--json", recorded->json, "One JSON object per line and change");
    addRoot(history, recorded->root);

    return {{files, [listed] { return runFiles(*listed); }, [listed] { return listed->app; }},
            {hold, [holding] { return runHold(*holding, true); }, rootSubject(holding->root)},
            {unhold, [letting] { return runHold(*letting, false); }, rootSubject(letting->root)},
            {owner, [owned] { return runOwner(*owned); }, rootSubject(owned->root)},
            {history, [recorded] { return runHistory(*recorded); },
             [recorded] {
                 return recorded->app.empty() ? rootSubject(recorded->root)() : recorded->app;
             }}};
}

}  // namespace tsapp::tool
