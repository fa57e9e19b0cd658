#pragma once

// A package's download on given file operations, for the store's
// installer: its calls in the download folder go through the store's, so
// that the store's fault-injection tests reach them, and the finished file
// stays locked until the caller has installed and removed it, so that
// recovery can tell it from one a crash left.

#include <filesystem>

#include "platform/extract/FileOps.hpp"
#include "tsappinstall/repository/Client.hpp"

namespace tsappinstall::repository::detail {

struct Downloaded {
    std::filesystem::path path;
    opc::detail::OpsFd held;  // the file, locked (flock) exclusively
};

struct DownloadAccess {
    // Repository::download() through `ops`.
    static Downloaded download(const Repository& repository, const PackageEntry& entry,
                               const std::filesystem::path& folder,
                               const opc::detail::FileOps& ops);
};

}  // namespace tsappinstall::repository::detail
