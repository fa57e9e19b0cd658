#pragma once

// A repository's index: static, signed metadata describing the packages in
// one folder, which clients trust instead of the files' names. The text
// form is index.json; its detached CMS signature is signatures/VERSION.p7s,
// written before the index it signs, so that whatever index.json a reader
// finds has its signature in place (and, for readers that predate the
// versioned names, index.json.p7s too).

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/Fault.hpp"
#include "tsappinstall/compat/Compatibility.hpp"
#include "tsappinstall/export.hpp"

namespace tsappinstall::repository {

inline constexpr int INDEX_SCHEMA = 1;
inline constexpr const char* INDEX_FILE = "index.json";
inline constexpr const char* INDEX_SIGNATURE_FILE = "index.json.p7s";
inline constexpr const char* INDEX_SIGNATURES_FOLDER = "signatures";
inline constexpr const char* IMAGES_FOLDER = "images";
// A client reads no more of an index or its signature than this.
inline constexpr std::uint64_t MAX_INDEX_BYTES = 64u << 20;
inline constexpr std::uint64_t MAX_INDEX_SIGNATURE_BYTES = 1u << 20;

struct Product {
    std::string identifier;
    std::string name;
    std::string version;
};

// One package file of the repository, as its manifest describes it. Texts
// are UTF-8 and untrusted: whoever shows them escapes them.
struct PackageEntry {
    std::string file;  // a plain file name in the repository's folder
    std::uint64_t size = 0;
    std::string sha256;  // 64 lower-case hex digits
    std::string guid;
    std::string name;
    std::string version;
    std::string summary;
    std::string description;
    std::string authorName;
    std::string authorContact;
    std::string authorOrganization;
    std::string minRelease;
    std::string maxRelease;
    std::vector<std::string> platforms;
    std::vector<Product> requiredProducts;
    std::string signer;             // the signer's subject; empty when unsigned
    std::string signerFingerprint;  // SHA-256 of the signer's certificate
    std::string signerKey;          // SHA-256 of the signer's public key
    std::string icon;               // "images/<sha256>.png", or empty
    std::string screenshot;
    // The package's digest list: its ZIP item name and the SHA-256 of its
    // bytes. The signed index pins the list with it, so that a client can
    // fetch the list alone, trust it and take only the parts that differ
    // from what it has (a ranged upgrade). Empty for a package without a
    // list, and in an index written before lists were pinned.
    std::string digestList;
    std::string digestListSha256;
};

struct Index {
    int schema = INDEX_SCHEMA;
    // The identifier its publisher gave the repository (isRepositoryId());
    // empty in an index written before repositories were named.
    std::string repository;
    std::uint64_t version = 0;   // grows with every publication
    std::int64_t generated = 0;  // seconds since the epoch, UTC
    std::int64_t expires = 0;
    std::vector<PackageEntry> packages;
    // Signer keys (SHA-256 of the public key, 64 lower-case hex digits)
    // the publisher revoked: clients refuse what they signed, wherever it
    // comes from. Sorted, each once.
    std::vector<std::string> revokedKeys;
};

// A package file a repository may list: a name ending in .tsappinstall,
// of letters, digits and ".-_+~", not hidden, so that it never leaves the
// folder and travels in a URL as it is.
TSAPP_API bool isPlainFileName(const std::string& file);

// The signature of index version `version`, below the repository's location.
TSAPP_API std::string signatureFileOf(std::uint64_t version);

// A repository's identifier: 1 to 64 letters, digits and ".-_", starting
// with a letter or a digit ("stable", "example.org-testing").
TSAPP_API bool isRepositoryId(const std::string& id);

// index.json's text: stable member order, two-space indentation.
TSAPP_API std::string formatIndex(const Index& index);

// Reads index.json's text and holds it to its rules: at most
// MAX_INDEX_BYTES, the known schema, every member of the right type (and
// members it does not know ignored, so that it can grow), a repository
// identifier of the rule's form when there is one, file
// names that stay in the repository's folder, image paths in its images
// folder, no file and no GUID-and-version listed twice. Throws Error of kind
// BadIndex naming the first rule broken.
TSAPP_API Index parseIndex(const std::string& text);

// Versions and hosts are the store's: an app the repository offers fits a
// host exactly when the store would install it there without --force.
using compat::compareVersions;
using compat::HostProfile;

// Whether `entry` runs on `host`: compat::incompatibilities() finds no
// reason against the manifest the entry describes.
TSAPP_API bool isCompatible(const PackageEntry& entry, const HostProfile& host);
// Why `entry` does not run on `host`, one reason a line; none when it does.
TSAPP_API std::vector<std::string> incompatibilities(const PackageEntry& entry,
                                                     const HostProfile& host);

// The entries whose name, summary or author's name contains `text`,
// ignoring case (fl::i18n::folded()); every entry for an empty text.
TSAPP_API std::vector<const PackageEntry*> search(const Index& index, const std::string& text);

// The highest version of the app named `nameOrGuid` (its GUID in any case,
// or its exact name) that isCompatible() with `host`; null when there is
// none.
TSAPP_API const PackageEntry* pickNewest(const Index& index, const std::string& nameOrGuid,
                                         const HostProfile& host);

}  // namespace tsappinstall::repository
