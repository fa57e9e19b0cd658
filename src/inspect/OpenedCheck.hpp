#pragma once

// The package check for a caller that goes on to use the package it
// checked: one open, and what was checked is what it then reads.

#include <filesystem>
#include <optional>
#include <set>
#include <string>

#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsappinstall::inspect::detail {

// As checkPackage; `opened` holds the package afterwards whenever it
// opened, for the caller to read further and close, and `manifestSha256`
// (when given) the SHA-256, hex, of the manifest bytes that were checked.
// `leftOut` names the ZIP items the file leaves out (OpenedPackage): a
// check that decodes every part fails on them.
Report checkPackage(const std::filesystem::path& path, AppManifestSerializer& serializer,
                    bool decodeParts, unsigned threads,
                    std::optional<opc::model::OpenedPackage>& opened, std::string* manifestSha256,
                    const std::set<std::string>& leftOut = {});

}  // namespace tsappinstall::inspect::detail
