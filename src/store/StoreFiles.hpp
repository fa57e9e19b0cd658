#pragma once

// The store's own file-system work, all through the extraction's FileOps
// seam (so the fault-injection tests reach every call) and all relative to
// open folders: nothing below the root is ever reached through a symbolic
// link.

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/base/Random.hpp"
#include "platform/extract/FileOps.hpp"

namespace tsappinstall::store::detail {

using opc::detail::FileOps;
using opc::detail::OpsFd;
using opc::detail::randomToken;

// Throws StoreError (Failed): "`what`: strerror(error)".
[[noreturn]] void failed(const std::string& what, int error);

// The folder `relative` below `dir`, reached without following links.
OpsFd openFolder(const FileOps& ops, int dir, const std::string& relative,
                 const std::string& shown);
// The same, creating the last component (mode 0755 less the umask) when missing.
OpsFd makeFolder(const FileOps& ops, int dir, const std::string& name, const std::string& shown);

// How long a RootLock waits for another holder, and whom it tells.
struct LockWait {
    std::optional<std::chrono::milliseconds> limit;  // none: as long as it takes
    // Called once, when the lock is found held: the holder's process id
    // when its note names a live process, else 0.
    std::function<void(long pid)> waiting;
};

// The root's lock: flock() on ROOT/.lock, which the kernel drops when its
// holder dies, so no crash leaves a stale lock behind. Waits as `wait`
// says, except TryExclusive, which takes it only when it is free at once.
// An exclusive holder writes its process id into the file while it holds
// it, so that a waiter can say whom it waits for.
class RootLock {
  public:
    enum class Mode { Shared, Exclusive, TryExclusive };
    RootLock(const FileOps& ops, int root, Mode mode, const std::string& shown,
             const LockWait& wait = {});
    ~RootLock();
    RootLock(const RootLock&) = delete;
    RootLock& operator=(const RootLock&) = delete;
    bool held() const { return held_; }

  private:
    OpsFd fd_;
    bool held_ = false;
    bool noted_ = false;
};

// opc::detail::removeTree() as the store needs it: the first thing that
// cannot be removed throws StoreError (Failed), `shown` naming `name`.
void removeTree(const FileOps& ops, int dir, const std::string& name, const std::string& shown);

// The link `name` in `dir` made to point at `target`, in one rename.
void switchLink(const FileOps& ops, int dir, const std::string& name, const std::string& target,
                const std::string& shown);
// Where the link `name` in `dir` points; empty when it is not a link (or
// points further than a version's folder name reaches).
std::string linkTarget(const FileOps& ops, int dir, const std::string& name,
                       const std::string& shown);

// A recorded file as found below a version's folder.
struct FoundFile {
    enum class State { Regular, Missing, Link, Other } state = State::Missing;
    std::uint64_t size = 0;
    unsigned mode = 0;
    std::uint64_t links = 0;  // names the file has: more than one when versions share it
    std::string sha256;       // when asked for and a regular file
};
// The folder of the file last found, kept open for the next lookup: a
// caller going through files sorted by path opens each folder once.
struct OpenParent {
    std::string path;
    OpsFd fd;
};
FoundFile findFile(const FileOps& ops, int folder, const std::string& path, bool hash,
                   const std::string& shown, OpenParent* cached = nullptr);

// Permission bits as the store's findings word them: "0644".
std::string modeText(unsigned mode);

// The bytes of the regular file `path` below `folder`, reached without
// following links; none when it is not there. Throws StoreError (Failed)
// when it cannot be read, is anything but a regular file, or holds more
// than `most` bytes.
std::optional<std::string> readSmallFile(const FileOps& ops, int folder, const std::string& path,
                                         std::uint64_t most, const std::string& shown);

// Calls `visit` for every entry below `folder` (relative paths, parents
// first), never descending through a link.
void walk(const FileOps& ops, int folder, const std::string& shown,
          const std::function<void(const std::string& path, bool isFolder)>& visit);

// Deletes the file `path` below `folder` (the last component unlinked, never
// followed); true when it was there.
bool removeFile(const FileOps& ops, int folder, const std::string& path, const std::string& shown);
// Removes the folder `path` below `folder` when it is empty; true when it
// did, false when it holds something or is gone. Throws for anything else.
bool removeEmptyFolder(const FileOps& ops, int folder, const std::string& path,
                       const std::string& shown);
// Unlinks `name` in `dir` when it is a symbolic link; true when it did.
// Anything else under that name is left alone.
bool removeLink(const FileOps& ops, int dir, const std::string& name, const std::string& shown);

}  // namespace tsappinstall::store::detail
