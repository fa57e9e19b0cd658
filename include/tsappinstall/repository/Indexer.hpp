#pragma once

// Publishing a folder of packages as a repository: the index, the images
// pulled out of the packages, the signature and a gallery of static pages.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"

namespace tsappinstall::repository {

struct IndexOptions {
    // The repository's identifier (isRepositoryId()), which its index names
    // so that clients tell it from the publisher's other repositories.
    // Empty: the one the folder's index (or its cache) names; a folder that
    // has neither needs one.
    std::string repository;
    unsigned jobs = 0;                           // packages read at once; 0: one per core
    std::int64_t validFor = 30 * 24 * 3600;      // seconds from now to the index's expiry
    std::int64_t now = -1;                       // seconds since the epoch; -1: the clock's
    std::string signingKey, signingCertificate;  // PEM files; both or neither
    // Signer keys to revoke from now on (64 hex digits each); those the
    // folder's index revoked before stay revoked. Packages they signed
    // are left out.
    std::vector<std::string> revoke;
    // What the gallery tells its visitors: the URL clients read the
    // repository at, for the commands it shows, and the publisher's title
    // for its pages. Empty: the last ones given for the folder, kept in
    // its cache; without a URL the pages say how to find it.
    std::string url;
    std::string title;
};

struct Problem {
    std::string file;  // the package's file name
    std::string what;
};

struct IndexOutcome {
    std::uint64_t version = 0;
    std::size_t packages = 0;            // listed in the index
    std::size_t read = 0;                // read afresh, not taken from the cache
    std::vector<Problem> badPackages;    // left out of the index
    std::vector<Problem> leftOutImages;  // the package stays, without the image
    // No earlier index (nor cache) was in the folder. The index is numbered
    // by its generation time all the same (or one more than the last one,
    // when that is higher), so a repository rebuilt in a fresh folder is not
    // refused as a rollback by readers of its former indexes.
    bool firstIndex = false;
};

// Indexes every *.tsappinstall directly in `folder`, each checked as the
// package check does plus its signature when it has one (against no trust
// anchor: the signer is recorded, not judged). Writes images/, index.html,
// apps/*.html, then (when signing) signatures/VERSION.p7s and
// index.json.p7s, then index.json, each to a temporary file renamed into
// place, and keeps the signature of the index before this one for readers
// that read that index a moment ago. A cache in the
// folder (.tsapp-index-cache.json) keyed by name, size and modification
// time spares unchanged packages the read; when either differs, an equal
// SHA-256 still does. Throws Error (CannotRead, CannotWrite, or what
// signing throws) when the folder cannot be indexed at all.
TSAPP_API IndexOutcome indexFolder(const std::filesystem::path& folder,
                                   const IndexOptions& options);

}  // namespace tsappinstall::repository
