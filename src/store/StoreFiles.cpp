#include "StoreFiles.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "integrity/FileSha256.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsappinstall::store::detail {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// "a/b/c" as "a/b" and "c"; "c" as "" and "c".
std::pair<std::string, std::string> splitLast(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return {"", path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

// "5 seconds", "0.5 seconds".
std::string seconds(std::chrono::milliseconds span) {
    const auto ms = span.count();
    std::string text = std::to_string(ms / 1000);
    if (ms % 1000) {
        std::string fraction = std::to_string(1000 + ms % 1000).substr(1);
        while (fraction.back() == '0') fraction.pop_back();
        text += "." + fraction;
    }
    return text + (ms == 1000 ? " second" : " seconds");
}

[[noreturn]] void refuse(const std::string& line) {
    throw StoreError(FaultKind::StoreFailed, {line});
}

}  // namespace

void failed(const std::string& what, int error) {
    throw StoreError(FaultKind::StoreFailed, {what + ": " + std::strerror(error)});
}

OpsFd openFolder(const FileOps& ops, int dir, const std::string& relative,
                 const std::string& shown) {
    OpsFd fd(ops, ops.openBeneath(dir, relative.c_str(), kFolderFlags));
    if (!fd) failed(shown + " cannot be opened", errno);
    return fd;
}

OpsFd makeFolder(const FileOps& ops, int dir, const std::string& name, const std::string& shown) {
    if (ops.mkdirat(dir, name.c_str(), 0755) != 0 && errno != EEXIST)
        failed(shown + " cannot be made", errno);
    OpsFd fd(ops, ops.openat(dir, name.c_str(), kFolderFlags));
    if (!fd) failed(shown + " cannot be opened", errno);
    return fd;
}

namespace {

// The process a lock file's note names, when it still runs; 0 otherwise.
// The note is anyone's text: only a plain decimal number is taken.
long holderOf(int fd) {
    char note[24] = {};
    const ssize_t n = ::pread(fd, note, sizeof note - 1, 0);
    long pid = 0;
    for (ssize_t i = 0; i < n && note[i] != '\n'; ++i) {
        if (note[i] < '0' || note[i] > '9' || pid > 99999999) return 0;
        pid = pid * 10 + (note[i] - '0');
    }
    if (pid <= 0 || (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM)) return 0;
    return pid;
}

}  // namespace

RootLock::RootLock(const FileOps& ops, int root, Mode mode, const std::string& shown,
                   const LockWait& wait) {
    const std::string file = shown + "/.lock";
    fd_ = OpsFd(ops, ops.openat(root, ".lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd_ && mode == Mode::Shared && (errno == EACCES || errno == EROFS))
        fd_ = OpsFd(ops, ops.openat(root, ".lock", O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd_) failed(file + " cannot be opened", errno);
    const int operation = mode == Mode::Shared ? LOCK_SH : LOCK_EX;
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> giveUp;
    long holder = -1;  // not looked for yet
    while (ops.flock(fd_.get(), operation | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) failed(file + " cannot be locked", errno);
        if (mode == Mode::TryExclusive) return;
        if (holder < 0) {
            holder = holderOf(fd_.get());
            const std::string by =
                holder > 0 ? " (pid " + std::to_string(holder) + ")" : std::string();
            if (wait.limit && wait.limit->count() <= 0)
                refuse(shown + " is in use by another process" + by);
            if (wait.waiting) wait.waiting(holder);
            if (!wait.limit) {
                // Nothing to count down: the kernel wakes the waiter.
                while (ops.flock(fd_.get(), operation) != 0)
                    if (errno != EINTR) failed(file + " cannot be locked", errno);
                break;
            }
            giveUp = Clock::now() + *wait.limit;
        }
        if (Clock::now() >= *giveUp)
            refuse(shown + " is in use by another process" +
                   (holder > 0 ? " (pid " + std::to_string(holder) + ")" : std::string()) +
                   "; gave up after " + seconds(*wait.limit));
        ::usleep(20000);
    }
    held_ = true;
    if (mode == Mode::Shared) return;
    // The note is a courtesy to waiters: a holder that cannot write it
    // still holds the lock.
    const std::string note = std::to_string(::getpid()) + "\n";
    noted_ = ::ftruncate(fd_.get(), 0) == 0 &&
             ::pwrite(fd_.get(), note.data(), note.size(), 0) == static_cast<ssize_t>(note.size());
}

RootLock::~RootLock() {
    // Cleared while still held, so that a stale number is never read.
    if (noted_) static_cast<void>(::ftruncate(fd_.get(), 0));
}

void removeTree(const FileOps& ops, int dir, const std::string& name, const std::string& shown) {
    opc::detail::removeTree(
        ops, dir, name, [&](const std::string& path, const char* action, int error) {
            failed(shown + path.substr(name.size()) + " cannot be " + action, error);
        });
}

void switchLink(const FileOps& ops, int dir, const std::string& name, const std::string& target,
                const std::string& shown) {
    const std::string fresh = name + ".new";
    if (ops.unlinkat(dir, fresh.c_str(), 0) != 0 && errno != ENOENT)
        failed(shown + ".new cannot be removed", errno);
    if (ops.symlinkat(target.c_str(), dir, fresh.c_str()) != 0)
        failed(shown + ".new cannot be made", errno);
    if (ops.renameat(dir, fresh.c_str(), dir, name.c_str()) != 0) {
        const int error = errno;
        ops.unlinkat(dir, fresh.c_str(), 0);
        failed(shown + " cannot be switched to " + target, error);
    }
}

bool removeLink(const FileOps& ops, int dir, const std::string& name, const std::string& shown) {
    struct stat info {};
    if (ops.lstatat(dir, name.c_str(), &info) != 0) {
        if (errno == ENOENT) return false;
        failed(shown + " cannot be examined", errno);
    }
    if (!S_ISLNK(info.st_mode)) return false;
    if (ops.unlinkat(dir, name.c_str(), 0) != 0 && errno != ENOENT)
        failed(shown + " cannot be removed", errno);
    return true;
}

std::string linkTarget(const FileOps& ops, int dir, const std::string& name,
                       const std::string& shown) {
    char buffer[512];
    const long n = ops.readlinkat(dir, name.c_str(), buffer, sizeof buffer);
    if (n < 0 && errno != ENOENT && errno != EINVAL) failed(shown + " cannot be read", errno);
    return n > 0 && static_cast<std::size_t>(n) < sizeof buffer
               ? std::string(buffer, static_cast<std::size_t>(n))
               : std::string();
}

std::optional<std::string> readSmallFile(const FileOps& ops, int folder, const std::string& path,
                                         std::uint64_t most, const std::string& shown) {
    // Non-blocking: a FIFO planted under the name cannot make the open wait.
    OpsFd fd(ops, ops.openBeneath(folder, path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd && (errno == ENOENT || errno == ENOTDIR)) return std::nullopt;
    if (!fd) failed(shown + " cannot be read", errno);
    struct stat info {};
    if (ops.fstat(fd.get(), &info) != 0) failed(shown + " cannot be examined", errno);
    if (!S_ISREG(info.st_mode)) failed(shown + " is not a regular file", EINVAL);
    if (static_cast<std::uint64_t>(info.st_size) > most) failed(shown, EFBIG);
    std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
    const long n = ops.readAt(fd.get(), bytes.data(), bytes.size(), 0);
    if (n < 0) failed(shown + " cannot be read", errno);
    bytes.resize(static_cast<std::size_t>(n));
    return bytes;
}

FoundFile findFile(const FileOps& ops, int folder, const std::string& path, bool hash,
                   const std::string& shown, OpenParent* cached) {
    FoundFile found;
    const auto [parent, name] = splitLast(path);
    OpenParent own;
    if (!cached) cached = &own;
    int openError = 0;
    if (!cached->fd || cached->path != parent) {
        cached->fd = OpsFd();  // the previous folder is closed before errno matters
        cached->path = parent;
        cached->fd =
            OpsFd(ops, parent.empty() ? ops.dup(folder)
                                      : ops.openBeneath(folder, parent.c_str(), kFolderFlags));
        openError = errno;
    }
    const OpsFd& dir = cached->fd;
    if (!dir) {
        if (openError == ENOENT || openError == ENOTDIR) return found;
        if (openError == ELOOP || openError == EXDEV)
            return found.state = FoundFile::State::Link, found;
        failed(shown + "/" + parent + " cannot be opened", openError);
    }
    struct stat info {};
    if (ops.lstatat(dir.get(), name.c_str(), &info) != 0) {
        if (errno == ENOENT) return found;
        failed(shown + "/" + path + " cannot be examined", errno);
    }
    found.size = static_cast<std::uint64_t>(info.st_size);
    found.mode = info.st_mode & 07777;
    found.links = static_cast<std::uint64_t>(info.st_nlink);
    if (S_ISLNK(info.st_mode)) return found.state = FoundFile::State::Link, found;
    if (!S_ISREG(info.st_mode)) return found.state = FoundFile::State::Other, found;
    found.state = FoundFile::State::Regular;
    if (!hash) return found;
    OpsFd file(ops, ops.openat(dir.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file) failed(shown + "/" + path + " cannot be read", errno);
    const integrity::FileSha256 read = integrity::sha256OfFile(ops, file.get());
    if (read.error) failed(shown + "/" + path + " cannot be read", read.error);
    found.sha256 = read.hex;
    found.size = read.size;
    return found;
}

std::string modeText(unsigned mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode & 07777);
    return text;
}

void walk(const FileOps& ops, int folder, const std::string& shown,
          const std::function<void(const std::string& path, bool isFolder)>& visit) {
    struct Level {
        OpsFd fd;
        std::string prefix;
    };
    std::vector<Level> pending;
    pending.push_back({OpsFd(ops, ops.dup(folder)), ""});
    while (!pending.empty()) {
        Level level = std::move(pending.back());
        pending.pop_back();
        const auto entries = ops.listFolder(level.fd.get());
        if (!entries) failed(shown + "/" + level.prefix + " cannot be listed", errno);
        for (const auto& [name, isFolder] : *entries) {
            const std::string path = level.prefix + name;
            visit(path, isFolder);
            if (!isFolder) continue;
            OpsFd sub(ops, ops.openat(level.fd.get(), name.c_str(), kFolderFlags));
            if (!sub) failed(shown + "/" + path + " cannot be opened", errno);
            pending.push_back({std::move(sub), path + "/"});
        }
    }
}

namespace {

// The folder holding `parent` beneath `folder`; empty when a folder on the
// way is gone or was replaced by a link: nothing of ours is there.
OpsFd openParent(const FileOps& ops, int folder, const std::string& parent,
                 const std::string& shown) {
    OpsFd dir(ops, parent.empty() ? ops.dup(folder)
                                  : ops.openBeneath(folder, parent.c_str(), kFolderFlags));
    if (!dir && !(errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == EXDEV))
        failed(shown + "/" + parent + " cannot be opened", errno);
    return dir;
}

}  // namespace

bool removeFile(const FileOps& ops, int folder, const std::string& path, const std::string& shown) {
    const auto [parent, name] = splitLast(path);
    const OpsFd dir = openParent(ops, folder, parent, shown);
    if (!dir) return false;
    if (ops.unlinkat(dir.get(), name.c_str(), 0) == 0) return true;
    if (errno == ENOENT) return false;
    if (errno == EISDIR || errno == EPERM) {
        removeTree(ops, dir.get(), name, shown + "/" + path);
        return true;
    }
    failed(shown + "/" + path + " cannot be removed", errno);
}

bool removeEmptyFolder(const FileOps& ops, int folder, const std::string& path,
                       const std::string& shown) {
    const auto [parent, name] = splitLast(path);
    const OpsFd dir = openParent(ops, folder, parent, shown);
    if (!dir) return false;
    if (ops.unlinkat(dir.get(), name.c_str(), AT_REMOVEDIR) == 0) return true;
    if (errno == ENOTEMPTY || errno == EEXIST || errno == ENOENT || errno == ENOTDIR) return false;
    failed(shown + "/" + path + " cannot be removed", errno);
}

}  // namespace tsappinstall::store::detail
