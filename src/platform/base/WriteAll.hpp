#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace opc::detail {

// write() until all `size` bytes are out, going on after short writes and
// EINTR. 0, or -1 with errno set.
inline int write_all(int fd, const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::write(fd, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written == 0) errno = EIO;  // nothing written and no reason given
        if (written <= 0) return -1;
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

// pwrite() of all `size` bytes at `offset`, as write_all(); the file's
// offset stays where it was.
inline int write_all_at(int fd, const void* data, std::size_t size, off_t offset) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::pwrite(fd, bytes, size, offset);
        if (written < 0 && errno == EINTR) continue;
        if (written == 0) errno = EIO;
        if (written <= 0) return -1;
        bytes += written;
        offset += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

}  // namespace opc::detail
