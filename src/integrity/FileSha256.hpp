#pragma once

// A file's SHA-256, for the layers that record or compare whole files: the
// store (a package file, an installed file) and the repositories (a
// published or downloaded package).

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>

#include "platform/extract/FileOps.hpp"

namespace tsappinstall::integrity {

struct FileSha256 {
    std::string hex;  // 64 lower-case hex digits; empty when stopped or failed
    std::uint64_t size = 0;
    int error = 0;  // the errno of the read that failed
};

// The bytes of the open file `fd` from its start, read through `ops` (so
// that a test can make a read fail). Gives up once `stop` is set.
FileSha256 sha256OfFile(const opc::detail::FileOps& ops, int fd,
                        const std::atomic<bool>* stop = nullptr);

// The file at `path`, hex. Throws Error (CannotRead): "cannot open PATH",
// "cannot read PATH".
std::string sha256OfFile(const std::filesystem::path& path);

}  // namespace tsappinstall::integrity
