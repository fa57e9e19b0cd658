// The app store's commands: install, installed (list-installed), show,
// remove, rollback and audit, all on one apps root (--root, else
// TSAPP_ROOT, else a folder of the user's under $XDG_DATA_HOME).

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "Progress.hpp"
#include "RepoClient.hpp"
#include "StoreTool.hpp"
#include "Text.hpp"
#include "tsappinstall/installer/Installer.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/store/AppStore.hpp"
#include "tsappinstall/timeconv/UtcText.hpp"

namespace tsapp::tool {
namespace {

using Json = nlohmann::ordered_json;
using fl::i18n::shown;

std::string defaultRoot() {
    if (const char* root = std::getenv("TSAPP_ROOT"); root && *root) return root;
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data)
        return std::string(data) + "/tsapp/apps";
    if (const char* home = std::getenv("HOME"); home && *home)
        return std::string(home) + "/.local/share/tsapp/apps";
    throw Failure("--root", "no apps root: give --root, or set TSAPP_ROOT or HOME");
}

}  // namespace

std::filesystem::path RootOption::path() const {
    return nativePath(root.empty() ? defaultRoot() : root);
}

store::AppStore::Options RootOption::storeOptions() const {
    store::AppStore::Options options;
    if (noWait)
        options.lockWait = std::chrono::milliseconds(0);
    else if (waitSeconds >= 0)
        options.lockWait = std::chrono::seconds(waitSeconds);
    options.lockWaiting = [root = path().string()](long pid) {
        printError("waiting for " + shown(root) +
                   (pid > 0 ? " (held by pid " + std::to_string(pid) + ")" : std::string()));
    };
    return options;
}

void addRoot(CLI::App* command, RootOption& option) {
    addNonEmpty(command, "--root", option.root,
                "Apps root (default: $TSAPP_ROOT, else $XDG_DATA_HOME/tsapp/apps, else "
                "~/.local/share/tsapp/apps)");
    auto* wait = command->add_option("--wait", option.waitSeconds,
                                     "Give up after SECONDS when another process holds the root "
                                     "(default: wait as long as it takes)");
    wait->type_name("SECONDS")->check(CLI::NonNegativeNumber);
    command
        ->add_flag("--no-wait", option.noWait, "Fail at once when another process holds the root")
        ->excludes(wait);
}

namespace {

// A root given as something else than a folder is a mistake to report,
// never a root that holds nothing; so is a missing one where it must be.
void checkRootFolder(const std::filesystem::path& root, bool mustExist) {
    struct stat info {};
    const int error =
        ::stat(root.c_str(), &info) == 0 ? (S_ISDIR(info.st_mode) ? 0 : ENOTDIR) : errno;
    if (error == 0 || (error == ENOENT && !mustExist)) return;
    throw Failure(root.string(), std::string("not an apps root: ") + std::strerror(error));
}

// A reader may not change a root it may not write: it reads it read-only.
bool writable(const std::filesystem::path& root) {
    return ::faccessat(AT_FDCWD, root.c_str(), W_OK, AT_EACCESS) == 0 &&
           ::faccessat(AT_FDCWD, (root / "store.db").c_str(), W_OK, AT_EACCESS) == 0;
}

}  // namespace

void failOnStore(const std::string& subject, const store::StoreError& error) {
    const bool aboutRoot = error.kind() == tsappinstall::FaultKind::BadDatabase;
    const std::string about = aboutRoot ? std::string("the apps root") : subject;
    const auto& lines = error.lines();
    for (std::size_t i = 0; i + 1 < lines.size(); ++i) printError(about + ": " + lines[i]);
    throw Failure(about, lines.empty() ? std::string(error.what()) : lines.back(), error.kind());
}

std::function<std::string()> rootSubject(const RootOption& option) {
    return [&option] { return option.root.empty() ? std::string("the apps root") : option.root; };
}

std::unique_ptr<store::AppStore> openRoot(const RootOption& option) {
    const auto path = option.path();
    checkRootFolder(path, false);
    auto options = option.storeOptions();
    options.discardUnused = true;
    return onStore(path.string(), [&] { return std::make_unique<store::AppStore>(path, options); });
}

std::unique_ptr<store::AppStore> openExisting(const RootOption& option, bool writes,
                                              bool mustExist) {
    const auto root = option.path();
    checkRootFolder(root, mustExist);
    if (!store::AppStore::exists(root)) return nullptr;
    auto options = option.storeOptions();
    options.readOnly = !writes && !writable(root);
    return onStore(root.string(), [&] { return std::make_unique<store::AppStore>(root, options); });
}

std::unique_ptr<store::AppStore> openForPlan(const RootOption& option, unsigned keep) {
    const auto root = option.path();
    checkRootFolder(root, false);
    auto options = option.storeOptions();
    options.keepPrevious = keep;
    if (store::AppStore::exists(root))
        options.readOnly = true;
    else
        options.discardUnused = true;
    return onStore(root.string(), [&] { return std::make_unique<store::AppStore>(root, options); });
}

void nothingInstalled(const std::string& app, const RootOption& root) {
    throw Failure(app, "nothing is installed in " + root.path().string(),
                  tsappinstall::FaultKind::NotInstalled);
}

namespace {

Json versionJson(const store::InstalledVersion& v) {
    Json host = Json::parse(v.hostProfile, nullptr, false);
    const auto origin = installer::originOf(v);
    return {
        {"guid", v.guid},
        {"name", v.name},
        {"version", v.version},
        {"folder", v.folder.string()},
        {"package", v.package},
        {"packageSha256", v.packageSha256},
        {"signer", v.signerFingerprint.empty() ? Json(nullptr)
                                               : Json{{"subject", v.signerSubject},
                                                      {"fingerprint", v.signerFingerprint},
                                                      {"keyFingerprint", v.signerKeyFingerprint},
                                                      {"rotatedFrom", v.rotatedFrom}}},
        {"installed", tsappinstall::formatUtc(v.installedAt)},
        {"size", v.size},
        {"host", host.is_discarded() ? Json(nullptr) : host},
        {"forced", v.forced},
        {"forcedReasons", v.forcedReasons},
        {"origin",
         origin ? Json{{"name", origin->name}, {"location", origin->location}} : Json(nullptr)}};
}

Json appJson(const store::InstalledApp& app) {
    Json json = versionJson(app.current);
    json["link"] = app.link.string();
    Json previous = Json::array();
    for (const auto& v : app.previous)
        previous.push_back({{"version", v.version}, {"folder", v.folder.string()}});
    json["previous"] = previous;
    return json;
}

// --- install ----------------------------------------------------------------

struct InstallSettings {
    RootOption root;
    std::vector<std::string> packages;
    HostOptions host;
    RepositoryChoice repository;
    store::InstallOptions options;
    unsigned keep = 1;
};

}  // namespace

store::HostProfile hostProfile(const HostOptions& s, const std::filesystem::path& root) {
    store::HostProfile host;
    const auto file = root / "host.json";
    if (std::filesystem::exists(file)) {
        try {
            host = store::readHostProfile(file);
        } catch (const tsappinstall::Error& e) {
            throw Failure(file.string(), e.what());
        }
    }
    if (!s.release.empty()) host.release = s.release;
    if (!s.platform.empty()) host.platform = s.platform;
    for (const auto& product : s.products) {
        const auto equals = product.find('=');
        if (equals == std::string::npos || equals == 0)
            throw Failure("--product", product + ": not of the form ID=VERSION");
        host.products[product.substr(0, equals)] = product.substr(equals + 1);
    }
    return host;
}

void addUnpackOptions(CLI::App* command, store::InstallOptions& options) {
    command->add_flag("--sync", options.sync, "Flush every file to disk before the records commit");
    command->add_flag("--purge", options.purge,
                      "Delete the changed and added files of the old versions an upgrade retires "
                      "rather than keep them");
    options.threads = 0;
    addJobs(command, options.threads, "Parts unpacked at once, each on a thread");
}

void addHostOptions(CLI::App* command, HostOptions& options) {
    command->add_option("--host-release", options.release, "This host's Tessal release");
    command->add_option("--platform", options.platform, "This host's platform (linux-x86_64, ...)");
    command
        ->add_option("--product", options.products, "An installed product, ID=VERSION (repeatable)")
        ->allow_extra_args(false)
        ->check(CLI::Validator(
            [](std::string& value) {
                const auto equals = value.find('=');
                return equals == std::string::npos || equals == 0
                           ? "not of the form ID=VERSION: \"" + value + "\""
                           : std::string();
            },
            "", ""));
}

namespace {

Json orNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

Json keptJson(const std::vector<store::KeptFile>& kept) {
    Json paths = Json::array();
    for (const auto& file : kept) paths.push_back((file.folder / file.path).string());
    return paths;
}

void printJson(const Json& line) {
    std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

// What was done, in the shape a plan takes (without what only a plan tells).
void printDone(store::Plan::Action action, const std::string& from,
               const store::InstalledVersion& v, const std::filesystem::path& folder,
               const std::vector<store::KeptFile>& kept) {
    printJson({{"action", store::token(action)},
               {"dryRun", false},
               {"guid", v.guid},
               {"name", v.name},
               {"from", orNull(from)},
               {"to", action == store::Plan::Action::Remove ? Json(nullptr) : Json(v.version)},
               {"folder", orNull(folder.string())},
               {"kept", keptJson(kept)}});
}

store::Plan::Action actionOf(store::InstallResult::Kind kind) {
    switch (kind) {
        case store::InstallResult::Kind::Upgrade:
            return store::Plan::Action::Upgrade;
        case store::InstallResult::Kind::Reinstall:
            return store::Plan::Action::Reinstall;
        case store::InstallResult::Kind::Downgrade:
            return store::Plan::Action::Downgrade;
        case store::InstallResult::Kind::New:
            break;
    }
    return store::Plan::Action::New;
}

const char* verbOf(store::InstallResult::Kind kind) {
    switch (kind) {
        case store::InstallResult::Kind::New:
            return "installed";
        case store::InstallResult::Kind::Upgrade:
            return "upgraded";
        case store::InstallResult::Kind::Reinstall:
            return "reinstalled";
        case store::InstallResult::Kind::Downgrade:
            return "downgraded";
    }
    return "installed";
}

void warnKept(const std::vector<store::KeptFile>& kept) {
    for (const auto& file : kept)
        printError("warning: kept " + (file.folder / file.path).string() +
                   ": changed or added since the install (--purge removes it)");
}

std::string signedBy(const std::string& subject) {
    return subject.empty() ? std::string("no verified signer") : shown(subject);
}

}  // namespace

void printPlan(const store::Plan& plan) {
    if (jsonFailures) {
        printJson({{"action", store::token(plan.action)},
                   {"dryRun", true},
                   {"guid", plan.guid},
                   {"name", plan.name},
                   {"from", orNull(plan.fromVersion)},
                   {"to", orNull(plan.toVersion)},
                   {"signer",
                    {{"from", orNull(plan.fromSigner)},
                     {"to", orNull(plan.toSigner)},
                     {"changes", plan.signerChanges ? Json(*plan.signerChanges) : Json(nullptr)}}},
                   {"download", plan.download},
                   {"disk", plan.diskChange},
                   {"kept", keptJson(plan.kept)},
                   {"undecided", plan.undecided}});
        return;
    }
    using Action = store::Plan::Action;
    static const std::map<Action, const char*> verbs = {
        {Action::New, "install"},         {Action::Upgrade, "upgrade"},
        {Action::Reinstall, "reinstall"}, {Action::Downgrade, "downgrade"},
        {Action::Remove, "remove"},       {Action::Rollback, "roll back"}};
    std::cout << "would " << verbs.at(plan.action) << " " << shown(plan.name) << " "
              << (plan.fromVersion.empty() ? "" : shown(plan.fromVersion))
              << (!plan.fromVersion.empty() && !plan.toVersion.empty() ? " -> " : "")
              << shown(plan.toVersion) << " (" << shown(plan.guid) << ")\n";
    if (plan.action != Action::Remove) {
        std::cout << "  signer: ";
        if (!plan.signerChanges)
            std::cout << signedBy(plan.fromSigner) << " -> known once the package is read\n";
        else if (*plan.signerChanges)
            std::cout << signedBy(plan.fromSigner) << " -> " << signedBy(plan.toSigner)
                      << " (changes)\n";
        else
            std::cout << signedBy(plan.toSigner) << " (unchanged)\n";
    }
    if (plan.download > 0) std::cout << "  download: " << plan.download << " bytes\n";
    std::cout << "  disk: " << (plan.diskChange < 0 ? "frees " : "uses ")
              << (plan.diskChange < 0 ? -plan.diskChange : plan.diskChange) << " bytes\n";
    for (const auto& file : plan.kept)
        std::cout << "  keeps " << shown((file.folder / file.path).string())
                  << " (changed or added since the install)\n";
    for (const auto& check : plan.undecided) std::cout << "  checked as it runs: " << check << "\n";
}

void installWith(const std::string& subject, store::InstallOptions options,
                 const std::function<store::InstallResult(const store::InstallOptions&)>& run) {
    store::InstallResult result;
    {  // the progress line is cleared before the result is printed
        ProgressLine progress;
        options.cancelled = [] { return caughtSignal != 0; };
        if (::isatty(STDERR_FILENO)) {
            options.progress = [&](std::uint64_t b, std::uint64_t tb, std::size_t p,
                                   std::size_t tp) { progress.update(b, tb, p, tp); };
            // The verified extraction reports no counts, only that it goes on.
            options.cancelled = [&progress, what = "installing " + shown(subject)] {
                progress.tick(what);
                return caughtSignal != 0;
            };
        }
        result = run(options);
    }
    const auto& v = result.installed;
    if (jsonFailures)
        printDone(actionOf(result.kind), result.replacedVersion, v, v.folder, result.kept);
    else
        std::cout << verbOf(result.kind) << " " << shown(v.name) << " "
                  << (result.replacedVersion.empty() ? "" : shown(result.replacedVersion) + " -> ")
                  << shown(v.version) << " (" << shown(v.guid) << ") in "
                  << shown(v.folder.string()) << "\n";
    if (!jsonFailures && result.takenFiles > 0)
        std::cout << "  " << result.takenFiles
                  << (result.takenFiles == 1 ? " file unchanged" : " files unchanged")
                  << ", taken from " << shown(result.replacedVersion) << "\n";
    for (const auto& reason : v.forcedReasons)
        printError("warning: " + subject + ": forced: " + reason);
    for (const auto& left : result.leftOver) printError("warning: " + left);
    warnKept(result.kept);
}

void installOne(store::AppStore& apps, const std::string& package, const std::string& subject,
                const store::HostProfile& host, const store::InstallOptions& options) {
    if (dryRun) {
        printPlan(
            onStore(subject, [&] { return apps.planInstall(nativePath(package), host, options); }));
        return;
    }
    installWith(subject, options, [&](store::InstallOptions with) {
        if (isStdinCopy(package)) with.packageName = "stdin";
        return onStore(subject, [&] { return apps.install(nativePath(package), host, with); });
    });
}

namespace {

int runInstall(const InstallSettings& s) {
    checkTrustFiles(s.options.trustAnchors);
    catchStopSignals();
    const auto root = s.root.path();
    checkRootFolder(root, false);
    store::AppStore::Options storeOptions = s.root.storeOptions();
    storeOptions.keepPrevious = s.keep;
    storeOptions.discardUnused = true;
    auto apps = dryRun ? openForPlan(s.root, s.keep) : onStore(root.string(), [&] {
        return std::make_unique<store::AppStore>(root, storeOptions);
    });
    const store::HostProfile host = hostProfile(s.host, root);
    return runEach(s.packages, [&](const std::string& package) {
        try {
            installArgument(*apps, package, s.repository, host, s.options);
        } catch (const Failure&) {
            throw;
        } catch (const std::exception& e) {
            throw Failure(package, causeOf(e));
        }
    });
}

// --- reading ----------------------------------------------------------------

struct ReadSettings {
    RootOption root;
    std::vector<std::string> apps;
    bool json = false;
};

struct InstalledSettings : ReadSettings {
    std::string pattern;
    std::string sort = "name";
};

// A name the pattern picks: a glob (*, ?, [...]) on the whole name, or,
// without one, any name that holds it; case ignored either way.
bool picked(const std::string& pattern, const std::string& name) {
    if (pattern.empty()) return true;
    const std::string p = fl::i18n::folded(pattern), n = fl::i18n::folded(name);
    if (p.find_first_of("*?[") == std::string::npos) return n.find(p) != std::string::npos;
    return ::fnmatch(p.c_str(), n.c_str(), 0) == 0;
}

int runInstalled(const InstalledSettings& s) {
    const auto apps = openExisting(s.root, false);
    if (!apps) return kGood;
    auto all = onStore(s.root.path().string(), [&] { return apps->list(); });
    all.erase(std::remove_if(all.begin(), all.end(),
                             [&](const auto& app) { return !picked(s.pattern, app.current.name); }),
              all.end());
    // By name (as list() gives them, but case ignored), newest or largest
    // first when asked; ties keep the order by name.
    std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
        return byName(a.current.name, b.current.name);
    });
    if (s.sort != "name")
        std::stable_sort(all.begin(), all.end(), [&](const auto& a, const auto& b) {
            return s.sort == "date" ? a.current.installedAt > b.current.installedAt
                                    : a.current.size > b.current.size;
        });
    std::vector<std::vector<std::string>> rows = {
        {"NAME", "VERSION", "INSTALLED", "SIZE", "GUID", ""}};
    for (const auto& app : all) {
        if (s.json) {
            std::cout << appJson(app).dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
            continue;
        }
        const auto& v = app.current;
        std::string notes = v.forced ? "forced" : "";
        if (app.held) notes += notes.empty() ? "held" : ", held";
        rows.push_back({shown(v.name), shown(v.version), localMinute(v.installedAt),
                        sizeText(v.size), v.guid, notes});
    }
    if (!s.json && !all.empty()) printColumns(rows);
    return kGood;
}

// "NAME VERSION (GUID)", each escaped.
std::string shownVersion(const store::InstalledVersion& v) {
    return shown(v.name) + " " + shown(v.version) + " (" + shown(v.guid) + ")";
}

// The signer's key and the keys that handed over to it, when recorded.
std::string signerKeyLines(const store::InstalledVersion& v) {
    if (v.signerKeyFingerprint.empty()) return {};
    std::string lines = "\nsigner key: SHA-256 " + v.signerKeyFingerprint;
    for (const auto& key : v.rotatedFrom) lines += "\nhanded over by key: SHA-256 " + key;
    return lines;
}

// "release 2026.2, platform linux-x86_64, products a 1.0, b 2": the
// recorded host profile in words; "any" for what it left open.
std::string hostText(const std::string& profile) {
    const Json host = Json::parse(profile, nullptr, false);
    if (!host.is_object()) return shown(profile);
    const auto field = [&](const char* key) {
        const Json value = host.value(key, Json());
        return value.is_string() && !value.get<std::string>().empty()
                   ? shown(value.get<std::string>())
                   : std::string("any");
    };
    std::string products;
    const Json listed = host.value("products", Json::object());
    for (const auto& [id, version] : listed.items())
        products += (products.empty() ? " " : ", ") + shown(id) + " " +
                    (version.is_string() ? shown(version.get<std::string>()) : "?");
    return "release " + field("release") + ", platform " + field("platform") + ", products" +
           (products.empty() ? std::string(" none") : products);
}

// Where the version came from: its repository, or the file given.
std::string originText(const store::InstalledVersion& v) {
    if (const auto remote = installer::originOf(v))
        return "the repository " + shown(remote->name.empty() ? remote->location : remote->name) +
               (remote->name.empty() ? "" : " (" + shown(remote->location) + ")");
    return "a package file";
}

void printVersion(const store::InstalledApp& app) {
    const auto& v = app.current;
    // A download is removed once installed: its name is kept on record,
    // but not shown as a file to go and look at.
    std::error_code error;
    const bool packageThere = v.package == "stdin" || std::filesystem::exists(v.package, error);
    std::cout << "name: " << shown(v.name) << "\nGUID: " << shown(v.guid)
              << "\nversion: " << shown(v.version) << "\nfolder: " << shown(v.folder.string())
              << "\nlink: " << shown(app.link.string()) << "\nfrom: " << originText(v)
              << "\npackage: " << shown(v.package) << (packageThere ? "" : " (no longer there)")
              << "\npackage SHA-256: " << v.packageSha256 << "\nsigner: "
              << (v.signerFingerprint.empty()
                      ? "none verified"
                      : shown(v.signerSubject) + " (SHA-256 " + v.signerFingerprint + ")")
              << signerKeyLines(v) << "\ninstalled: " << tsappinstall::formatUtc(v.installedAt)
              << "\nhost: " << hostText(v.hostProfile) << "\nforced: " << (v.forced ? "yes" : "no")
              << "\n";
    for (const auto& reason : v.forcedReasons) std::cout << "  " << shown(reason) << "\n";
    for (const auto& previous : app.previous)
        std::cout << "previous: " << shown(previous.version) << " in "
                  << shown(previous.folder.string()) << "\n";
}

int runShow(const ReadSettings& s) {
    const auto apps = openExisting(s.root, false);
    const std::string& name = s.apps.front();
    if (!apps) nothingInstalled(name, s.root);
    const auto app = onStore(name, [&] { return apps->show(name); });
    if (s.json)
        std::cout << appJson(app).dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
    else
        printVersion(app);
    return kGood;
}

Json auditJson(const store::AuditReport& report) {
    Json findings = Json::array();
    for (const auto& f : report.findings)
        findings.push_back(
            {{"kind", store::token(f.kind)}, {"path", f.path}, {"detail", f.detail}});
    Json kept = Json::array();
    for (const auto& k : report.kept) kept.push_back((k.folder / k.path).string());
    const auto& v = report.version;
    return {{"guid", v.guid},
            {"name", v.name},
            {"version", v.version},
            {"folder", v.folder.string()},
            {"installed", report.installed},
            {"kept", kept},
            {"clean", report.clean()},
            {"findings", findings}};
}

// An empty APP among several is a slip of the command line: a vector
// argument's values are not checked one by one as they are parsed.
void refuseEmptyApps(const std::vector<std::string>& apps, const char* command) {
    for (const auto& app : apps)
        if (app.empty())
            throw UsageError(command, std::string("APP: must not be empty (see 'tsapp ") + command +
                                          " --help')");
}

int runAudit(const ReadSettings& s) {
    refuseEmptyApps(s.apps, "audit");
    // Nothing to compare is no clean answer for a root that is not there.
    const auto apps = openExisting(s.root, false, true);
    if (!apps && s.apps.empty()) return kGood;
    if (!apps) nothingInstalled(s.apps.front(), s.root);
    std::vector<store::AuditReport> reports;
    if (s.apps.empty()) {
        reports = onStore(s.root.path().string(), [&] { return apps->auditAll(); });
    } else {
        for (const auto& app : s.apps)
            reports.push_back(onStore(app, [&] { return apps->audit(app); }));
    }
    int status = kGood;
    for (const auto& report : reports) {
        if (!report.clean()) status = kBad;
        if (s.json) {
            std::cout << auditJson(report).dump(-1, ' ', false, Json::error_handler_t::replace)
                      << "\n";
            continue;
        }
        std::cout << shownVersion(report.version) << ": "
                  << (!report.installed ? "removed"
                      : report.clean()
                          ? "OK"
                          : std::to_string(report.findings.size()) +
                                (report.findings.size() == 1 ? " difference" : " differences"))
                  << "\n";
        for (const auto& f : report.findings)
            std::cout << "  " << store::token(f.kind) << " " << shown(f.path)
                      << (f.detail.empty() ? "" : " (" + shown(f.detail) + ")") << "\n";
        for (const auto& k : report.kept)
            std::cout << "  kept " << shown((k.folder / k.path).string())
                      << " (remove --purge deletes it)\n";
    }
    return status;
}

// --- changing ---------------------------------------------------------------

struct RemoveSettings {
    RootOption root;
    std::vector<std::string> apps;
    bool purge = false;
};

int runRemove(const RemoveSettings& s) {
    refuseEmptyApps(s.apps, "remove");
    const auto apps = dryRun
                          ? (store::AppStore::exists(s.root.path()) ? openForPlan(s.root) : nullptr)
                          : openExisting(s.root, true);
    return runEach(s.apps, [&](const std::string& app) {
        if (!apps) nothingInstalled(app, s.root);
        if (dryRun) {
            printPlan(onStore(app, [&] { return apps->planRemove(app, s.purge); }));
            return;
        }
        const auto result = onStore(app, [&] { return apps->remove(app, s.purge); });
        if (jsonFailures)
            printDone(store::Plan::Action::Remove, result.removed.version, result.removed, {},
                      result.kept);
        else if (result.removedApp)
            std::cout << "removed " << shownVersion(result.removed) << "\n";
        else
            std::cout << "purged " << result.purged.size()
                      << (result.purged.size() == 1 ? " file" : " files") << " kept of "
                      << shownVersion(result.removed) << "\n";
        warnKept(result.kept);
    });
}

struct RollbackSettings : ReadSettings {
    store::RollbackOptions options;
};

int runRollback(const RollbackSettings& s) {
    const auto apps = dryRun
                          ? (store::AppStore::exists(s.root.path()) ? openForPlan(s.root) : nullptr)
                          : openExisting(s.root, true);
    const std::string& name = s.apps.front();
    if (!apps) nothingInstalled(name, s.root);
    if (dryRun) {
        printPlan(onStore(name, [&] { return apps->planRollback(name, s.options); }));
        return kGood;
    }
    const std::string from = onStore(name, [&] { return apps->show(name).current.version; });
    const auto result = onStore(name, [&] { return apps->rollback(name, s.options); });
    const auto& now = result.current;
    if (jsonFailures) {
        printDone(store::Plan::Action::Rollback, from, now, now.folder, result.kept);
        return kGood;
    }
    std::cout << "rolled " << shown(now.name) << " back to " << shown(now.version) << " ("
              << shown(now.guid) << ") in " << shown(now.folder.string()) << "\n";
    warnKept(result.kept);
    return kGood;
}

}  // namespace

void addPlanFlags(CLI::App* command) {
    command->add_flag("--dry-run",
                      "Print what would be done (versions, signer, bytes, files "
                      "kept) and change nothing");
    command->add_flag("--json", "One JSON object per line and app acted on");
}

namespace {

CLI::App* appCommand(CLI::App& app, const char* name, const char* description, ReadSettings& s,
                     const char* argument, bool many) {
    CLI::App* command = app.add_subcommand(name, description);
    auto* option = addNonEmpty(command, "APP", s.apps, argument);
    if (many)
        option->expected(0, -1);
    else
        option->required()->expected(1);
    addRoot(command, s.root);
    return command;
}

}  // namespace

std::vector<Command> addStore(CLI::App& app) {
    auto in = std::make_shared<InstallSettings>();
    CLI::App* install = app.add_subcommand(
        "install", "Install app packages into the apps root, upgrading an installed version.");
    addRequired(install, "PKG", in->packages,
                "App package, or an app's name or GUID to install from the repositories");
    addRoot(install, in->root);
    addHostOptions(install, in->host);
    install
        ->add_option("--trust", in->options.trustAnchors,
                     "PEM file of trusted certificates (repeatable): require a valid signature")
        ->allow_extra_args(false);
    install->add_flag("--force", in->options.force,
                      "Install an app this host does not fit, recording why");
    install->add_flag("--reinstall", in->options.reinstall,
                      "Replace the installed version by the same version");
    install->add_flag("--allow-downgrade", in->options.allowDowngrade,
                      "Install a lower version than the installed one");
    install->add_flag("--allow-signer-change", in->options.allowSignerChange,
                      "Upgrade even when another key signed the installed version and the package "
                      "carries no key rotation proof from it");
    install->add_flag("--ignore-hold", in->options.ignoreHold,
                      "Replace the version of an app that tsapp hold keeps");
    install->add_option("--keep", in->keep, "Previous versions kept for rollback (default 1)");
    addUnpackOptions(install, in->options);
    addRepositoryOptions(install, in->repository);
    addPlanFlags(install);

    auto listed = std::make_shared<InstalledSettings>();
    CLI::App* installed = app.add_subcommand(
        "installed", "List the installed apps: name, version, when installed, size, GUID.");
    installed->alias("list-installed");
    installed->add_option("PATTERN", listed->pattern,
                          "Only the apps whose name matches: a glob (*, ?, [...]) on the whole "
                          "name, else any name that holds it; case ignored");
    installed->add_option("--sort", listed->sort, "name (default), date (newest first) or size")
        ->check(CLI::IsMember({"name", "date", "size"}));
    addRoot(installed, listed->root);
    installed->add_flag("--json", listed->json, "One JSON object per line and app");

    auto shown = std::make_shared<ReadSettings>();
    CLI::App* show = appCommand(app, "show", "Show an installed app's record.", *shown,
                                "Installed app: GUID or name", false);
    show->add_flag("--json", shown->json, "The record as one JSON object");

    auto removed = std::make_shared<RemoveSettings>();
    CLI::App* remove =
        app.add_subcommand("remove", "Remove installed apps, keeping changed and added files.");
    addRequired(remove, "APP", removed->apps, "Installed app: GUID or name");
    addRoot(remove, removed->root);
    remove->add_flag("--purge", removed->purge,
                     "Remove changed and added files too, and those kept before (also of an "
                     "app removed already)");
    addPlanFlags(remove);

    auto rolled = std::make_shared<RollbackSettings>();
    CLI::App* rollback =
        appCommand(app, "rollback", "Make an app's previous version current again.", *rolled,
                   "Installed app: GUID or name", false);
    rollback->add_flag("--force", rolled->options.force,
                       "Roll back to a previous version whose files are not as installed, and "
                       "keep the version left");
    addPlanFlags(rollback);

    auto audited = std::make_shared<ReadSettings>();
    CLI::App* audit =
        appCommand(app, "audit", "Compare installed apps' files with their records.", *audited,
                   "Installed app: GUID or name (default: every app)", true);
    audit->add_flag("--json", audited->json, "One JSON object per line and app");

    return {{install, [in] { return runInstall(*in); }, rootSubject(in->root)},
            {installed, [listed] { return runInstalled(*listed); }, rootSubject(listed->root)},
            {show, [shown] { return runShow(*shown); }, rootSubject(shown->root)},
            {remove, [removed] { return runRemove(*removed); }, rootSubject(removed->root)},
            {rollback, [rolled] { return runRollback(*rolled); }, rootSubject(rolled->root)},
            {audit, [audited] { return runAudit(*audited); }, rootSubject(audited->root)}};
}

}  // namespace tsapp::tool
