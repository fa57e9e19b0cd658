#include "platform/extract/Commit.hpp"

#include <fcntl.h>
#include <stdio.h>  // RENAME_NOREPLACE

#include <cerrno>
#include <cstring>

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

[[noreturn]] void fail(const std::string& what) {
    throw Exception(Reason::CannotWrite, what);
}

[[noreturn]] void failErrno(const std::string& what) {
    fail(what + ": " + std::strerror(errno));
}

std::string quoted(const std::string& path) {
    return "\"" + path + "\"";
}

FileSegments folderOf(const FileSegments& path) {
    return FileSegments(path.begin(), path.end() - 1);
}

}  // namespace

Commit::Commit(const FileOps& ops, FolderCache& destination, int staging, std::string stagingPath,
               const Journal& journal, std::set<std::string> present)
    : ops_(ops),
      destination_(destination),
      staging_(staging),
      stagingPath_(std::move(stagingPath)),
      journal_(journal),
      present_(std::move(present)) {}

void Commit::forward() {
    std::size_t index = 0;
    for (const JournalEntry& entry : journal_.entries)
        if (!entry.folder) place(index++, entry);
}

void Commit::place(std::size_t index, const JournalEntry& file) {
    const std::string staged = stagedName(index);
    if (!present_.count(staged)) return;  // already in place
    const FileSegments path = splitPath(file.path);
    std::vector<FileSegments> created;
    const int folder = destination_.open(folderOf(path), &created);
    const std::string& name = path.back();
    if (ops_.renameat(staging_, staged.c_str(), folder, name.c_str(), RENAME_NOREPLACE) == 0) {
        present_.erase(staged);
        placedFresh_.insert(index);
        return;
    }
    // EINVAL and ENOSYS: a file system that cannot promise NOREPLACE.
    if (errno != EEXIST && errno != EINVAL && errno != ENOSYS)
        failErrno("cannot move " + quoted(file.path) + " into place");
    moveOldAside(folder, name, index, file.path);
    if (ops_.renameat(staging_, staged.c_str(), folder, name.c_str()) != 0)
        failErrno("cannot move " + quoted(file.path) + " into place");
    present_.erase(staged);
}

void Commit::moveOldAside(int folder, const std::string& name, std::size_t index,
                          const std::string& path) {
    struct stat info {};
    if (ops_.lstatat(folder, name.c_str(), &info) != 0) {
        if (errno == ENOENT) return;
        failErrno("cannot inspect " + quoted(path));
    }
    if (S_ISDIR(info.st_mode)) fail("a folder is in the way of the file " + quoted(path));
    if (journal_.refuseExisting) fail("the file " + quoted(path) + " already exists");
    const std::string aside = asideName(index);
    if (present_.count(aside)) return;  // the first old copy is kept; this one is replaced
    if (ops_.renameat(folder, name.c_str(), staging_, aside.c_str()) != 0)
        failErrno("cannot move the old " + quoted(path) + " aside");
    present_.insert(aside);
}

std::vector<std::string> Commit::dropOldCopies() {
    std::vector<std::string> problems;
    std::size_t index = 0;
    for (const JournalEntry& entry : journal_.entries) {
        if (entry.folder) continue;
        const std::string aside = asideName(index++);
        if (!present_.count(aside)) continue;
        if (ops_.unlinkat(staging_, aside.c_str(), 0) == 0 ||
            ops_.unlinkat(staging_, aside.c_str(), 0) == 0 || errno == ENOENT) {
            present_.erase(aside);
            continue;
        }
        problems.push_back("could not remove " + stagingPath_ + "/" + aside + " (the old " +
                           entry.path + ")");
    }
    return problems;
}

std::vector<std::string> Commit::touchedPaths() const {
    std::vector<std::string> touched;
    std::size_t index = 0;
    for (const JournalEntry& entry : journal_.entries) {
        if (entry.folder) continue;
        const std::size_t i = index++;
        if (!present_.count(stagedName(i)) || present_.count(asideName(i)))
            touched.push_back(entry.path);
    }
    return touched;
}

std::vector<std::string> Commit::back() {
    std::vector<std::string> problems;
    std::size_t index = 0;
    for (const JournalEntry& entry : journal_.entries) index += entry.folder ? 0 : 1;
    for (auto it = journal_.entries.rbegin(); it != journal_.entries.rend(); ++it) {
        const FileSegments path = splitPath(it->path);
        int folder = -1;
        try {
            folder = destination_.open(folderOf(path), nullptr);
        } catch (const Exception&) {
        }
        const char* name = path.back().c_str();
        if (it->folder) {
            if (folder >= 0 && ops_.unlinkat(folder, name, AT_REMOVEDIR) != 0 && errno != ENOENT)
                problems.push_back(it->path + " (a new folder)");
            destination_.forget(path);
            continue;
        }
        const std::size_t i = --index;
        const std::string aside = asideName(i);
        if (present_.count(aside)) {
            if (folder < 0 || ops_.renameat(staging_, aside.c_str(), folder, name) != 0) {
                problems.push_back(it->path + " (old copy kept as " + stagingPath_ + "/" + aside +
                                   ")");
                continue;
            }
            present_.erase(aside);
        } else if (!present_.count(stagedName(i)) && (!it->existed || placedFresh_.count(i)) &&
                   folder >= 0) {
            if (ops_.unlinkat(folder, name, 0) != 0 && errno != ENOENT) {
                problems.push_back(it->path + " (the new file is still in place)");
                continue;
            }
        }
        placedFresh_.erase(i);
    }
    return problems;
}

}  // namespace opc::detail
