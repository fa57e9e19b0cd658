#pragma once

// Installing from repositories, as a host application does it: the
// repositories recorded in an apps root with copies of their trust anchors,
// the highest index version seen of each repository (an older index is then
// refused as a rollback, wherever it is read from), the repository each
// installed version came from, and installing, listing and upgrading
// through them. All of it lives in the root itself, and the origin of a
// version is written in the very transaction that installs it.
//
// Failures are Errors whose fault names the repository (its name, or its
// location) as the item, with the kind of what went wrong: IndexRollback,
// WrongRepository, UntrustedSigner, DigestMismatch, UnknownRepository,
// RepositoryExists, NotOffered, AmbiguousName, ...; the store's own
// refusals pass on as StoreErrors.

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/repository/Client.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsappinstall::installer {

// A repository as recorded in an apps root, or named by its location alone.
struct Remote {
    std::string name;                // empty for one named by its location alone
    std::string location;            // a folder, a file: URL or an http(s): URL
    std::vector<std::string> trust;  // PEM files the index's signer must lead to
    std::string serverCa;            // PEM file of an https: server's CA; empty: the system's
    // PEM files a listed package's signer must lead to; empty: `trust`. The
    // publisher of the index and the authors of its apps may be different
    // parties.
    std::vector<std::string> packageTrust{};
    // The repository its index names and the SHA-256 of the key that signs
    // it (repository::RepositoryIdentity), pinned when it was added; an
    // index of another repository at its location is refused
    // (WrongRepository). Empty: not pinned.
    std::string repository{};
    std::string signerKey{};
    // How records and refusals name it: its name, or its location.
    const std::string& key() const { return name.empty() ? location : name; }
    // The files a listed package's signer must lead to.
    const std::vector<std::string>& packageAnchors() const {
        return packageTrust.empty() ? trust : packageTrust;
    }
};

// A version of an app that a repository offers.
struct Offer {
    Remote remote;
    std::shared_ptr<const repository::Repository> repository;
    const repository::PackageEntry* entry = nullptr;  // one of repository->index()'s
};

struct Outdated {
    store::InstalledVersion installed;
    Offer offer;
    bool held = false;  // the app is held at its version (AppStore::hold())
};

struct InstallerOptions {
    long stallSeconds = 30;  // a transfer without a byte for this long fails
    // Deadlines, as repository::ClientOptions has them: the index and its
    // signature each within indexSeconds, a package within downloadSeconds
    // plus its size at minimumRate bytes a second.
    long indexSeconds = 300;
    long downloadSeconds = 30;
    std::uint64_t minimumRate = 16u << 10;
    int attempts = 3;       // tries per download
    std::int64_t now = -1;  // seconds since the epoch, for index expiry; -1: the clock's
    // Called as a package's bytes arrive: done, and the indexed size.
    std::function<void(std::uint64_t, std::uint64_t)> progress;
    // Told of a repository whose index cannot be read or is refused while
    // several are looked in (to find, search or upgrade): it is left out
    // and the others are used; its failure is thrown only when none is
    // left. Without it, the first failure is thrown.
    std::function<void(const Remote&, const Error&)> unreachable;
    // A package of an app with an installed version is fetched in ranges:
    // its directory, its digest list and the items that differ from the
    // installed version's files. Told, one line each, why a package is
    // downloaded whole instead (no installed version, an index that does
    // not pin the digest list, a server that ignores ranges, a store that
    // cannot reuse the installed files...).
    std::function<void(const std::string&)> note;
    bool full = false;  // always download packages whole
};

// What find() takes beyond the app.
struct FindOptions {
    std::string version;  // this version (compareVersions() equal) only; empty: the newest
    // A version that does not fit the host will do, as a forced install
    // takes it; one that fits still goes first.
    bool anyHost = false;
};

class TSAPP_API Installer {
  public:
    // Works on `apps`, which must outlive the installer. Each repository's
    // index is fetched at most once per installer.
    explicit Installer(store::AppStore& apps, InstallerOptions options = {});
    ~Installer();
    Installer(const Installer&) = delete;
    Installer& operator=(const Installer&) = delete;

    // The recorded repositories, in the order they were added, their trust
    // files being the copies in the root.
    std::vector<Remote> remotes() const;
    // The highest index version seen of the repository `remote` is pinned
    // to (of its name, for one recorded before repositories were pinned);
    // 0: none.
    std::uint64_t highestSeen(const Remote& remote) const;

    // Fetches the index of `remote` and records the repository once the
    // index was accepted, pinned to the repository the index names and the
    // key that signed it, with copies of its trust anchors (`trust`, and
    // `packageTrust` when given) and of its server CA in the root's trust/
    // folder: the files given are not read again. Refuses a name that is empty or recorded
    // already (RepositoryExists) and a trust file without a certificate.
    std::shared_ptr<const repository::Repository> add(Remote remote);
    // Forgets a recorded repository, its copies of the trust anchors and
    // the highest index version seen of it (unless another name recorded
    // is the same repository), so that the name can be used again
    // (UnknownRepository when there is none).
    void remove(const std::string& name);
    // Records that the repository `name` now lives at `location`, once the
    // index there was accepted: it must be the repository and key pinned,
    // its signer must lead to the recorded trust anchors and its version may
    // not be below the highest seen. Apps installed from it are looked for
    // at the new location.
    std::shared_ptr<const repository::Repository> move(const std::string& name,
                                                       const std::string& location);

    // The index of `remote`, held to its pins and to the highest version
    // seen of the repository it names, under whatever name or location;
    // the mark is raised once the index is accepted. A recorded repository
    // that is not pinned yet (recorded by an earlier version of this
    // library) is pinned then, and its mark moves from its name to it.
    std::shared_ptr<const repository::Repository> fetch(const Remote& remote);

    // The index of every recorded repository.
    std::vector<std::shared_ptr<const repository::Repository>> indexes();

    // The newest version of `app` that fits `host` in `where` (empty: every
    // recorded repository); nullopt when none has one. `app` is a GUID, or
    // a name: that of an installed app stands for its GUID; any other
    // must name one app (one GUID) in the repositories looked in, else
    // AmbiguousName lists the GUIDs and where each is offered.
    std::optional<Offer> find(const std::string& app, const store::HostProfile& host,
                              const std::vector<Remote>& where = {});
    std::optional<Offer> find(const std::string& app, const store::HostProfile& host,
                              const std::vector<Remote>& where, const FindOptions& options);
    // Why find() with the same arguments finds nothing, as one sentence:
    // no repository lists the app (naming the apps the repositories list
    // and the root holds that it may have meant, by fl::i18n::nearest()),
    // none lists that version (naming those listed), or none fits the host
    // (with the newest version's reasons).
    std::string whyNotFound(const std::string& app, const store::HostProfile& host,
                            const std::vector<Remote>& where = {}, const FindOptions& options = {});

    // Downloads the offer into the store's download folder and installs it
    // with `options`, recording the repository with the version. Over an
    // installed version the download is ranged where it can be (see
    // InstallerOptions::note), the store reusing the installed files for
    // the items left out; when the store cannot, the package is downloaded
    // whole and installed again. A package
    // the index lists as signed is verified against the repository's
    // package trust anchors; one it lists as unsigned is vouched for by the
    // signed index.
    // The download is removed whatever happens.
    store::InstallResult install(const Offer& offer, const store::HostProfile& host,
                                 store::InstallOptions options);

    // What install() with the same arguments would do, from what the index
    // says of the package: nothing is downloaded. What only the package
    // itself can tell (the key rotation proofs it carries) is undecided.
    // For a ranged download, the package's directory and digest list are
    // fetched to tell the bytes it downloads and the disk space its
    // changed files add.
    store::Plan plan(const Offer& offer, const store::HostProfile& host,
                     const store::InstallOptions& options) const;

    // The installed apps named (GUIDs or names; empty: every one) that have
    // a newer version that fits `host`, looked for in the repository each
    // came from while it is recorded, else in every recorded one. A held
    // app is among them (installed.held, as InstalledApp::held) for the
    // caller to pass by.
    std::vector<Outdated> outdated(const std::vector<std::string>& apps,
                                   const store::HostProfile& host);

  private:
    struct Ranged;
    std::unique_ptr<Ranged> rangedPlan(const Offer& offer) const;
    std::shared_ptr<const repository::Repository> open(const Remote& remote);
    void pin(const Remote& remote, const repository::RepositoryIdentity& identity);
    void recordRevocations(const Remote& remote, const repository::Index& index);
    using Reached = std::vector<std::pair<Remote, std::shared_ptr<const repository::Repository>>>;
    Reached reachable(const std::vector<Remote>& where);
    std::string guidOf(const std::string& app, const Reached& where);
    std::vector<Remote> whereToLook(const store::InstalledVersion& version,
                                    const std::vector<Remote>& recorded) const;

    store::AppStore& apps_;
    InstallerOptions options_;
    std::map<std::string, std::shared_ptr<const repository::Repository>> fetched_;  // by key()
    std::map<std::string, std::exception_ptr> unreached_;                           // by key()
    std::set<std::string> told_;  // the keys of those told to options_.unreachable
};

// The origin that Installer::install records, read back: the repository a
// version came from, or nullopt for a version installed from a file.
TSAPP_API std::optional<Remote> originOf(const store::InstalledVersion& version);

}  // namespace tsappinstall::installer
