#include "platform/extract/StagedExtraction.hpp"

#include <fcntl.h>
#include <stdio.h>  // renameat2
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/base/Ascii.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

[[noreturn]] void fail(const std::string& what, Reason reason = Reason::CannotWrite) {
    throw Exception(reason, what);
}

[[noreturn]] void failErrno(const std::string& what) {
    fail(what + ": " + std::strerror(errno));
}

std::string temporaryName() {
    static std::atomic<unsigned long> counter{0};
    static const std::string prefix = ".~tsapp-" + std::to_string(::getpid()) + "-";
    return prefix + std::to_string(counter++);
}

int openFolderBelow(int parent, const std::string& name) {
    return ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool existsNoFollow(int dirFd, const std::string& name, struct stat& info) {
    if (::fstatat(dirFd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) return true;
    if (errno != ENOENT) failErrno("cannot inspect \"" + name + "\"");
    return false;
}

}  // namespace

StagedExtraction::StagedExtraction(const std::string& destination, Existing existing)
    : destination_(destination), existing_(existing) {
    if (destination.empty() || destination[0] != '/')
        fail("the destination \"" + destination + "\" is not an absolute path");
    // The destination path itself comes from the caller and is trusted as
    // given; only what lies below it is guarded against links.
    for (std::size_t slash = destination.find('/', 1);; slash = destination.find('/', slash + 1)) {
        const std::string prefix = destination.substr(0, slash);
        if (::mkdir(prefix.c_str(), 0777) == 0)
            createdRoots_.push_back(prefix);
        else if (errno != EEXIST) {
            const int saved = errno;
            removeCreatedFolders();
            errno = saved;
            failErrno("cannot create the folder \"" + prefix + "\"");
        }
        if (slash == std::string::npos) break;
    }
    if (!createdRoots_.empty() && createdRoots_.back() == destination) freshFolders_.insert({});
    root_ = UniqueFd(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root_) {
        const int saved = errno;
        removeCreatedFolders();
        errno = saved;
        failErrno("cannot open the folder \"" + destination + "\"");
    }
}

StagedExtraction::~StagedExtraction() {
    if (!committed_) rollback();
}

int StagedExtraction::folderFd(const FileSegments& folder, bool create) {
    if (folder.empty()) return root_.get();
    if (auto cached = folders_.find(folder); cached != folders_.end()) return cached->second.get();
    if (folders_.size() >= kMaxCachedFolders) folders_.clear();
    // Start from the deepest folder on the way that is already open.
    std::size_t depth = folder.size() - 1;
    int parent = root_.get();
    FileSegments walked(folder.begin(), folder.begin() + static_cast<std::ptrdiff_t>(depth));
    for (; depth > 0; --depth, walked.pop_back()) {
        if (auto cached = folders_.find(walked); cached != folders_.end()) {
            parent = cached->second.get();
            break;
        }
    }
    for (; depth < folder.size(); ++depth) {
        const std::string& name = folder[depth];
        walked.push_back(name);
        UniqueFd next(openFolderBelow(parent, name));
        if (!next && errno == ENOENT && create) {
            if (::mkdirat(parent, name.c_str(), 0777) != 0)
                failErrno("cannot create the folder \"" + joinSegments(walked) + "\"");
            createdFolders_.push_back(walked);
            freshFolders_.insert(walked);
            next = UniqueFd(openFolderBelow(parent, name));
        }
        if (!next) {
            if (errno == ELOOP || errno == ENOTDIR)
                fail("\"" + joinSegments(walked) +
                     "\" in the destination is not a folder (a file or a symbolic link)");
            failErrno("cannot open the folder \"" + joinSegments(walked) + "\"");
        }
        parent = next.get();
        folders_[walked] = std::move(next);
    }
    return parent;
}

void StagedExtraction::reservePath(const FileSegments& path) {
    const std::string key = opc::detail::ascii_lower(joinSegments(path));
    if (folderPaths_.count(key) || !filePaths_.insert(key).second)
        fail("the package names \"" + joinSegments(path) +
                 "\" twice, or as both a file and a folder",
             Reason::BadPath);
    FileSegments prefix;
    for (std::size_t i = 0; i + 1 < path.size(); ++i) {
        prefix.push_back(path[i]);
        const std::string folderKey = opc::detail::ascii_lower(joinSegments(prefix));
        if (filePaths_.count(folderKey))
            fail("the package names \"" + joinSegments(prefix) + "\" as both a file and a folder",
                 Reason::BadPath);
        folderPaths_.insert(folderKey);
    }
}

void StagedExtraction::checkTarget(int dirFd, const FileSegments& path) const {
    // A folder this extraction made holds only what it put there, and
    // reservePath() has already ruled out clashes among those.
    if (freshFolders_.count(FileSegments(path.begin(), path.end() - 1))) return;
    struct stat info {};
    if (!existsNoFollow(dirFd, path.back(), info)) return;
    if (S_ISDIR(info.st_mode))
        fail("a folder is in the way of the file \"" + joinSegments(path) + "\"");
    if (existing_ == Existing::Refuse)
        fail("the file \"" + joinSegments(path) + "\" already exists");
}

std::string StagedExtraction::createTemporary(int dirFd, UniqueFd& file) {
    for (;;) {
        std::string name = temporaryName();
        file = UniqueFd(::openat(dirFd, name.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
        if (file) return name;
        if (errno != EEXIST) failErrno("cannot create a file in the destination");
    }
}

void StagedExtraction::stage(const FileSegments& path, const std::function<void(int fd)>& write) {
    if (path.empty()) fail("a part has no file name", Reason::BadPath);
    reservePath(path);
    StagedFile file;
    file.folder.assign(path.begin(), path.end() - 1);
    file.name = path.back();
    const int dirFd = folderFd(file.folder, true);
    checkTarget(dirFd, path);
    UniqueFd out;
    file.temporary = createTemporary(dirFd, out);
    staged_.push_back(file);
    write(out.get());
    // close() is where some file systems report a failed write.
    if (::close(out.release()) != 0)
        failErrno("cannot write the file \"" + joinSegments(path) + "\"");
}

void StagedExtraction::placeFile(StagedFile& file) {
    const int dirFd = folderFd(file.folder, false);
    // Most targets are new: one rename that refuses to replace anything
    // settles those without looking first. Only when something is in the
    // way (or the file system cannot make that promise) is the old file
    // moved aside, so that a rollback can bring it back.
    if (::renameat2(dirFd, file.temporary.c_str(), dirFd, file.name.c_str(), RENAME_NOREPLACE) ==
        0) {
        file.placed = true;
        return;
    }
    if (errno != EEXIST && errno != EINVAL && errno != ENOSYS)
        failErrno("cannot move \"" + file.name + "\" into place");
    if (errno == EEXIST && existing_ == Existing::Refuse) {
        FileSegments path = file.folder;
        path.push_back(file.name);
        fail("the file \"" + joinSegments(path) + "\" already exists");
    }
    moveAsideAndPlace(dirFd, file);
}

void StagedExtraction::moveAsideAndPlace(int dirFd, StagedFile& file) {
    struct stat info {};
    if (existsNoFollow(dirFd, file.name, info)) {
        if (S_ISDIR(info.st_mode)) fail("a folder is in the way of the file \"" + file.name + "\"");
        std::string backup = temporaryName();
        if (::renameat(dirFd, file.name.c_str(), dirFd, backup.c_str()) != 0)
            failErrno("cannot move the old \"" + file.name + "\" aside");
        file.backup = std::move(backup);
    }
    if (::renameat(dirFd, file.temporary.c_str(), dirFd, file.name.c_str()) != 0)
        failErrno("cannot move \"" + file.name + "\" into place");
    file.placed = true;
}

void StagedExtraction::commit() {
    for (auto& file : staged_) placeFile(file);
    committed_ = true;
    for (const auto& file : staged_) {
        if (file.backup.empty()) continue;
        try {
            ::unlinkat(folderFd(file.folder, false), file.backup.c_str(), 0);
        } catch (const Exception&) {
            // The new files are in place; a leftover old copy is all that is lost.
        }
    }
}

void StagedExtraction::rollback() noexcept {
    for (auto it = staged_.rbegin(); it != staged_.rend(); ++it) {
        int dirFd = -1;
        try {
            dirFd = folderFd(it->folder, false);
        } catch (const Exception&) {
            continue;
        }
        if (it->placed)
            ::unlinkat(dirFd, it->name.c_str(), 0);
        else
            ::unlinkat(dirFd, it->temporary.c_str(), 0);
        if (!it->backup.empty()) ::renameat(dirFd, it->backup.c_str(), dirFd, it->name.c_str());
    }
    removeCreatedFolders();
}

void StagedExtraction::removeCreatedFolders() noexcept {
    for (auto it = createdFolders_.rbegin(); it != createdFolders_.rend(); ++it) {
        const FileSegments parent(it->begin(), it->end() - 1);
        try {
            ::unlinkat(folderFd(parent, false), it->back().c_str(), AT_REMOVEDIR);
        } catch (const Exception&) {
        }
    }
    createdFolders_.clear();
    folders_.clear();
    root_.reset();
    for (auto it = createdRoots_.rbegin(); it != createdRoots_.rend(); ++it) ::rmdir(it->c_str());
    createdRoots_.clear();
}

}  // namespace opc::detail
