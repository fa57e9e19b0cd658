#pragma once

// Every file-system call extraction and recovery make, in one place, so
// that a test can make any of them fail (the N-th open, every rename from
// the third on...) and check that the destination survives, and can count
// them against what the kernel saw.

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/UniqueFd.hpp"

namespace opc {
class FileSystemOpsSelector;
}

namespace opc::detail {

// The families a fault can be injected into.
enum class FileCall {
    Open,
    Mkdir,
    Rename,
    Unlink,
    Write,
    Fsync,
    Close,
    Stat,
    Lock,
    List,
    Read,
    Symlink,
    Readlink,
    Clone,
    Link
};
inline constexpr int kFileCallFamilies = 15;

// One entry of a folder listing: its name, and whether it is a folder
// (not a link to one).
using FolderEntry = std::pair<std::string, bool>;

class FileOps {
  public:
    virtual ~FileOps() = default;

    // Each behaves as the POSIX call of the same name, unless fault() says
    // it fails: then it returns -1 with errno set and does nothing, except
    // close(), which still releases the descriptor as the kernel does.
    // Descriptors are opened with O_CLOEXEC.
    int openat(int dir, const char* name, int flags, mode_t mode = 0) const;
    int mkdirat(int dir, const char* name, mode_t mode = 0777) const;
    // Opens the relative `path` below `dir` without ever leaving it and
    // without following any symbolic link: openat2() with RESOLVE_BENEATH
    // and RESOLVE_NO_SYMLINKS where the kernel has it, else one component
    // at a time with O_NOFOLLOW. Counts as one open.
    int openBeneath(int dir, const char* path, int flags) const;
    // A second descriptor for the same open folder (an Open).
    int dup(int fd) const;
    // renameat2(); `flags` 0 is a plain renameat().
    int renameat(int fromDir, const char* from, int toDir, const char* to,
                 unsigned flags = 0) const;
    int unlinkat(int dir, const char* name, int flags) const;
    // Writes everything, retrying short writes and EINTR; 0 or -1.
    int writeAll(int fd, const void* data, std::size_t size) const;
    int writeAllAt(int fd, const void* data, std::size_t size, off_t offset) const;
    int fsync(int fd) const;
    int close(int fd) const;
    // fstatat() without following a final symbolic link.
    int lstatat(int dir, const char* name, struct stat* info) const;
    int fstat(int fd, struct stat* info) const;
    // statx() of an open descriptor, for the fields in `mask`.
    int statx(int fd, unsigned mask, struct statx* info) const;
    int statvfs(const char* path, struct statvfs* info) const;
    int flock(int fd, int operation) const;
    // pread() until `size` bytes are in or the file ends; the count or -1.
    long readAt(int fd, void* buffer, std::size_t size, long long offset) const;
    // The names in an open folder, "." and ".." left out; none when the
    // folder cannot be read.
    std::optional<std::vector<FolderEntry>> listFolder(int fd) const;
    int symlinkat(const char* target, int dir, const char* name) const;
    long readlinkat(int dir, const char* name, char* buffer, std::size_t size) const;
    // ftruncate(), a Write: it changes the file's bytes as a write does.
    int ftruncate(int fd, off_t size) const;
    // futimens() to the present, a Write: the file system's own clock,
    // at its own granularity, on a file of ours.
    int touch(int fd) const;
    // ioctl(FICLONE): `dest` gets the bytes of `source` as blocks both
    // share until either is written, where the file system can.
    int cloneFile(int dest, int source) const;
    // linkat() of the open file `source` as `name` in `dir`: the
    // descriptor itself (AT_EMPTY_PATH) where the kernel lets anyone link
    // what they opened, else its name in /proc/self/fd.
    int linkFile(int source, int dir, const char* name) const;

    // For a call that other code makes on our behalf (SQLite's own file
    // I/O): admit() before it, 0 to make it or the errno it fails with;
    // madeElsewhere() after it, as every call here is reported.
    int admit(FileCall call) const { return fault(call); }
    void madeElsewhere(FileCall call) const;

  protected:
    // 0 lets the call through; anything else is the errno it fails with.
    // An extraction on several threads asks from all of them at once.
    virtual int fault(FileCall) const { return 0; }
    // Told after a call fault() let through was made, errno as it left it:
    // a test that stops the process here sees what a crash between this
    // call and the next step (which may make no call, a database commit)
    // leaves behind.
    virtual void returned(FileCall) const {}

  private:
    int failed(FileCall call) const;
    template <class Result>
    Result made(FileCall call, Result result) const;
};

struct OpsClose {
    const FileOps* ops = nullptr;
    void operator()(int fd) const { ops->close(fd); }
};

// Owns a descriptor opened through `ops` and closes it through them too,
// so that every close is one the operations see.
class OpsFd : public BasicFd<OpsClose> {
  public:
    OpsFd() = default;
    OpsFd(const FileOps& ops, int fd) : BasicFd(fd, OpsClose{&ops}) {}
};

// What removeTree() could not do to `path` (the tree's name, or a path
// below it: "name/a/b"): `action` is "opened", "listed" or "removed",
// `error` the errno. Throwing stops the removal.
using TreeFailure = std::function<void(const std::string& path, const char* action, int error)>;

// Removes `name` in `parent` and everything below it: a link is unlinked,
// never followed, and a name already gone is fine. Goes on past what
// cannot be removed unless `failed` throws; true when nothing is left.
bool removeTree(const FileOps& ops, int parent, const std::string& name,
                const TreeFailure& failed = {});

// The process's own calls, never failing on purpose.
const FileOps& posixFileOps();

// The operations a selector chose.
const FileOps& fileOpsOf(const FileSystemOpsSelector& selector);

}  // namespace opc::detail
