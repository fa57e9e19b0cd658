#include "platform/extract/FileOps.hpp"

#include <fcntl.h>
#include <stdio.h>  // renameat2
#include <unistd.h>

#include <cerrno>

#include "tsappinstall/platform/opc/FileSystemManager.hpp"

namespace opc::detail {

int FileOps::failed(FileCall call) const {
    if (const int error = fault(call)) {
        errno = error;
        return -1;
    }
    return 0;
}

int FileOps::openat(int dir, const char* name, int flags, mode_t mode) const {
    if (failed(FileCall::Open)) return -1;
    return ::openat(dir, name, flags | O_CLOEXEC, mode);
}

int FileOps::mkdirat(int dir, const char* name) const {
    if (failed(FileCall::Mkdir)) return -1;
    return ::mkdirat(dir, name, 0777);
}

int FileOps::renameat(int fromDir, const char* from, int toDir, const char* to,
                      unsigned flags) const {
    if (failed(FileCall::Rename)) return -1;
    return ::renameat2(fromDir, from, toDir, to, flags);
}

int FileOps::unlinkat(int dir, const char* name, int flags) const {
    if (failed(FileCall::Unlink)) return -1;
    return ::unlinkat(dir, name, flags);
}

int FileOps::writeAll(int fd, const void* data, std::size_t size) const {
    if (failed(FileCall::Write)) return -1;
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::write(fd, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return -1;
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

int FileOps::fsync(int fd) const {
    if (failed(FileCall::Fsync)) return -1;
    return ::fsync(fd);
}

int FileOps::close(int fd) const {
    if (const int error = fault(FileCall::Close)) {
        ::close(fd);
        errno = error;
        return -1;
    }
    return ::close(fd);
}

int FileOps::lstatat(int dir, const char* name, struct stat* info) const {
    return ::fstatat(dir, name, info, AT_SYMLINK_NOFOLLOW);
}

int FileOps::dataWritten() const {
    return failed(FileCall::Write);
}

const FileOps& posixFileOps() {
    static const FileOps ops;
    return ops;
}

const FileOps& fileOpsOf(const FileSystemOpsSelector& selector) {
    return selector.ops() ? *selector.ops() : posixFileOps();
}

}  // namespace opc::detail
