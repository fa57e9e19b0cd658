#include "platform/extract/Recovery.hpp"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "platform/extract/Commit.hpp"
#include "platform/extract/FolderCache.hpp"
#include "platform/extract/Journal.hpp"
#include "platform/extract/StagingStamp.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;

std::vector<FolderEntry> namesIn(const FileOps& ops, int folder) {
    auto names = ops.listFolder(folder);
    return names ? std::move(*names) : std::vector<FolderEntry>{};
}

// A staging folder, locked, unless a live extraction holds it.
OpsFd lockedFolder(const FileOps& ops, int holder, const std::string& name) {
    OpsFd folder(ops, ops.openat(holder, name.c_str(), kFolderFlags));
    if (folder && ops.flock(folder.get(), LOCK_EX | LOCK_NB) != 0) folder.reset();
    return folder;
}

// A folder that does not prove itself ours is left alone, unless it holds
// nothing but perhaps a stamp: a run that died between making its staging
// folder and finishing its stamp leaves one, and removing it loses nothing.
void skip(const FileOps& ops, int holder, int folder, const std::string& name,
          const std::string& path, const std::string& why, extraction::Recovery& out) {
    const auto names = namesIn(ops, folder);
    if (names.size() == 1 && names.front().first == kStampName && !names.front().second)
        ops.unlinkat(folder, kStampName, 0);
    if (ops.unlinkat(holder, name.c_str(), AT_REMOVEDIR) == 0)
        out.done.push_back("removed the empty " + path);
    else
        out.skipped.push_back(path + " (" + why + ")");
}

// Finishes what the journal says: forward or back. Empty when done.
std::vector<std::string> replay(const FileOps& ops, int dest, int staging,
                                const std::string& stagingPath, const Journal& journal,
                                bool forward) {
    std::set<std::string> present;
    for (const auto& [name, folder] : namesIn(ops, staging))
        if (!folder) present.insert(name);
    FolderCache folders(ops, dest);
    Commit commit(ops, folders, staging, stagingPath, journal, std::move(present));
    if (!forward) return commit.back();
    try {
        commit.forward();
    } catch (const Exception& e) {
        return {e.what()};
    }
    return commit.dropOldCopies();
}

// One dead extraction's staging folder inside the destination.
void recoverInside(const FileOps& ops, int dest, const std::string& path, const std::string& name,
                   bool discardUnreadable, extraction::Recovery& out) {
    const OpsFd staging = lockedFolder(ops, dest, name);
    if (!staging) return;
    const std::string stagingPath = path + "/" + name;
    std::string why;
    const std::string token = provenToken(ops, dest, staging.get(), why);
    struct stat info {};
    if (!token.empty() && (ops.fstat(staging.get(), &info) != 0 || (info.st_mode & 077) != 0))
        why = "others may read it";
    if (!why.empty()) return skip(ops, dest, staging.get(), name, stagingPath, why, out);

    bool forward = true;
    Journal journal;
    std::string problem;
    if (readJournal(ops, staging.get(), token, forward, journal, problem)) {
        if (!problem.empty() && !discardUnreadable) {
            out.unreadable.push_back(stagingPath + " (" + problem + ")");
            return;
        }
        if (problem.empty()) {
            const auto problems = replay(ops, dest, staging.get(), stagingPath, journal, forward);
            if (!problems.empty()) {
                out.leftAside.insert(out.leftAside.end(), problems.begin(), problems.end());
                return;
            }
        }
        out.done.push_back(problem.empty() ? std::string(forward ? "completed" : "undid") +
                                                 " the interrupted extraction into " + path
                                           : "discarded " + stagingPath + " (" + problem + ")");
    }
    if (removeTree(ops, dest, name))
        out.done.push_back("removed " + stagingPath);
    else
        out.leftAside.push_back(stagingPath);
}

// A staging folder beside the destination holds no journal: a dead one is
// only removed, and only once it proves itself ours.
void removeBeside(const FileOps& ops, int parent, const std::string& parentPath,
                  const std::string& name, extraction::Recovery& out) {
    OpsFd staging = lockedFolder(ops, parent, name);
    if (!staging) return;
    const std::string stagingPath = parentPath + "/" + name;
    std::string why;
    if (provenToken(ops, parent, staging.get(), why).empty())
        return skip(ops, parent, staging.get(), name, stagingPath, why, out);
    staging.reset();
    if (removeTree(ops, parent, name))
        out.done.push_back("removed " + stagingPath);
    else
        out.leftAside.push_back(stagingPath);
}

}  // namespace

void recoverDestination(const FileOps& ops, int parent, int destination, const std::string& path,
                        const std::string& name, bool discardUnreadable,
                        extraction::Recovery& out) {
    if (destination >= 0) {
        for (const auto& [entry, folder] : namesIn(ops, destination))
            if (folder && isStagingName(entry, ""))
                recoverInside(ops, destination, path, entry, discardUnreadable, out);
        // What a new destination keeps of its staging folder when the
        // process died right after renaming it into place.
        if (holdsOwnStamp(ops, destination) && ops.unlinkat(destination, kStampName, 0) == 0)
            out.done.push_back("removed " + path + "/" + kStampName);
    }
    if (parent < 0) return;
    const std::string parentPath = path.substr(0, path.rfind('/'));
    for (const auto& [entry, folder] : namesIn(ops, parent))
        if (folder && isStagingName(entry, name)) removeBeside(ops, parent, parentPath, entry, out);
}

}  // namespace opc::detail
