#pragma once

// Unpacks a package into a new version folder, checking its digests (and,
// with trust anchors, its signature first) in the same read, and returns
// what the records need: every file's path, size, mode and SHA-256.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Records.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/Package.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsappinstall::store::detail {

// The version an upgrade, reinstall or downgrade replaces: its files that
// the new version holds unchanged are taken from it rather than unpacked.
struct Replaced {
    int apps = -1;            // ROOT/apps, open; the caller's
    std::string folder;       // below it: "GUID/v1.2.0-x"
    std::string shownFolder;  // as errors name it
    std::string version;      // "1.2.0"
    std::vector<InstalledFile> files;
    FileStamps stamps;
};

struct Unpacked {
    std::vector<InstalledFile> files;  // by path
    FileStamps stamps;
    std::uint64_t takenFiles = 0;  // taken from the replaced version
    std::uint64_t takenBytes = 0;
    std::string signerSubject;         // when a signature was verified
    std::string signerFingerprint;     // of its certificate
    std::string signerKeyFingerprint;  // of its key
    std::vector<std::string> leftAside;
};

// `folder` (absolute) must not exist yet. Throws StoreError (BadPackage,
// one line per digest or signature fault; NotReusable when a part in
// options.absentParts cannot be taken from `replaced`) and opc::Exception
// for what the extraction itself refuses; either way `folder` is not there
// afterwards. A part is taken from `replaced` when the package's digest
// list gives it the digest recorded there for the same path and the file
// there still is what was recorded (size, mode, and its SHA-256 read now
// unless its stamp still holds).
// The bytes of the files an upgrade from `current` (the installed
// version's records) to `package` would take rather than unpack, as far as
// the package's digest list tells: whether each file is still as recorded
// is known only as it is taken.
std::uint64_t sharedBytes(opc::model::Package& package, const std::vector<InstalledFile>& current);

Unpacked unpack(opc::model::Package& package, const std::filesystem::path& folder,
                const InstallOptions& options, const opc::FileSystemOpsSelector& ops,
                const Replaced* replaced = nullptr);

}  // namespace tsappinstall::store::detail
