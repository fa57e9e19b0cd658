#include "tsappinstall/installer/Installer.hpp"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "store/RootState.hpp"

namespace tsappinstall::installer {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using repository::ClientOptions;
using repository::Repository;
using store::detail::RootStateAccess;

// Where the records live in the root's state: the recorded repositories as
// one JSON array, and the highest index version seen of each repository
// (by name, or by location for one named by its location alone).
const char* const kScope = "repositories";
const char* const kRecordsKey = "recorded";
const char* const kSeenScope = "repository-highest-index";

[[noreturn]] void fail(FaultKind kind, const std::string& item, const std::string& detail) {
    throw Error(Fault{kind, item, detail}, detail);
}

Json toJson(const Remote& r) {
    return {{"name", r.name}, {"location", r.location}, {"trust", r.trust}, {"repoCa", r.serverCa}};
}

std::optional<Remote> remoteOf(const Json& json) {
    if (!json.is_object() || !json.value("location", Json()).is_string()) return std::nullopt;
    Remote r;
    r.name = json.value("name", "");
    r.location = json["location"].get<std::string>();
    r.serverCa = json.value("repoCa", "");
    for (const auto& file : json.value("trust", Json::array()))
        if (file.is_string()) r.trust.push_back(file.get<std::string>());
    return r;
}

std::vector<Remote> remotesOf(const std::optional<std::string>& text) {
    const Json all = text ? Json::parse(*text, nullptr, false) : Json::array();
    std::vector<Remote> remotes;
    if (!all.is_array()) return remotes;
    for (const auto& item : all)
        if (auto r = remoteOf(item)) remotes.push_back(std::move(*r));
    return remotes;
}

// Changes the recorded repositories with the root's lock held, so that two
// processes at once never drop each other's change.
void changeRemotes(store::AppStore& apps, const std::function<void(std::vector<Remote>&)>& change) {
    RootStateAccess::update(apps, kScope, kRecordsKey, [&](const std::optional<std::string>& text) {
        std::vector<Remote> remotes = remotesOf(text);
        change(remotes);
        Json all = Json::array();
        for (const auto& r : remotes) all.push_back(toJson(r));
        return std::optional<std::string>(all.dump());
    });
}

void refuseKnown(const std::vector<Remote>& recorded, const Remote& remote) {
    for (const Remote& known : recorded)
        if (known.name == remote.name)
            fail(FaultKind::RepositoryExists, remote.name,
                 "a repository of that name is recorded already (" + known.location + ")");
}

// Paths as recorded: later commands may run from another folder.
std::string absolute(const std::string& file) {
    return file.empty() ? file : fs::absolute(file).string();
}

// A location as recorded: a folder made absolute, a URL ("file:",
// "http:", "https:") as it is.
std::string recordedLocation(const std::string& location) {
    const auto colon = location.find(':');
    const bool url = colon != std::string::npos && colon > 1 &&
                     location.find('/') > colon;  // "C:" never occurs; "a/b:c" is a folder
    return url ? location : absolute(location);
}

// Runs `run`, naming the repository as the item of whatever it throws.
template <class Run>
auto aboutRemote(const Remote& remote, Run run) {
    try {
        return run();
    } catch (const store::StoreError&) {
        throw;
    } catch (const Error& e) {
        throw Error(Fault{e.kind(), remote.key(), e.what()}, e.what());
    } catch (const std::exception& e) {
        fail(FaultKind::Other, remote.key(), e.what());
    }
}

// Removes a downloaded package whatever the install did.
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

}  // namespace

std::optional<Remote> originOf(const store::InstalledVersion& version) {
    if (version.origin.empty()) return std::nullopt;
    return remoteOf(Json::parse(version.origin, nullptr, false));
}

Installer::Installer(store::AppStore& apps, InstallerOptions options)
    : apps_(apps), options_(std::move(options)) {}

Installer::~Installer() = default;

std::vector<Remote> Installer::remotes() const {
    return remotesOf(RootStateAccess::read(apps_, kScope, kRecordsKey));
}

std::uint64_t Installer::highestSeen(const std::string& key) const {
    const auto seen = RootStateAccess::read(apps_, kSeenScope, key);
    return seen ? std::stoull(*seen) : 0;
}

std::shared_ptr<const Repository> Installer::add(Remote remote) {
    if (remote.name.empty()) fail(FaultKind::Other, "", "a repository is recorded by a name");
    // Before the index is fetched, and again where it is recorded.
    refuseKnown(remotes(), remote);
    remote.location = recordedLocation(remote.location);
    for (auto& trust : remote.trust) trust = absolute(trust);
    remote.serverCa = absolute(remote.serverCa);
    auto repository = fetch(remote);  // recorded only once its index was accepted
    changeRemotes(apps_, [&](std::vector<Remote>& now) {
        refuseKnown(now, remote);
        now.push_back(remote);
    });
    return repository;
}

void Installer::remove(const std::string& name) {
    changeRemotes(apps_, [&](std::vector<Remote>& remotes) {
        const auto before = remotes.size();
        remotes.erase(std::remove_if(remotes.begin(), remotes.end(),
                                     [&](const Remote& known) { return known.name == name; }),
                      remotes.end());
        if (remotes.size() == before)
            fail(FaultKind::UnknownRepository, name, "no repository of that name");
    });
}

std::shared_ptr<const Repository> Installer::move(const std::string& name,
                                                  const std::string& location) {
    const auto recorded = remotes();
    const auto found = std::find_if(recorded.begin(), recorded.end(),
                                    [&](const Remote& r) { return r.name == name; });
    if (found == recorded.end())
        fail(FaultKind::UnknownRepository, name, "no repository of that name");
    Remote moved = *found;
    moved.location = recordedLocation(location);
    fetched_.erase(moved.key());
    auto repository = fetch(moved);
    changeRemotes(apps_, [&](std::vector<Remote>& now) {
        for (Remote& r : now)
            if (r.name == name) return void(r.location = moved.location);
        fail(FaultKind::UnknownRepository, name, "no repository of that name");
    });
    return repository;
}

std::shared_ptr<const Repository> Installer::fetch(const Remote& remote) {
    auto& repository = fetched_[remote.key()];
    if (repository) return repository;
    ClientOptions options;
    options.trustAnchors = remote.trust;
    options.serverCa = remote.serverCa;
    options.highestSeen = highestSeen(remote.key());
    options.now = options_.now;
    options.stallSeconds = options_.stallSeconds;
    options.attempts = options_.attempts;
    options.progress = options_.progress;
    repository =
        aboutRemote(remote, [&] { return std::make_shared<Repository>(remote.location, options); });
    const std::uint64_t seen = repository->highestSeen();
    RootStateAccess::update(apps_, kSeenScope, remote.key(), [&](const auto& now) {
        // Another process may have seen a higher version meanwhile.
        if (now && std::stoull(*now) >= seen) return std::optional<std::string>();
        return std::optional<std::string>(std::to_string(seen));
    });
    return repository;
}

std::vector<std::shared_ptr<const Repository>> Installer::indexes() {
    std::vector<std::shared_ptr<const Repository>> all;
    for (const Remote& remote : remotes()) all.push_back(fetch(remote));
    return all;
}

std::optional<Offer> Installer::find(const std::string& app, const store::HostProfile& host,
                                     const std::vector<Remote>& where) {
    std::optional<Offer> best;
    for (const Remote& remote : where.empty() ? remotes() : where) {
        auto repository = fetch(remote);
        const auto* entry = repository::pickNewest(repository->index(), app, host);
        if (entry && (!best || store::compareVersions(entry->version, best->entry->version) > 0))
            best = Offer{remote, repository, entry};
    }
    return best;
}

store::InstallResult Installer::install(const Offer& offer, const store::HostProfile& host,
                                        store::InstallOptions options) {
    const fs::path folder = apps_.downloadFolder();
    const DownloadedFile file(aboutRemote(
        offer.remote, [&] { return offer.repository->download(*offer.entry, folder); }));
    options.trustAnchors =
        offer.entry->signer.empty() ? std::vector<std::string>{} : offer.remote.trust;
    options.origin = toJson(offer.remote).dump();
    options.packageSha256 = offer.entry->sha256;  // the download was checked against it
    return apps_.install(file.path(), host, options);
}

std::vector<Remote> Installer::whereToLook(const store::InstalledVersion& version,
                                           const std::vector<Remote>& recorded) const {
    const auto origin = originOf(version);
    if (!origin) return recorded;
    // One named by its location alone is looked for there again; a recorded
    // one as it is recorded now, which may be at another location.
    if (origin->name.empty()) return {*origin};
    for (const Remote& remote : recorded)
        if (remote.name == origin->name) return {remote};
    return recorded;
}

std::vector<Outdated> Installer::outdated(const std::vector<std::string>& apps,
                                          const store::HostProfile& host) {
    std::vector<store::InstalledVersion> installed;
    if (apps.empty())
        for (const auto& app : apps_.list()) installed.push_back(app.current);
    for (const auto& app : apps) installed.push_back(apps_.show(app).current);
    const auto recorded = remotes();
    std::vector<Outdated> found;
    for (const auto& version : installed) {
        const auto where = whereToLook(version, recorded);
        if (where.empty()) continue;
        const auto offer = find(version.guid, host, where);
        if (offer && store::compareVersions(offer->entry->version, version.version) > 0)
            found.push_back({version, *offer});
    }
    return found;
}

}  // namespace tsappinstall::installer
