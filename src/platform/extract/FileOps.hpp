#pragma once

// The file-system calls extraction makes, in one place, so that a test can
// make any of them fail (the N-th open, every rename from the third on...)
// and check that the destination survives.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

namespace opc {
class FileSystemOpsSelector;
}

namespace opc::detail {

// The families a fault can be injected into.
enum class FileCall { Open, Mkdir, Rename, Unlink, Write, Fsync, Close };

class FileOps {
  public:
    virtual ~FileOps() = default;

    // Each behaves as the POSIX call of the same name, unless fault() says
    // it fails: then it returns -1 with errno set and does nothing, except
    // close(), which still releases the descriptor as the kernel does.
    int openat(int dir, const char* name, int flags, mode_t mode = 0) const;
    int mkdirat(int dir, const char* name, mode_t mode = 0777) const;
    // Opens the relative `path` below `dir` without ever leaving it and
    // without following any symbolic link: openat2() with RESOLVE_BENEATH
    // and RESOLVE_NO_SYMLINKS where the kernel has it, else one component
    // at a time with O_NOFOLLOW. Counts as one open.
    int openBeneath(int dir, const char* path, int flags) const;
    // renameat2(); `flags` 0 is a plain renameat().
    int renameat(int fromDir, const char* from, int toDir, const char* to,
                 unsigned flags = 0) const;
    int unlinkat(int dir, const char* name, int flags) const;
    // Writes everything, retrying short writes and EINTR; 0 or -1.
    int writeAll(int fd, const void* data, std::size_t size) const;
    int fsync(int fd) const;
    int close(int fd) const;
    // fstatat() without following a final symbolic link; not a fault family.
    int lstatat(int dir, const char* name, struct stat* info) const;

    // A data file's bytes are written by the decoder itself; this stands
    // for that whole write, so that a fault can hit it like any other call.
    int dataWritten() const;

  protected:
    // 0 lets the call through; anything else is the errno it fails with.
    virtual int fault(FileCall) const { return 0; }

  private:
    int failed(FileCall call) const;
};

// The process's own calls, never failing on purpose.
const FileOps& posixFileOps();

// The operations a selector chose.
const FileOps& fileOpsOf(const FileSystemOpsSelector& selector);

}  // namespace opc::detail
