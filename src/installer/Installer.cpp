#include "tsappinstall/installer/Installer.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "manifest/WarmUp.hpp"
#include "platform/base/Ascii.hpp"
#include "platform/base/Random.hpp"
#include "platform/base/UniqueFd.hpp"
#include "platform/base/WriteAll.hpp"
#include "repository/Download.hpp"
#include "store/RootState.hpp"
#include "tsappinstall/Guid.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsappinstall::installer {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using repository::ClientOptions;
using repository::Repository;
using repository::RepositoryIdentity;
using store::detail::RootStateAccess;

// Where the records live in the root's state: the recorded repositories as
// one JSON array, and the highest index version seen of each repository
// identity (RepositoryIdentity::key()). Roots written before identities
// keep the highest version seen by name (or location); such a mark is the
// floor of the next index read under that name, and moves to its identity.
const char* const kScope = "repositories";
const char* const kRecordsKey = "recorded";
const char* const kSeenScope = "repository-identity-highest-index";
const char* const kSeenByNameScope = "repository-highest-index";
// The copies of the recorded repositories' trust anchors, below the root.
const char* const kTrustFolder = "trust";

[[noreturn]] void fail(FaultKind kind, const std::string& item, const std::string& detail) {
    throw Error(Fault{kind, item, detail}, detail);
}

Json toJson(const Remote& r) {
    Json out = {
        {"name", r.name}, {"location", r.location}, {"trust", r.trust}, {"repoCa", r.serverCa}};
    if (!r.packageTrust.empty()) out["packageTrust"] = r.packageTrust;
    if (!r.repository.empty()) out["repository"] = r.repository;
    if (!r.signerKey.empty()) out["signerKey"] = r.signerKey;
    return out;
}

std::vector<std::string> textsOf(const Json& json, const char* name) {
    std::vector<std::string> out;
    for (const auto& item : json.value(name, Json::array()))
        if (item.is_string()) out.push_back(item.get<std::string>());
    return out;
}

std::optional<Remote> remoteOf(const Json& json) {
    if (!json.is_object() || !json.value("location", Json()).is_string()) return std::nullopt;
    Remote r;
    r.name = json.value("name", "");
    r.location = json["location"].get<std::string>();
    r.serverCa = json.value("repoCa", "");
    r.trust = textsOf(json, "trust");
    r.packageTrust = textsOf(json, "packageTrust");
    r.repository = json.value("repository", "");
    r.signerKey = json.value("signerKey", "");
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

// --- the copies of trust anchors in the root -------------------------------

// A copy is recorded by its path below the root, so that the root moves as
// one folder; "trust/NAME-TOKEN-USE.pem".
bool isCopy(const std::string& file) {
    return fs::path(file).is_relative() && file.rfind(std::string(kTrustFolder) + "/", 0) == 0 &&
           file.find("..") == std::string::npos;
}

bool allCopies(const std::vector<std::string>& files) {
    return std::all_of(files.begin(), files.end(), isCopy);
}

std::vector<std::string> resolved(const fs::path& root, std::vector<std::string> files) {
    for (auto& file : files)
        if (isCopy(file)) file = (root / file).string();
    return files;
}

// The name as a file name may hold it.
std::string fileSafe(const std::string& name) {
    std::string safe;
    for (char c : name.substr(0, 32))
        safe += opc::detail::is_ascii_alnum(static_cast<unsigned char>(c)) || c == '-' || c == '_'
                    ? c
                    : '_';
    return safe;
}

// Copies the certificates of `files` (nothing else they hold) into a file
// of the root's own; returns its path below the root.
std::string copyAnchors(const fs::path& root, const std::string& name, const char* use,
                        const std::vector<std::string>& files) {
    std::string pem;
    for (const auto& anchor : integrity::readTrustAnchors(files)) pem += anchor.pem;
    if (pem.empty()) fail(FaultKind::CannotRead, name, "the trust files hold no certificate");
    const fs::path folder = root / kTrustFolder;
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
        fail(FaultKind::CannotWrite, name, "cannot make " + folder.string());
    const std::string relative = std::string(kTrustFolder) + "/" + fileSafe(name) + "-" +
                                 opc::detail::randomToken(4) + "-" + use + ".pem";
    const fs::path path = root / relative;
    const opc::detail::UniqueFd fd(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd || opc::detail::write_all(fd.get(), pem.data(), pem.size()) != 0 ||
        ::fsync(fd.get()) != 0) {
        ::unlink(path.c_str());
        fail(FaultKind::CannotWrite, name, "cannot write " + path.string());
    }
    return relative;
}

void removeCopies(const fs::path& root, const Remote& recorded) {
    for (const auto* files : {&recorded.trust, &recorded.packageTrust})
        for (const std::string& file : *files)
            if (isCopy(file)) ::unlink((root / file).c_str());
    if (isCopy(recorded.serverCa)) ::unlink((root / recorded.serverCa).c_str());
}

// The remote with its copies' paths made absolute.
Remote resolved(const fs::path& root, Remote remote) {
    remote.trust = resolved(root, remote.trust);
    remote.packageTrust = resolved(root, remote.packageTrust);
    if (isCopy(remote.serverCa)) remote.serverCa = (root / remote.serverCa).string();
    return remote;
}

// Whether every file of the remote as remotes() gives it is a copy.
bool copiedIn(const fs::path& root, const Remote& remote) {
    const std::string folder = (root / kTrustFolder).string() + "/";
    const auto copy = [&](const std::string& file) { return file.rfind(folder, 0) == 0; };
    return std::all_of(remote.trust.begin(), remote.trust.end(), copy) &&
           std::all_of(remote.packageTrust.begin(), remote.packageTrust.end(), copy) &&
           (remote.serverCa.empty() || copy(remote.serverCa));
}

// The copies a record takes on, removed again unless it is recorded.
class Copies {
  public:
    explicit Copies(fs::path root) : root_(std::move(root)) {}
    ~Copies() {
        if (!kept_) removeCopies(root_, made_);
    }
    Copies(const Copies&) = delete;
    Copies& operator=(const Copies&) = delete;
    // Replaces the files of the recorded `remote` that are not copies by
    // copies: its trust anchors and the https server's CA.
    void into(Remote& remote) {
        copy(remote.name, "index", remote.trust, made_.trust);
        copy(remote.name, "packages", remote.packageTrust, made_.packageTrust);
        std::vector<std::string> server, made;
        if (!remote.serverCa.empty()) server = {remote.serverCa};
        copy(remote.name, "server", server, made);
        if (!made.empty()) remote.serverCa = made_.serverCa = made.front();
    }
    void keep() { kept_ = true; }

  private:
    void copy(const std::string& name, const char* use, std::vector<std::string>& files,
              std::vector<std::string>& made) {
        if (allCopies(files)) return;
        files = {copyAnchors(root_, name, use, files)};
        made = files;
    }

    fs::path root_;
    Remote made_;
    bool kept_ = false;
};

// --- the highest index version seen ----------------------------------------

std::uint64_t markOf(const store::AppStore& apps, const char* scope, const std::string& key) {
    const auto seen = RootStateAccess::read(apps, scope, key);
    return seen ? std::stoull(*seen) : 0;
}

void raiseMark(store::AppStore& apps, const std::string& key, std::uint64_t seen) {
    RootStateAccess::update(apps, kSeenScope, key, [&](const auto& now) {
        // Another process may have seen a higher version meanwhile.
        if (now && std::stoull(*now) >= seen) return std::optional<std::string>();
        return std::optional<std::string>(std::to_string(seen));
    });
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

// The anchors a package of the offer must lead to: none for one the index
// lists as unsigned, which the signed index vouches for.
std::vector<std::string> anchorsOf(const Offer& offer) {
    return offer.entry->signer.empty() ? std::vector<std::string>{} : offer.remote.packageAnchors();
}

// Removes a downloaded package whatever the install did, through the
// store's operations; the file's lock, held until then, tells recovery
// that it is in use.
class DownloadedFile {
  public:
    DownloadedFile(const opc::detail::FileOps& ops, repository::detail::Downloaded file)
        : ops_(ops), file_(std::move(file)) {}
    ~DownloadedFile() { ops_.unlinkat(AT_FDCWD, file_.path.c_str(), 0); }
    DownloadedFile(const DownloadedFile&) = delete;
    DownloadedFile& operator=(const DownloadedFile&) = delete;
    const fs::path& path() const { return file_.path; }

  private:
    const opc::detail::FileOps& ops_;
    repository::detail::Downloaded file_;
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
    std::vector<Remote> remotes = remotesOf(RootStateAccess::read(apps_, kScope, kRecordsKey));
    for (Remote& r : remotes) r = resolved(apps_.root(), r);
    return remotes;
}

std::uint64_t Installer::highestSeen(const Remote& remote) const {
    if (remote.signerKey.empty()) return markOf(apps_, kSeenByNameScope, remote.key());
    return markOf(apps_, kSeenScope,
                  RepositoryIdentity{remote.repository, remote.signerKey, remote.location}.key());
}

std::shared_ptr<const Repository> Installer::add(Remote remote) {
    if (remote.name.empty()) fail(FaultKind::Other, "", "a repository is recorded by a name");
    // Before the index is fetched, and again where it is recorded.
    refuseKnown(remotes(), remote);
    remote.location = recordedLocation(remote.location);
    remote.serverCa = absolute(remote.serverCa);
    for (auto* files : {&remote.trust, &remote.packageTrust})
        for (auto& file : *files) file = absolute(file);
    remote.repository.clear();  // pinned to what its index names
    remote.signerKey.clear();
    Remote recorded = remote;
    Copies copies(apps_.root());
    aboutRemote(remote, [&] { copies.into(recorded); });
    auto repository =
        open(resolved(apps_.root(), recorded));  // recorded only once its index was accepted
    recorded.repository = repository->identity().repository;
    recorded.signerKey = repository->identity().signerKey;
    changeRemotes(apps_, [&](std::vector<Remote>& now) {
        refuseKnown(now, recorded);
        now.push_back(recorded);
    });
    copies.keep();
    fetched_[recorded.key()] = repository;
    return repository;
}

void Installer::remove(const std::string& name) {
    std::optional<Remote> removed;
    changeRemotes(apps_, [&](std::vector<Remote>& remotes) {
        const auto found = std::find_if(remotes.begin(), remotes.end(),
                                        [&](const Remote& known) { return known.name == name; });
        if (found == remotes.end())
            fail(FaultKind::UnknownRepository, name, "no repository of that name");
        removed = *found;
        remotes.erase(found);
    });
    removeCopies(apps_.root(), *removed);
    // Forgotten completely: a repository added again under this name, or
    // one its publisher rebuilt, starts from what it then shows. Another
    // name recorded for the same repository keeps the mark.
    RootStateAccess::erase(apps_, kSeenByNameScope, removed->name);
    if (removed->signerKey.empty()) return;
    const std::string identity =
        RepositoryIdentity{removed->repository, removed->signerKey, removed->location}.key();
    for (const Remote& other : remotes())
        if (!other.signerKey.empty() &&
            RepositoryIdentity{other.repository, other.signerKey, other.location}.key() == identity)
            return;
    RootStateAccess::erase(apps_, kSeenScope, identity);
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

std::shared_ptr<const Repository> Installer::open(const Remote& remote) {
    ClientOptions options;
    options.trustAnchors = remote.trust;
    options.serverCa = remote.serverCa;
    options.repository = remote.repository;
    options.signerKey = remote.signerKey;
    // Read before the index: whoever moves this mark to the identity's
    // raises that one before dropping this one, so one of the two holds.
    options.highestSeen = markOf(apps_, kSeenByNameScope, remote.key());
    options.highestSeenOf = [this](const RepositoryIdentity& identity) {
        return markOf(apps_, kSeenScope, identity.key());
    };
    options.now = options_.now;
    options.stallSeconds = options_.stallSeconds;
    options.indexSeconds = options_.indexSeconds;
    options.downloadSeconds = options_.downloadSeconds;
    options.minimumRate = options_.minimumRate;
    options.attempts = options_.attempts;
    options.progress = options_.progress;
    auto repository = aboutRemote(
        remote, [&] { return std::make_shared<const Repository>(remote.location, options); });
    raiseMark(apps_, repository->identity().key(), repository->highestSeen());
    if (options.highestSeen > 0) RootStateAccess::erase(apps_, kSeenByNameScope, remote.key());
    return repository;
}

// A repository recorded before repositories were pinned is pinned to the
// first index accepted of it, and its trust files (and server CA) are copied
// in; one whose
// index names a repository only now takes that name.
void Installer::pin(const Remote& remote, const RepositoryIdentity& identity) {
    const bool current = !remote.signerKey.empty() &&
                         (!remote.repository.empty() || identity.repository.empty()) &&
                         copiedIn(apps_.root(), remote);
    if (remote.name.empty() || current) return;
    Copies copies(apps_.root());
    changeRemotes(apps_, [&](std::vector<Remote>& now) {
        for (Remote& r : now) {
            if (r.name != remote.name || r.location != remote.location) continue;
            if (r.signerKey.empty()) r.signerKey = identity.signerKey;
            if (r.repository.empty() && r.signerKey == identity.signerKey)
                r.repository = identity.repository;
            aboutRemote(r, [&] { copies.into(r); });
        }
    });
    copies.keep();
}

std::shared_ptr<const Repository> Installer::fetch(const Remote& remote) {
    auto& repository = fetched_[remote.key()];
    if (repository) return repository;
    repository = open(remote);
    pin(remote, repository->identity());
    recordRevocations(remote, repository->index());
    return repository;
}

// A revocation holds for every package, whichever repository offers it,
// and stays once seen: a later index that no longer lists the key does not
// make what it signed trustworthy again.
void Installer::recordRevocations(const Remote& remote, const repository::Index& index) {
    const std::string by = remote.name.empty() ? remote.location : remote.name;
    for (const std::string& key : index.revokedKeys) {
        // Known already: no lock taken, nothing written on every fetch.
        if (RootStateAccess::read(apps_, store::detail::REVOKED_KEYS_SCOPE, key)) continue;
        RootStateAccess::update(apps_, store::detail::REVOKED_KEYS_SCOPE, key,
                                [&](const std::optional<std::string>& now) {
                                    return now ? std::nullopt : std::optional<std::string>(by);
                                });
    }
}

// The indexes of `where` that can be read. With someone to tell, one that
// cannot is told once (when another could be read: else its failure is
// thrown) and left out.
Installer::Reached Installer::reachable(const std::vector<Remote>& where) {
    Reached out;
    std::vector<Remote> failing;
    for (const Remote& remote : where) {
        auto& failed = unreached_[remote.key()];
        try {
            if (failed) std::rethrow_exception(failed);
            out.emplace_back(remote, fetch(remote));
        } catch (const store::StoreError&) {
            throw;  // the root's own trouble, not the repository's
        } catch (const Error&) {
            if (!options_.unreachable) throw;
            if (!failed) failed = std::current_exception();
            failing.push_back(remote);
        }
    }
    if (out.empty() && !failing.empty()) std::rethrow_exception(unreached_[failing[0].key()]);
    for (const Remote& remote : failing) {
        if (!told_.insert(remote.key()).second) continue;
        try {
            std::rethrow_exception(unreached_[remote.key()]);
        } catch (const Error& e) {
            options_.unreachable(remote, e);
        }
    }
    return out;
}

std::vector<std::shared_ptr<const Repository>> Installer::indexes() {
    std::vector<std::shared_ptr<const Repository>> all;
    for (auto& [remote, repository] : reachable(remotes())) all.push_back(repository);
    return all;
}

// The GUID `app` stands for: itself, an installed app's of that name, or
// the one app of that name that the repositories offer.
std::string Installer::guidOf(const std::string& app, const Reached& where) {
    if (isGuid(app)) return opc::detail::ascii_lower(app);
    try {
        return apps_.show(app).current.guid;
    } catch (const store::StoreError& e) {
        if (e.kind() != FaultKind::NotInstalled) throw;
    }
    std::map<std::string, std::set<std::string>> offered;  // GUID -> repositories
    for (const auto& [remote, repository] : where)
        for (const auto& entry : repository->index().packages)
            if (entry.name == app)
                offered[opc::detail::ascii_lower(entry.guid)].insert(remote.key());
    if (offered.size() > 1) {
        std::string list;
        for (const auto& [guid, repositories] : offered) {
            std::string in;
            for (const auto& key : repositories) in += (in.empty() ? "" : ", ") + key;
            list += (list.empty() ? "" : "; ") + guid + " in " + in;
        }
        fail(FaultKind::AmbiguousName, app,
             app + " names " + std::to_string(offered.size()) + " apps (" + list +
                 "); give the GUID of the one to install");
    }
    return offered.empty() ? app : offered.begin()->first;
}

namespace {

// Every version of the app `guid` stands for (its GUID, or a name none
// resolved), in each repository reached.
template <class Each>
void eachListed(const std::vector<std::pair<Remote, std::shared_ptr<const Repository>>>& where,
                const std::string& guid, Each each) {
    for (const auto& [remote, repository] : where)
        for (const auto& entry : repository->index().packages)
            if (opc::detail::ascii_lower(entry.guid) == guid || entry.name == guid)
                each(remote, repository, entry);
}

}  // namespace

std::optional<Offer> Installer::find(const std::string& app, const store::HostProfile& host,
                                     const std::vector<Remote>& where) {
    return find(app, host, where, {});
}

std::optional<Offer> Installer::find(const std::string& app, const store::HostProfile& host,
                                     const std::vector<Remote>& where, const FindOptions& options) {
    const Reached reached = reachable(where.empty() ? remotes() : where);
    const std::string guid = guidOf(app, reached);
    std::optional<Offer> best;
    bool bestFits = false;
    eachListed(reached, guid, [&](const Remote& remote, const auto& repository, const auto& entry) {
        if (!options.version.empty() && store::compareVersions(entry.version, options.version))
            return;
        const bool fits = repository::isCompatible(entry, host);
        if (!fits && !options.anyHost) return;
        if (best &&
            (bestFits > fits || (bestFits == fits &&
                                 store::compareVersions(entry.version, best->entry->version) <= 0)))
            return;
        best = Offer{remote, repository, &entry};
        bestFits = fits;
    });
    return best;
}

std::string Installer::whyNotFound(const std::string& app, const store::HostProfile& host,
                                   const std::vector<Remote>& where, const FindOptions& options) {
    const Reached reached = reachable(where.empty() ? remotes() : where);
    const std::string guid = guidOf(app, reached);
    std::vector<const repository::PackageEntry*> listed;
    eachListed(reached, guid,
               [&](const Remote&, const auto&, const auto& entry) { listed.push_back(&entry); });
    std::sort(listed.begin(), listed.end(), [](const auto* a, const auto* b) {
        return store::compareVersions(a->version, b->version) > 0;
    });
    if (listed.empty()) {
        std::vector<std::string> names;
        for (const auto& [remote, repository] : reached)
            for (const auto& entry : repository->index().packages) names.push_back(entry.name);
        for (const auto& installed : apps_.list()) names.push_back(installed.current.name);
        const auto near = fl::i18n::nearest(app, names);
        std::string meant;
        for (std::size_t i = 0; i < near.size() && i < 3; ++i)
            meant += (i ? " or \"" : "; did you mean \"") + near[i] + "\"";
        return (isGuid(app) ? "no repository lists an app with the GUID " + guid
                            : "no repository lists an app called \"" + app + "\"") +
               meant + (meant.empty() ? "" : "?");
    }
    if (!options.version.empty()) {
        std::string versions;
        for (std::size_t i = 0; i < listed.size() && i < 5; ++i)
            versions += (i ? ", " : "") + listed[i]->version;
        if (std::none_of(listed.begin(), listed.end(), [&](const auto* entry) {
                return store::compareVersions(entry->version, options.version) == 0;
            }))
            return "no repository lists version " + options.version + " of it (it lists " +
                   versions + (listed.size() > 5 ? ", ..." : "") + ")";
        listed.erase(std::remove_if(listed.begin(), listed.end(),
                                    [&](const auto* entry) {
                                        return store::compareVersions(entry->version,
                                                                      options.version) != 0;
                                    }),
                     listed.end());
    }
    std::string reasons;
    for (const auto& reason : repository::incompatibilities(*listed.front(), host))
        reasons += (reasons.empty() ? "" : "; ") + reason;
    return "no version of it fits this host (the newest, " + listed.front()->version + ": " +
           reasons + "); --force installs it anyway";
}

struct Installer::Ranged {
    repository::detail::RangedPlan plan;
};

// The plan of a ranged download of the offer, or none with the reason told.
std::unique_ptr<Installer::Ranged> Installer::rangedPlan(const Offer& offer) const {
    if (options_.full) return nullptr;
    const auto tell = [&](const std::string& why) {
        if (options_.note) options_.note("downloading " + offer.entry->file + " whole: " + why);
    };
    std::map<std::string, repository::detail::HeldFile> installed;
    try {
        for (const auto& file : apps_.files(offer.entry->guid))
            installed[file.path] = {file.size, file.sha256};
    } catch (const store::StoreError& e) {
        if (e.kind() != FaultKind::NotInstalled) throw;
        return nullptr;  // a first install: whole is the only way, nothing to say
    }
    std::string why;
    auto ranged = aboutRemote(offer.remote, [&]() -> std::unique_ptr<Ranged> {
        try {
            return std::make_unique<Ranged>(Ranged{repository::detail::DownloadAccess::planRanged(
                *offer.repository, *offer.entry, installed, anchorsOf(offer))});
        } catch (const repository::detail::NotRanged& e) {
            why = e.what();
            return nullptr;
        }
    });
    if (!ranged) tell(why);
    return ranged;
}

store::InstallResult Installer::install(const Offer& offer, const store::HostProfile& host,
                                        store::InstallOptions options) {
    // The store reads the package's manifest once the download is in.
    const detail::ManifestWarmUp xml;
    const fs::path folder = apps_.downloadFolder();
    const auto& ops = RootStateAccess::ops(apps_);
    options.trustAnchors = anchorsOf(offer);
    options.origin = toJson(offer.remote).dump();
    options.packageSha256 = offer.entry->sha256;  // the download was checked against it
    if (const auto ranged = rangedPlan(offer)) {
        std::string why;
        try {
            std::optional<DownloadedFile> file;
            aboutRemote(offer.remote, [&] {
                try {
                    file.emplace(ops,
                                 repository::detail::DownloadAccess::downloadRanged(
                                     *offer.repository, *offer.entry, ranged->plan, folder, ops));
                } catch (const repository::detail::NotRanged& e) {
                    why = e.what();
                }
            });
            if (file) {
                store::InstallOptions partial = options;
                partial.absentParts = ranged->plan.absent;
                return apps_.install(file->path(), host, partial);
            }
        } catch (const store::StoreError& e) {
            if (e.kind() != FaultKind::NotReusable) throw;
            why = std::string("the installed files cannot be reused (") + e.what() + ")";
        }
        if (options_.note) options_.note("downloading " + offer.entry->file + " whole: " + why);
    }
    const DownloadedFile file(ops, aboutRemote(offer.remote, [&] {
                                  return repository::detail::DownloadAccess::download(
                                      *offer.repository, *offer.entry, folder, ops);
                              }));
    return apps_.install(file.path(), host, options);
}

store::Plan Installer::plan(const Offer& offer, const store::HostProfile& host,
                            const store::InstallOptions& options) const {
    const repository::PackageEntry& entry = *offer.entry;
    store::PackageFacts facts;
    facts.guid = entry.guid;
    facts.name = entry.name;
    facts.version = entry.version;
    facts.incompatibilities = repository::incompatibilities(entry, host);
    // install() verifies a package listed as signed against the package
    // anchors, so its signer is the one the signed index names.
    facts.signerSubject = entry.signer;
    facts.signerFingerprint = entry.signerFingerprint;
    facts.signerKeyFingerprint = entry.signerKey;
    facts.size = entry.size;
    store::InstallOptions planned = options;
    planned.trustAnchors = anchorsOf(offer);
    // Planned first as the run checks first: a refusal comes before any
    // request for the package.
    store::Plan plan = apps_.planInstall(facts, planned);
    if (const auto ranged = rangedPlan(offer)) {
        for (const auto& item : ranged->plan.left) facts.sharedBytes += item.size;
        plan = apps_.planInstall(facts, planned);
        plan.download = ranged->plan.download;
        plan.diskChange += static_cast<std::int64_t>(ranged->plan.changed);
        plan.undecided.erase(std::remove_if(plan.undecided.begin(), plan.undecided.end(),
                                            [](const std::string& line) {
                                                return line.find("the disk space") == 0;
                                            }),
                             plan.undecided.end());
    }
    return plan;
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
    std::vector<store::InstalledApp> installed;
    if (apps.empty()) installed = apps_.list();
    for (const auto& app : apps) installed.push_back(apps_.show(app));
    const auto recorded = remotes();
    std::vector<Outdated> found;
    for (const auto& app : installed) {
        const auto& version = app.current;
        const auto where = whereToLook(version, recorded);
        if (where.empty()) continue;
        const auto offer = find(version.guid, host, where);
        if (offer && store::compareVersions(offer->entry->version, version.version) > 0)
            found.push_back({version, *offer, app.held});
    }
    return found;
}

}  // namespace tsappinstall::installer
