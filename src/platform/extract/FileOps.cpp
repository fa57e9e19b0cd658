#include "platform/extract/FileOps.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>  // renameat2
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <linux/fs.h>  // FICLONE

#include <linux/openat2.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>

#include "platform/base/ReadAt.hpp"
#include "platform/base/WriteAll.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"

namespace opc::detail {
namespace {

// openBeneath() where openat2() is missing: every component opened
// relative to the one before, none of them a link. Absolute paths, empty
// components and ".." are refused as openat2() refuses escapes.
int walkBeneath(int dir, const char* path, int flags) {
    const std::string whole = path;
    if (whole.empty() || whole.front() == '/') {
        errno = EXDEV;
        return -1;
    }
    int current = ::fcntl(dir, F_DUPFD_CLOEXEC, 0);
    for (std::size_t start = 0; current >= 0;) {
        const std::size_t slash = whole.find('/', start);
        const std::string name = whole.substr(start, slash - start);
        if (name.empty() || name == "..") {
            ::close(current);
            errno = EXDEV;
            return -1;
        }
        const bool last = slash == std::string::npos;
        const int next = ::openat(current, name.c_str(),
                                  (last ? flags : O_RDONLY | O_DIRECTORY) | O_NOFOLLOW | O_CLOEXEC);
        const int error = errno;
        ::close(current);
        errno = error;
        if (last) return next;
        current = next;
        start = slash + 1;
    }
    return -1;
}

// The names in the open folder `fd`, read through `ops`.
std::optional<std::vector<FolderEntry>> listed(const FileOps& ops, int fd) {
    // getdents64 on a descriptor of our own, so that the caller's keeps its
    // position and no DIR stream is needed.
    const int copy = ops.openat(fd, ".", O_RDONLY | O_DIRECTORY);
    if (copy < 0) return std::nullopt;
    std::vector<FolderEntry> names;
    alignas(8) char buffer[32768];
    for (;;) {
        const long got = ::syscall(SYS_getdents64, copy, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            const int error = errno;
            ops.close(copy);
            if (got < 0) {
                errno = error;
                return std::nullopt;
            }
            return names;
        }
        for (long at = 0; at < got;) {
            const auto* entry = reinterpret_cast<const struct dirent64*>(buffer + at);
            at += entry->d_reclen;
            const std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            bool folder = entry->d_type == DT_DIR;
            struct stat info {};
            if (entry->d_type == DT_UNKNOWN)
                folder = ops.lstatat(fd, name.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
            names.emplace_back(name, folder);
        }
    }
}

}  // namespace

int FileOps::failed(FileCall call) const {
    if (const int error = fault(call)) {
        errno = error;
        return -1;
    }
    return 0;
}

template <class Result>
Result FileOps::made(FileCall call, Result result) const {
    const int error = errno;
    returned(call);
    errno = error;
    return result;
}

int FileOps::openat(int dir, const char* name, int flags, mode_t mode) const {
    if (failed(FileCall::Open)) return -1;
    return made(FileCall::Open, ::openat(dir, name, flags | O_CLOEXEC, mode));
}

int FileOps::mkdirat(int dir, const char* name, mode_t mode) const {
    if (failed(FileCall::Mkdir)) return -1;
    return made(FileCall::Mkdir, ::mkdirat(dir, name, mode));
}

int FileOps::openBeneath(int dir, const char* path, int flags) const {
    if (failed(FileCall::Open)) return -1;
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC | O_NOFOLLOW);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long fd = ::syscall(SYS_openat2, dir, path, &how, sizeof how);
    // Older kernels lack the call; some sandboxes refuse it.
    if (fd >= 0 || (errno != ENOSYS && errno != EPERM))
        return made(FileCall::Open, static_cast<int>(fd));
    return made(FileCall::Open, walkBeneath(dir, path, flags));
}

int FileOps::renameat(int fromDir, const char* from, int toDir, const char* to,
                      unsigned flags) const {
    if (failed(FileCall::Rename)) return -1;
    return made(FileCall::Rename, ::renameat2(fromDir, from, toDir, to, flags));
}

int FileOps::unlinkat(int dir, const char* name, int flags) const {
    if (failed(FileCall::Unlink)) return -1;
    return made(FileCall::Unlink, ::unlinkat(dir, name, flags));
}

int FileOps::writeAll(int fd, const void* data, std::size_t size) const {
    if (failed(FileCall::Write)) return -1;
    return made(FileCall::Write, write_all(fd, data, size));
}

int FileOps::writeAllAt(int fd, const void* data, std::size_t size, off_t offset) const {
    if (failed(FileCall::Write)) return -1;
    return made(FileCall::Write, write_all_at(fd, data, size, offset));
}

int FileOps::fsync(int fd) const {
    if (failed(FileCall::Fsync)) return -1;
    return made(FileCall::Fsync, ::fsync(fd));
}

int FileOps::close(int fd) const {
    if (const int error = fault(FileCall::Close)) {
        ::close(fd);
        errno = error;
        return -1;
    }
    return made(FileCall::Close, ::close(fd));
}

int FileOps::dup(int fd) const {
    if (failed(FileCall::Open)) return -1;
    return made(FileCall::Open, ::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

int FileOps::lstatat(int dir, const char* name, struct stat* info) const {
    if (failed(FileCall::Stat)) return -1;
    return made(FileCall::Stat, ::fstatat(dir, name, info, AT_SYMLINK_NOFOLLOW));
}

int FileOps::fstat(int fd, struct stat* info) const {
    if (failed(FileCall::Stat)) return -1;
    return made(FileCall::Stat, ::fstat(fd, info));
}

int FileOps::statx(int fd, unsigned mask, struct statx* info) const {
    if (failed(FileCall::Stat)) return -1;
    return made(FileCall::Stat, ::statx(fd, "", AT_EMPTY_PATH, mask, info));
}

int FileOps::statvfs(const char* path, struct statvfs* info) const {
    if (failed(FileCall::Stat)) return -1;
    return made(FileCall::Stat, ::statvfs(path, info));
}

int FileOps::flock(int fd, int operation) const {
    if (failed(FileCall::Lock)) return -1;
    return made(FileCall::Lock, ::flock(fd, operation));
}

long FileOps::readAt(int fd, void* buffer, std::size_t size, long long offset) const {
    if (failed(FileCall::Read)) return -1;
    return made(FileCall::Read, read_at(fd, static_cast<unsigned char*>(buffer), size,
                                        static_cast<std::uint64_t>(offset)));
}

std::optional<std::vector<FolderEntry>> FileOps::listFolder(int fd) const {
    if (failed(FileCall::List)) return std::nullopt;
    return made(FileCall::List, listed(*this, fd));
}

int FileOps::symlinkat(const char* target, int dir, const char* name) const {
    if (failed(FileCall::Symlink)) return -1;
    return made(FileCall::Symlink, ::symlinkat(target, dir, name));
}

long FileOps::readlinkat(int dir, const char* name, char* buffer, std::size_t size) const {
    if (failed(FileCall::Readlink)) return -1;
    return made(FileCall::Readlink, static_cast<long>(::readlinkat(dir, name, buffer, size)));
}

void FileOps::madeElsewhere(FileCall call) const {
    made(call, 0);
}

int FileOps::ftruncate(int fd, off_t size) const {
    if (failed(FileCall::Write)) return -1;
    return made(FileCall::Write, ::ftruncate(fd, size));
}

int FileOps::touch(int fd) const {
    if (failed(FileCall::Write)) return -1;
    return made(FileCall::Write, ::futimens(fd, nullptr));
}

int FileOps::cloneFile(int dest, int source) const {
    if (failed(FileCall::Clone)) return -1;
    return made(FileCall::Clone, ::ioctl(dest, FICLONE, source));
}

int FileOps::linkFile(int source, int dir, const char* name) const {
    if (failed(FileCall::Link)) return -1;
    // Since Linux 6.10 anyone may link a descriptor they opened themselves,
    // which spares the walk through /proc; before, it takes a privilege,
    // and the kernel answers ENOENT.
    static std::atomic<bool> byDescriptor{true};
    if (byDescriptor.load(std::memory_order_relaxed)) {
        const int linked = ::linkat(source, "", dir, name, AT_EMPTY_PATH);
        if (linked == 0 || errno != ENOENT) return made(FileCall::Link, linked);
        byDescriptor.store(false, std::memory_order_relaxed);
    }
    const std::string named = "/proc/self/fd/" + std::to_string(source);
    return made(FileCall::Link, ::linkat(AT_FDCWD, named.c_str(), dir, name, AT_SYMLINK_FOLLOW));
}

namespace {

// removeTree() for `name` in `parent`, which is `path` below the tree's own
// parent.
bool removeEntry(const FileOps& ops, int parent, const std::string& name, const std::string& path,
                 const TreeFailure& failed) {
    const auto fail = [&](const std::string& what, const char* action) {
        if (failed) failed(what, action, errno);
        return false;
    };
    const OpsFd folder(ops, ops.openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    if (!folder && errno == ENOENT) return true;
    if (!folder && errno != ENOTDIR && errno != ELOOP) return fail(path, "opened");
    if (!folder)  // a file or a link
        return ops.unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT ||
               fail(path, "removed");
    const auto entries = ops.listFolder(folder.get());
    if (!entries) return fail(path, "listed");
    bool removed = true;
    for (const auto& [entry, isFolder] : *entries) {
        if (isFolder)
            removed = removeEntry(ops, folder.get(), entry, path + "/" + entry, failed) && removed;
        else if (ops.unlinkat(folder.get(), entry.c_str(), 0) != 0 && errno != ENOENT)
            removed = fail(path + "/" + entry, "removed") && removed;
    }
    return removed && (ops.unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT ||
                       fail(path, "removed"));
}

}  // namespace

bool removeTree(const FileOps& ops, int parent, const std::string& name,
                const TreeFailure& failed) {
    return removeEntry(ops, parent, name, name, failed);
}

const FileOps& posixFileOps() {
    static const FileOps ops;
    return ops;
}

const FileOps& fileOpsOf(const FileSystemOpsSelector& selector) {
    return selector.ops() ? *selector.ops() : posixFileOps();
}

}  // namespace opc::detail
