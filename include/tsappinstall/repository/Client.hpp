#pragma once

// The client side of a repository: fetching its index from a folder, a
// file: URL or an http(s): URL, refusing what an attacker on the way (or
// behind the server) could hand over, and downloading packages the index
// vouches for. Each refusal is an Error with its kind and one line.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/repository/Index.hpp"

namespace tsappinstall::repository {

namespace detail {
struct DownloadAccess;
}

class Connection;

// Who publishes an index: the repository it names and the key that signed
// it. Indexes of one identity are versions of one repository wherever
// they are read from, so the highest version seen is kept per identity,
// not per location.
struct TSAPP_API RepositoryIdentity {
    std::string repository;  // Index::repository; empty in an index that names none
    std::string signerKey;   // SHA-256 of the index signer's public key; empty when unsigned
    std::string location;    // where it was read
    // What its highest version seen is kept under: the identifier and the
    // key, or for an index that names no repository, the location and the
    // key.
    std::string key() const;
};

struct ClientOptions {
    // PEM files a signature of the index must lead to; empty with
    // allowUnsigned only, when the signature is not checked at all.
    std::vector<std::string> trustAnchors;
    bool allowUnsigned = false;
    std::string serverCa;  // PEM file replacing the system's CA store for https
    // The repository the index must name and the key its signer must have,
    // as first seen of it (RepositoryIdentity); empty: any that the trust
    // anchors accept. Another repository's index, signed by a key they
    // trust as well, is refused as WrongRepository.
    std::string repository;
    std::string signerKey;
    // The highest index version seen for this repository before (0: none):
    // a lower one is a rollback. Repository::highestSeen() is the value to
    // keep for the next time.
    std::uint64_t highestSeen = 0;
    // Asked, once the index's signature is checked, for the highest version
    // seen of the identity it has; the higher of its answer and
    // highestSeen holds.
    std::function<std::uint64_t(const RepositoryIdentity&)> highestSeenOf;
    std::int64_t now = -1;   // seconds since the epoch; -1: the clock's
    long stallSeconds = 30;  // a transfer without a byte for this long fails
    // However steadily the bytes arrive, the index and its signature must
    // each be in within indexSeconds, and a package (all its attempts)
    // within downloadSeconds plus its indexed size at minimumRate bytes a
    // second (0: no allowance for the size).
    long indexSeconds = 300;
    long downloadSeconds = 30;
    std::uint64_t minimumRate = 16u << 10;
    int attempts = 3;  // tries per download, resumed where allowed
    // Called as bytes arrive: done and the indexed size.
    std::function<void(std::uint64_t, std::uint64_t)> progress;
};

class TSAPP_API Repository {
  public:
    // Fetches and checks the index at `location`: its signature, its
    // expiry, its identity against the one pinned, its version against the
    // highest seen and its rules. The index and its signature are read
    // again once when they do not match (a publisher was replacing them).
    // The index, its signature and every download of this object share one
    // connection to an http(s) server.
    Repository(std::string location, ClientOptions options);
    ~Repository();
    Repository(Repository&&) noexcept;
    Repository& operator=(Repository&&) noexcept;

    const Index& index() const { return index_; }
    const std::string& location() const { return location_; }
    // The signer of the index; empty when it was read unsigned.
    const std::string& signer() const { return signer_; }
    const RepositoryIdentity& identity() const { return identity_; }
    std::uint64_t highestSeen() const;

    // Downloads `entry` into `folder` (which must exist; the store's own
    // temporary folder) and returns the path of the checked file, a name of
    // this download's own ending in the entry's file name, which the caller
    // removes. The transfer stops at the indexed size; a partial file
    // "<file>.part" is resumed on the next attempt where the server allows
    // ranges, and removed when the download fails for good, so nothing
    // half-downloaded is left behind. One download at a time holds the
    // partial file: another of the same file into the same folder waits for
    // it. The package's SHA-256 and manifest must match the entry.
    std::filesystem::path download(const PackageEntry& entry,
                                   const std::filesystem::path& folder) const;

  private:
    friend struct detail::DownloadAccess;
    std::string location_;
    ClientOptions options_;
    std::unique_ptr<Connection> connection_;
    Index index_;
    std::string signer_;
    RepositoryIdentity identity_;
    std::uint64_t seen_ = 0;
};

}  // namespace tsappinstall::repository
