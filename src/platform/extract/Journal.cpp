#include "platform/extract/Journal.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>

#include "platform/base/ReadAt.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

const std::string kPrefix = ".~tsapp-";
const std::string kMagic = "tsapp-journal-1";

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

// Names in the folder, with whether each is a folder (not a link to one).
std::vector<std::pair<std::string, bool>> listFolder(int fd) {
    std::vector<std::pair<std::string, bool>> names;
    const int copy = ::dup(fd);
    if (copy < 0) return names;
    std::unique_ptr<DIR, DirCloser> dir(::fdopendir(copy));
    if (!dir) {
        ::close(copy);
        return names;
    }
    ::rewinddir(dir.get());
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        bool folder = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN) {
            struct stat info {};
            folder = ::fstatat(fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                     S_ISDIR(info.st_mode);
        }
        names.emplace_back(name, folder);
    }
    return names;
}

bool digitsThenDash(const std::string& text, std::size_t& at) {
    const std::size_t start = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    return at > start && at < text.size() && text[at++] == '-';
}

// ".~tsapp-<pid>-<n>" (inside) or ".~tsapp-<pid>-<n>-<beside>".
bool isStagingName(const std::string& name, const std::string& beside) {
    if (name.compare(0, kPrefix.size(), kPrefix) != 0) return false;
    std::size_t at = kPrefix.size();
    if (!digitsThenDash(name, at)) return false;
    const std::size_t counterStart = at;
    while (at < name.size() && name[at] >= '0' && name[at] <= '9') ++at;
    if (at == counterStart) return false;
    if (beside.empty()) return at == name.size();
    return name.compare(at, std::string::npos, "-" + beside) == 0;
}

bool readWhole(int dir, const char* name, std::string& text) {
    UniqueFd fd(::openat(dir, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return false;
    unsigned char buffer[65536];
    for (std::uint64_t offset = 0;; offset += sizeof buffer) {
        const ssize_t got = read_at(fd.get(), buffer, sizeof buffer, offset);
        if (got < 0) return false;
        text.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(got));
        if (static_cast<std::size_t>(got) < sizeof buffer) return true;
    }
}

bool decodeJournal(const std::string& text, std::vector<JournalEntry>& entries) {
    std::size_t at = 0;
    bool first = true;
    while (at < text.size()) {
        const std::size_t end = text.find('\0', at);
        if (end == std::string::npos) return false;
        const std::string record = text.substr(at, end - at);
        at = end + 1;
        if (first) {
            if (record != kMagic) return false;
            first = false;
            continue;
        }
        JournalEntry entry;
        if (record.size() > 1 && record[0] == 'D') {
            entry.folder = true;
            entry.path = record.substr(1);
        } else if (record.size() > 2 && record[0] == 'F') {
            entry.existed = record[1] == '1';
            entry.path = record.substr(2);
        } else {
            return false;
        }
        entries.push_back(std::move(entry));
    }
    return !first;
}

FileSegments splitPath(const std::string& path) {
    FileSegments segments;
    std::size_t start = 0;
    for (std::size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1)
        segments.push_back(path.substr(start, slash - start));
    segments.push_back(path.substr(start));
    return segments;
}

bool exists(int dir, const std::string& name) {
    struct stat info {};
    return ::fstatat(dir, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
}

// Moves every staged file still waiting into place and drops the old copies.
void complete(const FileOps& ops, int dest, int staging, const std::string& stagingPath,
              const std::vector<JournalEntry>& entries, std::vector<std::string>& problems) {
    std::size_t index = 0;
    for (const auto& entry : entries) {
        if (entry.folder) continue;
        const std::size_t i = index++;
        if (exists(staging, stagedName(i))) {
            FileSegments folder = splitPath(entry.path);
            const std::string name = folder.back();
            folder.pop_back();
            std::vector<FileSegments> created;
            try {
                UniqueFd dir = openFolderBelow(ops, dest, folder, &created);
                if (!dir ||
                    ops.renameat(staging, stagedName(i).c_str(), dir.get(), name.c_str()) != 0)
                    problems.push_back(entry.path + " (new copy kept as " + stagingPath + "/" +
                                       stagedName(i) + ")");
            } catch (const Exception& e) {
                problems.push_back(entry.path + " (" + e.what() + ")");
            }
        }
        if (exists(staging, asideName(i)) && ops.unlinkat(staging, asideName(i).c_str(), 0) != 0)
            problems.push_back(stagingPath + "/" + asideName(i));
    }
}

// Puts back every old copy, removes every new file, then the new folders.
void undo(const FileOps& ops, int dest, int staging, const std::string& stagingPath,
          const std::vector<JournalEntry>& entries, std::vector<std::string>& problems) {
    std::size_t files = 0;
    for (const auto& entry : entries) files += entry.folder ? 0 : 1;
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        FileSegments folder = splitPath(it->path);
        const std::string name = folder.back();
        folder.pop_back();
        UniqueFd dir;
        try {
            dir = openFolderBelow(ops, dest, folder, nullptr);
        } catch (const Exception&) {
        }
        if (it->folder) {
            if (dir) ops.unlinkat(dir.get(), name.c_str(), AT_REMOVEDIR);
            continue;
        }
        const std::size_t i = --files;
        if (exists(staging, asideName(i))) {
            if (!dir || ops.renameat(staging, asideName(i).c_str(), dir.get(), name.c_str()) != 0)
                problems.push_back(it->path + " (old copy kept as " + stagingPath + "/" +
                                   asideName(i) + ")");
        } else if (!it->existed && !exists(staging, stagedName(i)) && dir &&
                   ops.unlinkat(dir.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
            problems.push_back(it->path + " (the new file is still in place)");
        }
    }
}

// One dead extraction's staging folder inside the destination.
void recoverInside(const FileOps& ops, int dest, const std::string& path, const std::string& name,
                   extraction::Recovery& out) {
    UniqueFd staging(::openat(dest, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!staging || ::flock(staging.get(), LOCK_EX | LOCK_NB) != 0) return;
    const std::string stagingPath = path + "/" + name;
    std::string text;
    const bool forward = readWhole(staging.get(), kJournal, text);
    if (forward || readWhole(staging.get(), kUndoJournal, text)) {
        std::vector<JournalEntry> entries;
        std::vector<std::string> problems;
        if (!decodeJournal(text, entries)) {
            out.leftAside.push_back(stagingPath + " (its journal is unreadable)");
            return;
        }
        if (forward)
            complete(ops, dest, staging.get(), stagingPath, entries, problems);
        else
            undo(ops, dest, staging.get(), stagingPath, entries, problems);
        if (!problems.empty()) {
            out.leftAside.insert(out.leftAside.end(), problems.begin(), problems.end());
            return;
        }
        out.done.push_back(std::string(forward ? "completed" : "undid") +
                           " the interrupted extraction into " + path);
    }
    if (removeTree(ops, dest, name))
        out.done.push_back("removed " + stagingPath);
    else
        out.leftAside.push_back(stagingPath);
}

}  // namespace

std::string stagedName(std::size_t index) {
    return "n" + std::to_string(index);
}

std::string asideName(std::size_t index) {
    return "o" + std::to_string(index);
}

std::string stagingFolderName(const std::string& beside) {
    static std::atomic<unsigned long> counter{0};
    std::string name = kPrefix + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    return beside.empty() ? name : name + "-" + beside;
}

std::string encodeJournal(const std::vector<JournalEntry>& entries) {
    std::string text = kMagic + '\0';
    for (const auto& entry : entries) {
        text += entry.folder ? "D" : entry.existed ? "F1" : "F0";
        text += entry.path;
        text += '\0';
    }
    return text;
}

bool removeTree(const FileOps& ops, int parent, const std::string& name) {
    UniqueFd fd(ops.openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    if (!fd) return errno == ENOENT;
    bool removed = true;
    for (const auto& [entry, folder] : listFolder(fd.get())) {
        if (folder)
            removed = removeTree(ops, fd.get(), entry) && removed;
        else if (ops.unlinkat(fd.get(), entry.c_str(), 0) != 0 && errno != ENOENT)
            removed = false;
    }
    return removed && (ops.unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT);
}

UniqueFd openFolderBelow(const FileOps& ops, int root, const FileSegments& folder,
                         std::vector<FileSegments>* created) {
    UniqueFd current(::dup(root));
    FileSegments walked;
    for (const auto& name : folder) {
        walked.push_back(name);
        const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
        UniqueFd next(ops.openat(current.get(), name.c_str(), flags));
        if (!next && errno == ENOENT && created) {
            if (ops.mkdirat(current.get(), name.c_str()) != 0 && errno != EEXIST)
                throw Exception("cannot create the folder \"" + joinSegments(walked) + "\"");
            created->push_back(walked);
            next = UniqueFd(ops.openat(current.get(), name.c_str(), flags));
        }
        if (!next && errno == ENOENT && !created) return UniqueFd();
        if (!next && (errno == ELOOP || errno == ENOTDIR))
            throw Exception("\"" + joinSegments(walked) +
                            "\" in the destination is not a folder (a file or a symbolic link)");
        if (!next) throw Exception("cannot open the folder \"" + joinSegments(walked) + "\"");
        current = std::move(next);
    }
    return current;
}

void recoverDestination(const FileOps& ops, int parent, int destination, const std::string& path,
                        const std::string& name, extraction::Recovery& out) {
    if (destination >= 0) {
        for (const auto& [entry, folder] : listFolder(destination))
            if (folder && isStagingName(entry, ""))
                recoverInside(ops, destination, path, entry, out);
    }
    if (parent < 0) return;
    const std::string parentPath = path.substr(0, path.rfind('/'));
    for (const auto& [entry, folder] : listFolder(parent)) {
        if (!folder || !isStagingName(entry, name)) continue;
        UniqueFd staging(
            ::openat(parent, entry.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!staging || ::flock(staging.get(), LOCK_EX | LOCK_NB) != 0) continue;
        if (removeTree(ops, parent, entry))
            out.done.push_back("removed " + parentPath + "/" + entry);
        else
            out.leftAside.push_back(parentPath + "/" + entry);
    }
}

}  // namespace opc::detail
