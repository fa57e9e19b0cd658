#pragma once

// Unpacks a package into a new version folder, checking its digests (and,
// with trust anchors, its signature first) in the same read, and returns
// what the records need: every file's path, size, mode and SHA-256.

#include <filesystem>
#include <string>
#include <vector>

#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/Package.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsappinstall::store::detail {

struct Unpacked {
    std::vector<InstalledFile> files;  // by path
    std::string signerSubject;         // when a signature was verified
    std::string signerFingerprint;     // of its certificate
    std::string signerKeyFingerprint;  // of its key
    std::vector<std::string> leftAside;
};

// `folder` (absolute) must not exist yet. Throws StoreError (BadPackage,
// one line per digest or signature fault) and opc::Exception for what the
// extraction itself refuses; either way `folder` is not there afterwards.
Unpacked unpack(opc::model::Package& package, const std::filesystem::path& folder,
                const InstallOptions& options, const opc::FileSystemOpsSelector& ops);

}  // namespace tsappinstall::store::detail
