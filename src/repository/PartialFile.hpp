#pragma once

// A download's file in the store's download folder while it is being
// written, held by one download at a time.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "platform/extract/FileOps.hpp"
#include "tsappinstall/Fault.hpp"

namespace tsappinstall::repository::detail {

namespace fs = std::filesystem;
using opc::detail::FileOps;
using opc::detail::OpsFd;

[[noreturn]] inline void failOn(FaultKind kind, const std::string& what, const fs::path& path) {
    throw Error(kind, what + " " + path.string() + ": " + std::strerror(errno));
}

// The partial file of one package in one folder, held by one download at a
// time: another download of the same package into the same folder (two
// installs at once) waits until this one renamed or removed it, then takes
// the file then under that name, so that no two ever write one file. The
// lock goes with the file when it is renamed, for as long as the holder
// keeps it.
class PartialFile {
  public:
    // `append`: every write goes to the end (a download's bytes in turn);
    // otherwise writeAt() puts bytes where they belong.
    PartialFile(const FileOps& ops, int folder, std::string name, fs::path shown,
                bool append = true)
        : ops_(ops), folder_(folder), name_(std::move(name)), path_(std::move(shown)) {
        // Something else under the name (a link, a folder, a FIFO) holds no
        // bytes of a download: it is removed, once, and never followed.
        bool cleared = false;
        for (;;) {
            OpsFd fd(ops_, ops_.openat(
                               folder_, name_.c_str(),
                               O_RDWR | O_CREAT | O_NONBLOCK | (append ? O_APPEND : 0) | O_NOFOLLOW,
                               0600));
            if (!fd && !cleared && (errno == ELOOP || errno == EISDIR)) {
                cleared = clear();
                continue;
            }
            if (!fd) failOn(FaultKind::CannotWrite, "cannot create", path_);
            struct stat held {
            }, named{};
            if (ops_.fstat(fd.get(), &held) == 0 && !S_ISREG(held.st_mode) && !cleared) {
                fd.reset();
                cleared = clear();
                continue;
            }
            while (ops_.flock(fd.get(), LOCK_EX) != 0)
                if (errno != EINTR) failOn(FaultKind::CannotWrite, "cannot lock", path_);
            if (ops_.fstat(fd.get(), &held) != 0 || !S_ISREG(held.st_mode))
                throw Error(FaultKind::CannotWrite, path_.string() + " is not a regular file");
            if (ops_.lstatat(folder_, name_.c_str(), &named) == 0 && named.st_dev == held.st_dev &&
                named.st_ino == held.st_ino) {
                fd_ = std::move(fd);
                return;
            }
        }
    }
    const fs::path& path() const { return path_; }
    int fd() const { return fd_.get(); }
    const FileOps& ops() const { return ops_; }
    std::uint64_t size() const {
        struct stat info {};
        return ops_.fstat(fd_.get(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
    }
    void truncate(std::uint64_t size = 0) const {
        if (ops_.ftruncate(fd_.get(), static_cast<off_t>(size)) != 0)
            failOn(FaultKind::CannotWrite, "cannot truncate", path_);
    }
    void write(const char* data, std::size_t size) const {
        if (ops_.writeAll(fd_.get(), data, size) != 0)
            failOn(FaultKind::CannotWrite, "cannot write", path_);
    }
    void writeAt(std::uint64_t offset, const char* data, std::size_t size) const {
        if (ops_.writeAllAt(fd_.get(), data, size, static_cast<off_t>(offset)) != 0)
            failOn(FaultKind::CannotWrite, "cannot write", path_);
    }
    void remove() const { ops_.unlinkat(folder_, name_.c_str(), 0); }
    // Renames it to `target` in its folder; the lock comes along.
    OpsFd renameTo(const std::string& target) {
        if (ops_.renameat(folder_, name_.c_str(), folder_, target.c_str()) != 0) {
            const int error = errno;
            remove();
            errno = error;
            failOn(FaultKind::CannotWrite, "cannot rename the download to",
                   path_.parent_path() / target);
        }
        return std::move(fd_);
    }

  private:
    // True whatever happens: a second try that finds the name still taken
    // fails as it would have.
    bool clear() const {
        if (ops_.unlinkat(folder_, name_.c_str(), 0) != 0 && errno == EISDIR)
            ops_.unlinkat(folder_, name_.c_str(), AT_REMOVEDIR);
        return true;
    }

    const FileOps& ops_;
    int folder_;
    std::string name_;
    fs::path path_;
    OpsFd fd_;
};

}  // namespace tsappinstall::repository::detail
