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

class Connection;

struct ClientOptions {
    // PEM files a signature of the index must lead to; empty with
    // allowUnsigned only, when the signature is not checked at all.
    std::vector<std::string> trustAnchors;
    bool allowUnsigned = false;
    std::string serverCa;  // PEM file replacing the system's CA store for https
    // The highest index version seen for this repository before (0: none):
    // a lower one is a rollback. Repository::highestSeen() is the value to
    // keep for the next time.
    std::uint64_t highestSeen = 0;
    std::int64_t now = -1;   // seconds since the epoch; -1: the clock's
    long stallSeconds = 30;  // a transfer without a byte for this long fails
    int attempts = 3;        // tries per download, resumed where allowed
    // Called as bytes arrive: done and the indexed size.
    std::function<void(std::uint64_t, std::uint64_t)> progress;
};

class TSAPP_API Repository {
  public:
    // Fetches and checks the index at `location`: its signature, its
    // expiry, its version against options.highestSeen and its rules. The
    // index, its signature and every download of this object share one
    // connection to an http(s) server.
    Repository(std::string location, ClientOptions options);
    ~Repository();
    Repository(Repository&&) noexcept;
    Repository& operator=(Repository&&) noexcept;

    const Index& index() const { return index_; }
    const std::string& location() const { return location_; }
    // The signer of the index; empty when it was read unsigned.
    const std::string& signer() const { return signer_; }
    std::uint64_t highestSeen() const;

    // Downloads `entry` into `folder` (which must exist; the store's own
    // temporary folder) and returns the path of the checked file. The
    // transfer stops at the indexed size; a partial file "<file>.part" is
    // resumed on the next attempt where the server allows ranges, and
    // removed when the download fails for good, so nothing half-downloaded
    // is left behind. The package's SHA-256 and manifest must match the
    // entry.
    std::filesystem::path download(const PackageEntry& entry,
                                   const std::filesystem::path& folder) const;

  private:
    std::string location_;
    ClientOptions options_;
    std::unique_ptr<Connection> connection_;
    Index index_;
    std::string signer_;
};

}  // namespace tsappinstall::repository
