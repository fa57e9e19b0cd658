#include "RepoClient.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "Progress.hpp"
#include "StoreTool.hpp"
#include "Text.hpp"

namespace tsapp::tool {
namespace {

namespace store = tsappinstall::store;
namespace repository = tsappinstall::repository;
using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

// Where each record lives in the root's state: the recorded repositories
// as one JSON object by name, the highest index version seen per
// repository (by name, or by location for one named with --repo), and the
// repository each app was installed from, by GUID.
const char* const kScope = "repositories";
const char* const kRecordsKey = "recorded";
const char* const kSeenScope = "repository-highest-index";
const char* const kOriginScope = "app-repository";

// A repository as recorded, or as named on the command line (no name).
struct Source {
    std::string name, location, serverCa;
    std::vector<std::string> trust;
    std::string key() const { return name.empty() ? location : name; }
};

Json toJson(const Source& s) {
    return {{"name", s.name}, {"location", s.location}, {"trust", s.trust}, {"repoCa", s.serverCa}};
}

std::optional<Source> sourceOf(const Json& json) {
    if (!json.is_object() || !json.value("location", Json()).is_string()) return std::nullopt;
    Source s;
    s.name = json.value("name", "");
    s.location = json["location"].get<std::string>();
    s.serverCa = json.value("repoCa", "");
    for (const auto& file : json.value("trust", Json::array()))
        if (file.is_string()) s.trust.push_back(file.get<std::string>());
    return s;
}

std::vector<Source> sourcesOf(const std::optional<std::string>& text) {
    const Json all = text ? Json::parse(*text, nullptr, false) : Json::array();
    std::vector<Source> sources;
    if (!all.is_array()) return sources;
    for (const auto& item : all)
        if (auto s = sourceOf(item)) sources.push_back(std::move(*s));
    return sources;
}

std::vector<Source> recorded(const store::AppStore& apps) {
    return sourcesOf(apps.state(kScope, kRecordsKey));
}

// Changes the recorded repositories with the root's lock held, so that
// two commands at once never drop each other's change.
void changeRecords(store::AppStore& apps,
                   const std::function<void(std::vector<Source>& sources)>& change) {
    apps.updateState(kScope, kRecordsKey, [&](const std::optional<std::string>& text) {
        std::vector<Source> sources = sourcesOf(text);
        change(sources);
        Json all = Json::array();
        for (const auto& s : sources) all.push_back(toJson(s));
        return std::optional<std::string>(all.dump());
    });
}

// Paths as recorded: later commands may run from another folder.
std::string absolute(const std::string& file) {
    return fs::absolute(nativePath(file)).string();
}

// The progress line of the download under way, on a terminal.
std::optional<ProgressLine> downloading;

// Fetches the index, refusing one older than the highest seen of this
// repository, and remembers the new highest only once it was accepted.
repository::Repository fetch(store::AppStore& apps, const Source& source) {
    repository::ClientOptions options;
    options.trustAnchors = source.trust;
    options.serverCa = source.serverCa;
    const auto seen = apps.state(kSeenScope, source.key());
    options.highestSeen = seen ? std::stoull(*seen) : 0;
    if (::isatty(STDERR_FILENO))
        options.progress = [](std::uint64_t done, std::uint64_t size) {
            if (downloading) downloading->update(done, size, done == size ? 1 : 0, 1);
        };
    try {
        repository::Repository repo(source.location, options);
        apps.updateState(kSeenScope, source.key(), [&](const std::optional<std::string>& now) {
            // Another command may have seen a higher version meanwhile.
            if (now && std::stoull(*now) >= repo.highestSeen()) return std::optional<std::string>();
            return std::optional<std::string>(std::to_string(repo.highestSeen()));
        });
        return repo;
    } catch (const store::StoreError& e) {
        failOnStore(source.key(), e);
    } catch (const std::exception& e) {
        throw Failure(source.key(), causeOf(e));
    }
}

std::unique_ptr<store::AppStore> openRoot(const RootOption& root) {
    const auto path = root.path();
    return onStore(path.string(), [&] { return std::make_unique<store::AppStore>(path); });
}

// An app offered by a repository: the repository and the chosen entry.
struct Offer {
    Source source;
    std::shared_ptr<const repository::Repository> repo;
    const repository::PackageEntry* entry = nullptr;
};

// Indexes fetched during one command, by repository: each is read once
// however many apps are looked up in it.
using Fetched = std::map<std::string, std::shared_ptr<const repository::Repository>>;

// The newest version of `app` that fits `host` among `sources`.
std::optional<Offer> newestOffer(store::AppStore& apps, const std::vector<Source>& sources,
                                 const std::string& app, const store::HostProfile& host,
                                 Fetched& fetched) {
    std::optional<Offer> best;
    for (const Source& source : sources) {
        auto& repo = fetched[source.key()];
        if (!repo) repo = std::make_shared<const repository::Repository>(fetch(apps, source));
        const auto* entry = repository::pickNewest(repo->index(), app, host);
        if (entry && (!best || store::compareVersions(entry->version, best->entry->version) > 0))
            best = Offer{source, repo, entry};
    }
    return best;
}

// The root's own folder for downloads: on the root's file system, so a
// package is never read across a mount, and private to its user.
fs::path downloadFolder(const store::AppStore& apps) {
    const fs::path folder = apps.root() / ".downloads";
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        throw Failure(folder.string(), std::strerror(errno));
    // One that exists must be this user's folder, not a link elsewhere.
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid())
        throw Failure(folder.string(), "not a folder of this user's; remove it");
    return folder;
}

// Removes the downloaded package whatever the install did.
class DownloadedFile {
  public:
    explicit DownloadedFile(fs::path path) : path_(std::move(path)) {}
    ~DownloadedFile() {
        std::error_code ignored;
        fs::remove(path_, ignored);
    }
    DownloadedFile(const DownloadedFile&) = delete;
    DownloadedFile& operator=(const DownloadedFile&) = delete;
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

fs::path download(const store::AppStore& apps, const Offer& offer) {
    const fs::path folder = downloadFolder(apps);
    struct Showing {
        Showing() { downloading.emplace(); }
        ~Showing() { downloading.reset(); }  // cleared before the result line
    } showing;
    try {
        return offer.repo->download(*offer.entry, folder);
    } catch (const std::exception& e) {
        throw Failure(offer.source.key(), causeOf(e));
    }
}

// Installs what `offer` names through the store: a package the index
// lists as signed is verified against the repository's trust files, one
// it lists as unsigned is vouched for by the signed index alone.
void installOffer(store::AppStore& apps, const Offer& offer, const store::HostProfile& host,
                  store::InstallOptions options) {
    const DownloadedFile file(download(apps, offer));
    options.trustAnchors =
        offer.entry->signer.empty() ? std::vector<std::string>{} : offer.source.trust;
    installOne(apps, file.path().string(), offer.entry->name + " " + offer.entry->version, host,
               options);
    // By the GUID as the store spells it, which outdated looks it up by.
    const std::string guid = apps.show(offer.entry->guid).current.guid;
    apps.updateState(kOriginScope, guid, [&](const std::optional<std::string>&) {
        return std::optional<std::string>(toJson(offer.source).dump());
    });
}

}  // namespace

void addRepositoryOptions(CLI::App* install, RepositoryChoice& choice) {
    install
        ->add_option("--repo", choice.location,
                     "Install apps named by name or GUID from this repository (a folder, a file: "
                     "or http(s): URL); --trust checks its index")
        ->check(nonEmpty());
    install
        ->add_option("--repo-ca", choice.serverCa,
                     "PEM file of the CA for an https: repository (default: the system's)")
        ->check(nonEmpty());
}

void installArgument(store::AppStore& apps, const std::string& argument,
                     const RepositoryChoice& choice, const store::HostProfile& host,
                     store::InstallOptions options) {
    std::error_code error;
    const bool file = fs::is_regular_file(nativePath(argument), error);
    std::vector<Source> sources;
    if (!file && !choice.location.empty()) {
        Source given;
        given.location = choice.location;
        given.serverCa = choice.serverCa.empty() ? "" : absolute(choice.serverCa);
        for (const auto& trust : options.trustAnchors) given.trust.push_back(absolute(trust));
        sources.push_back(given);
    } else if (!file) {
        sources = recorded(apps);
    }
    if (sources.empty()) return installOne(apps, argument, argument, host, options);
    Fetched fetched;
    const auto offer = newestOffer(apps, sources, argument, host, fetched);
    if (!offer) throw Failure(argument, "no repository offers a version of it that fits this host");
    installOffer(apps, *offer, host, options);
}

std::vector<repository::Repository> recordedIndexes(const std::string& root) {
    if (!store::AppStore::exists(RootOption{root}.path())) return {};
    const auto apps = openRoot(RootOption{root});
    std::vector<repository::Repository> indexes;
    for (const Source& source : recorded(*apps)) indexes.push_back(fetch(*apps, source));
    return indexes;
}

namespace {

// --- repo add, list, remove ---------------------------------------------------

struct RecordSettings {
    RootOption root;
    Source source;
    bool json = false;
};

int runAdd(RecordSettings& s) {
    const auto apps = openRoot(s.root);
    const auto refuseKnown = [&](const std::vector<Source>& sources) {
        for (const Source& known : sources)
            if (known.name == s.source.name)
                throw Failure(s.source.name, "a repository of that name is recorded already (" +
                                                 known.location + ")");
    };
    // Before the index is fetched, and again where it is recorded.
    refuseKnown(recorded(*apps));
    for (auto& trust : s.source.trust) trust = absolute(trust);
    if (!s.source.serverCa.empty()) s.source.serverCa = absolute(s.source.serverCa);
    // Recorded only once its index was read and accepted.
    const auto repo = fetch(*apps, s.source);
    changeRecords(*apps, [&](std::vector<Source>& now) {
        refuseKnown(now);
        now.push_back(s.source);
    });
    std::cout << "added " << s.source.name << ": " << s.source.location << ", index version "
              << repo.index().version << ", " << repo.index().packages.size() << " packages\n";
    return kGood;
}

int runList(const RecordSettings& s) {
    if (!store::AppStore::exists(s.root.path())) return kGood;
    const auto apps = openRoot(s.root);
    for (const Source& source : recorded(*apps)) {
        if (s.json) {
            Json line = toJson(source);
            const auto seen = apps->state(kSeenScope, source.key());
            line["highestSeen"] = seen ? std::stoull(*seen) : 0;
            std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
            continue;
        }
        std::cout << source.name << "  " << source.location << "\n";
    }
    return kGood;
}

int runRemove(const RecordSettings& s) {
    if (!store::AppStore::exists(s.root.path()))
        throw Failure(s.source.name, "no repository of that name");
    const auto apps = openRoot(s.root);
    changeRecords(*apps, [&](std::vector<Source>& sources) {
        const auto before = sources.size();
        sources.erase(
            std::remove_if(sources.begin(), sources.end(),
                           [&](const Source& known) { return known.name == s.source.name; }),
            sources.end());
        if (sources.size() == before) throw Failure(s.source.name, "no repository of that name");
    });
    std::cout << "removed " << s.source.name << "\n";
    return kGood;
}

// --- outdated, upgrade ----------------------------------------------------------

struct UpgradeSettings {
    RootOption root;
    HostOptions host;
    std::vector<std::string> apps;
    bool all = false;
    bool json = false;
    store::InstallOptions options;
};

struct Outdated {
    store::InstalledVersion installed;
    Offer offer;
};

// Where an app is looked for: the repository it came from, else every
// recorded one.
std::vector<Source> sourcesOf(const store::AppStore& apps, const std::string& guid,
                              const std::vector<Source>& all) {
    if (const auto origin = apps.state(kOriginScope, guid))
        if (auto source = sourceOf(Json::parse(*origin, nullptr, false))) return {*source};
    return all;
}

std::vector<Outdated> findOutdated(store::AppStore& apps, const std::vector<std::string>& named,
                                   const store::HostProfile& host) {
    std::vector<store::InstalledVersion> installed;
    if (named.empty())
        for (const auto& app : apps.list()) installed.push_back(app.current);
    for (const auto& name : named)
        installed.push_back(onStore(name, [&] { return apps.show(name).current; }));
    const auto all = recorded(apps);
    Fetched fetched;
    std::vector<Outdated> found;
    for (const auto& version : installed) {
        const auto offer =
            newestOffer(apps, sourcesOf(apps, version.guid, all), version.guid, host, fetched);
        if (offer && store::compareVersions(offer->entry->version, version.version) > 0)
            found.push_back({version, *offer});
    }
    return found;
}

int runOutdated(const UpgradeSettings& s) {
    if (!store::AppStore::exists(s.root.path())) return kGood;
    const auto apps = openRoot(s.root);
    for (const auto& o : findOutdated(*apps, {}, hostProfile(s.host, apps->root()))) {
        if (s.json) {
            const Json line = {{"guid", o.installed.guid},
                               {"name", o.installed.name},
                               {"installed", o.installed.version},
                               {"available", o.offer.entry->version},
                               {"repository", o.offer.source.key()}};
            std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
            continue;
        }
        std::cout << o.installed.guid << "  " << o.installed.version << " -> "
                  << o.offer.entry->version << "  " << o.installed.name << "\n";
    }
    return kGood;
}

int runUpgrade(const UpgradeSettings& s) {
    if (s.all == !s.apps.empty()) throw UsageError("upgrade", "name the apps, or give --all");
    catchStopSignals();
    const auto apps = openRoot(s.root);
    const auto host = hostProfile(s.host, apps->root());
    store::InstallOptions options = s.options;
    options.cancelled = [] { return caughtSignal != 0; };
    const auto outdated = findOutdated(*apps, s.apps, host);
    if (outdated.empty()) std::cout << "every app is up to date\n";
    int status = kGood;
    for (const auto& o : outdated) {
        try {
            installOffer(*apps, o.offer, host, options);
        } catch (const Failure& e) {
            printError(e.file() + ": " + e.what());
            status = kBad;
        }
        if (caughtSignal) return 128 + caughtSignal;
    }
    return status;
}

}  // namespace

std::vector<Command> addRepoRecords(CLI::App& app, CLI::App* repo) {
    auto added = std::make_shared<RecordSettings>();
    CLI::App* add = repo->add_subcommand(
        "add", "Record a repository in the apps root, once its index is read and trusted.");
    add->add_option("NAME", added->source.name, "Name to refer to it by")
        ->required()
        ->check(nonEmpty());
    add->add_option("LOCATION", added->source.location, "A folder, a file: URL or an http(s): URL")
        ->required()
        ->check(nonEmpty());
    add->add_option("--trust", added->source.trust,
                    "PEM file of a CA the index's signer must lead to (repeatable)")
        ->required()
        ->allow_extra_args(false)
        ->check(nonEmpty());
    add->add_option("--repo-ca", added->source.serverCa,
                    "PEM file of the CA for an https: server (default: the system's)")
        ->check(nonEmpty());
    addRoot(add, added->root);

    auto listed = std::make_shared<RecordSettings>();
    CLI::App* list = repo->add_subcommand("list", "List the recorded repositories.");
    list->add_flag("--json", listed->json, "One JSON object per line and repository");
    addRoot(list, listed->root);

    auto removed = std::make_shared<RecordSettings>();
    CLI::App* remove = repo->add_subcommand("remove", "Forget a recorded repository.");
    remove->add_option("NAME", removed->source.name, "Its name")->required()->check(nonEmpty());
    addRoot(remove, removed->root);

    auto old = std::make_shared<UpgradeSettings>();
    CLI::App* outdated = app.add_subcommand(
        "outdated", "List installed apps whose repository has a newer version that fits.");
    outdated->add_flag("--json", old->json, "One JSON object per line and app");
    addRoot(outdated, old->root);
    addHostOptions(outdated, old->host);

    auto up = std::make_shared<UpgradeSettings>();
    CLI::App* upgrade = app.add_subcommand(
        "upgrade", "Install the newer versions outdated lists, as install would.");
    upgrade->add_option("APP", up->apps, "Installed app: GUID or name")->check(nonEmpty());
    upgrade->add_flag("--all", up->all, "Every installed app");
    addRoot(upgrade, up->root);
    addHostOptions(upgrade, up->host);
    upgrade->add_flag("--allow-signer-change", up->options.allowSignerChange,
                      "Upgrade even when another signer signed the installed version");
    upgrade->add_flag("--sync", up->options.sync,
                      "Flush every file to disk before the records commit");
    up->options.threads = 0;
    upgrade->add_option("-j,--jobs", up->options.threads,
                        "Parts unpacked at once, each on a thread (default: one per core)");

    const auto rootOf = [](const RootOption& option) {
        return
            [&option] { return option.root.empty() ? std::string("the apps root") : option.root; };
    };
    return {{add, [added] { return runAdd(*added); }, [added] { return added->source.name; }},
            {list, [listed] { return runList(*listed); }, rootOf(listed->root)},
            {remove, [removed] { return runRemove(*removed); },
             [removed] { return removed->source.name; }},
            {outdated, [old] { return runOutdated(*old); }, rootOf(old->root)},
            {upgrade, [up] { return runUpgrade(*up); }, rootOf(up->root)}};
}

}  // namespace tsapp::tool
