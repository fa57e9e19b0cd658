#include "platform/extract/FolderCache.hpp"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;

std::string quoted(const FileSegments& path) {
    return "\"" + joinSegments(path) + "\"";
}

[[noreturn]] void failAt(const FileSegments& path, const char* what) {
    if (errno == ELOOP || errno == ENOTDIR || errno == EXDEV)
        throw Exception(
            Reason::CannotWrite,
            quoted(path) + " in the destination is not a folder (a file or a symbolic link)");
    throw Exception(Reason::CannotWrite,
                    std::string(what) + quoted(path) + ": " + std::strerror(errno));
}

}  // namespace

int FolderCache::open(const FileSegments& folder, std::vector<FileSegments>* created) {
    if (folder.empty()) return root_;
    if (auto cached = folders_.find(folder); cached != folders_.end()) return cached->second->get();
    if (folders_.size() >= kMaxCached) folders_.clear();
    // Start from the deepest folder on the way that is already open.
    std::size_t depth = folder.size() - 1;
    int parent = root_;
    for (FileSegments walked(folder.begin(), folder.end() - 1); depth > 0;
         --depth, walked.pop_back()) {
        if (auto cached = folders_.find(walked); cached != folders_.end()) {
            parent = cached->second->get();
            break;
        }
    }
    return created ? walk(parent, folder, depth, created) : lookUp(parent, folder, depth);
}

// The rest of the way in one call that cannot leave `parent`.
int FolderCache::lookUp(int parent, const FileSegments& folder, std::size_t depth) {
    const FileSegments rest(folder.begin() + static_cast<std::ptrdiff_t>(depth), folder.end());
    OpsFd found(ops_, ops_.openBeneath(parent, joinSegments(rest).c_str(), kFolderFlags));
    if (!found && errno == ENOENT) return -1;
    if (!found) failAt(folder, "cannot open the folder ");
    return keep(folder, std::move(found));
}

int FolderCache::walk(int parent, const FileSegments& folder, std::size_t depth,
                      std::vector<FileSegments>* created) {
    FileSegments walked(folder.begin(), folder.begin() + static_cast<std::ptrdiff_t>(depth));
    for (; depth < folder.size(); ++depth) {
        const std::string& name = folder[depth];
        walked.push_back(name);
        OpsFd next(ops_, ops_.openat(parent, name.c_str(), kFolderFlags));
        if (!next && errno == ENOENT) {
            if (ops_.mkdirat(parent, name.c_str()) == 0)
                created->push_back(walked);
            else if (errno != EEXIST)
                failAt(walked, "cannot create the folder ");
            next = OpsFd(ops_, ops_.openat(parent, name.c_str(), kFolderFlags));
        }
        if (!next) failAt(walked, "cannot open the folder ");
        parent = keep(walked, std::move(next));
    }
    return parent;
}

FolderCache::Held FolderCache::hold(const FileSegments& folder,
                                    std::vector<FileSegments>* created) {
    if (folder.empty()) return {root_, nullptr};
    // Nearly every call finds the folder open: one lookup then.
    if (auto cached = folders_.find(folder); cached != folders_.end())
        return {cached->second->get(), cached->second};
    const int fd = open(folder, created);
    if (fd < 0) return {fd, nullptr};
    return {fd, folders_.at(folder)};
}

int FolderCache::keep(const FileSegments& folder, OpsFd fd) {
    auto& kept = folders_[folder];
    kept = std::make_shared<const OpsFd>(std::move(fd));
    return kept->get();
}

}  // namespace opc::detail
