#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace opc::detail {

// pread() until `size` bytes are in or the file ends, retrying on EINTR.
// Returns the count read (short only at the end of the file), or -1 with
// errno set.
inline ssize_t read_at(int fd, unsigned char* buffer, std::size_t size, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n =
            ::pread(fd, buffer + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

}  // namespace opc::detail
