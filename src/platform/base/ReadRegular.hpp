#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/ReadAt.hpp"
#include "platform/base/UniqueFd.hpp"

namespace opc::detail {

// The bytes of the regular file at `path`; nullopt when it is missing,
// a link, anything but a regular file (a FIFO is opened without waiting
// for a writer and never read), larger than `most`, or unreadable.
inline std::optional<std::string> read_regular_file(const std::string& path, std::uint64_t most) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (!fd || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        static_cast<std::uint64_t>(info.st_size) > most)
        return std::nullopt;
    std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
    const ssize_t got =
        read_at(fd.get(), reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), 0);
    if (got < 0) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(got));
    return bytes;
}

}  // namespace opc::detail
