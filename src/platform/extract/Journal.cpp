#include "platform/extract/Journal.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <memory>

#include "platform/extract/StagingStamp.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

const std::string kPrefix = ".~tsapp-";
const std::string kMagic = "tsapp-journal-2";
const std::string kEnd = "end";
// Far above any real journal (100,000 paths of 600 bytes), far below what
// would strain memory.
constexpr std::size_t kMaxJournalBytes = 64u << 20;

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

// A path below the destination that cannot leave it: relative, no empty,
// "." or ".." component, none of the extractor's own names.
bool isPlainRelativePath(const std::string& path) {
    if (path.empty() || path.size() >= PATH_MAX || path.front() == '/') return false;
    std::size_t start = 0;
    for (;;) {
        const std::size_t slash = path.find('/', start);
        const std::string segment = path.substr(start, slash - start);
        if (segment.empty() || segment == "." || segment == ".." || segment.size() > NAME_MAX ||
            isReservedName(segment))
            return false;
        if (slash == std::string::npos) return true;
        start = slash + 1;
    }
}

// Empty when `text` is a whole journal for `token` whose every path is
// plain; else what is wrong with it.
std::string decodeJournal(const std::string& text, const std::string& token,
                          std::vector<JournalEntry>& entries) {
    std::vector<std::string> records;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\0', at);
        if (end == std::string::npos) return "it is cut short";
        records.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    if (records.size() < 3 || records[0] != kMagic) return "it is not a journal";
    if (records[1] != token) return "it belongs to another staging folder";
    if (records.back() != kEnd) return "it is cut short";
    for (std::size_t i = 2; i + 1 < records.size(); ++i) {
        const std::string& record = records[i];
        JournalEntry entry;
        if (record.size() > 1 && record[0] == 'D') {
            entry.folder = true;
            entry.path = record.substr(1);
        } else if (record.size() > 2 && record[0] == 'F' &&
                   (record[1] == '0' || record[1] == '1')) {
            entry.existed = record[1] == '1';
            entry.path = record.substr(2);
        } else {
            return "record " + std::to_string(i) + " is malformed";
        }
        if (!isPlainRelativePath(entry.path))
            return "it names a path outside the folder or of the extractor's own";
        entries.push_back(std::move(entry));
    }
    return {};
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

// The journal that says what to do, forward or undo, for the staging
// folder proven ours by `token`. False when there is none.
bool readJournal(int staging, const std::string& token, bool& forward,
                 std::vector<JournalEntry>& entries, std::string& problem) {
    std::string text, why;
    forward = true;
    if (!readOwnFile(staging, kJournal, kMaxJournalBytes, text, why)) {
        if (why != "is missing") {
            problem = "its journal " + why;
            return true;
        }
        forward = false;
        if (!readOwnFile(staging, kUndoJournal, kMaxJournalBytes, text, why)) {
            if (why == "is missing") return false;
            problem = "its journal " + why;
            return true;
        }
    }
    const std::string wrong = decodeJournal(text, token, entries);
    if (!wrong.empty()) problem = "its journal is unreadable: " + wrong;
    return true;
}

// A folder that does not prove itself ours is left alone, unless it holds
// nothing but perhaps a stamp: a run that died between making its staging
// folder and finishing its stamp leaves one, and removing it loses nothing.
void skip(const FileOps& ops, int holder, const std::string& name, const std::string& path,
          const std::string& why, extraction::Recovery& out) {
    UniqueFd folder(ops.openat(holder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    const auto names = folder ? listFolder(folder.get()) : decltype(listFolder(0)){};
    const bool onlyStamp =
        names.size() == 1 && names.front().first == kStampName && !names.front().second;
    if (onlyStamp) ops.unlinkat(folder.get(), kStampName, 0);
    if (folder && ops.unlinkat(holder, name.c_str(), AT_REMOVEDIR) == 0)
        out.done.push_back("removed the empty " + path);
    else
        out.skipped.push_back(path + " (" + why + ")");
}

// One dead extraction's staging folder inside the destination.
void recoverInside(const FileOps& ops, int dest, const std::string& path, const std::string& name,
                   bool discardUnreadable, extraction::Recovery& out) {
    UniqueFd staging(::openat(dest, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!staging || ::flock(staging.get(), LOCK_EX | LOCK_NB) != 0) return;
    const std::string stagingPath = path + "/" + name;
    std::string why;
    const std::string token = provenToken(dest, staging.get(), why);
    struct stat info {};
    if (token.empty() || ::fstat(staging.get(), &info) != 0 || (info.st_mode & 077) != 0) {
        skip(ops, dest, name, stagingPath, token.empty() ? why : "others may read it", out);
        return;
    }
    bool forward = true;
    std::vector<JournalEntry> entries;
    std::string problem;
    if (readJournal(staging.get(), token, forward, entries, problem)) {
        if (!problem.empty() && !discardUnreadable) {
            out.unreadable.push_back(stagingPath + " (" + problem + ")");
            return;
        }
        std::vector<std::string> problems;
        if (problem.empty() && forward)
            complete(ops, dest, staging.get(), stagingPath, entries, problems);
        else if (problem.empty())
            undo(ops, dest, staging.get(), stagingPath, entries, problems);
        if (!problems.empty()) {
            out.leftAside.insert(out.leftAside.end(), problems.begin(), problems.end());
            return;
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
    UniqueFd staging(
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!staging || ::flock(staging.get(), LOCK_EX | LOCK_NB) != 0) return;
    const std::string stagingPath = parentPath + "/" + name;
    std::string why;
    if (provenToken(parent, staging.get(), why).empty()) {
        skip(ops, parent, name, stagingPath, why, out);
        return;
    }
    staging.reset();
    if (removeTree(ops, parent, name))
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

std::string encodeJournal(const std::string& token, const std::vector<JournalEntry>& entries) {
    std::string text = kMagic + '\0' + token + '\0';
    for (const auto& entry : entries) {
        text += entry.folder ? "D" : entry.existed ? "F1" : "F0";
        text += entry.path;
        text += '\0';
    }
    text += kEnd + '\0';
    if (text.size() > kMaxJournalBytes)
        throw Exception(Reason::CannotWrite, "the package names more paths than one journal holds");
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
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
    if (folder.empty()) return UniqueFd(::fcntl(root, F_DUPFD_CLOEXEC, 0));
    if (!created) {
        UniqueFd found(ops.openBeneath(root, joinSegments(folder).c_str(), flags));
        if (!found && errno == ENOENT) return UniqueFd();
        if (!found && (errno == ELOOP || errno == ENOTDIR || errno == EXDEV))
            throw Exception("\"" + joinSegments(folder) +
                            "\" in the destination is not a folder (a file or a symbolic link)");
        if (!found) throw Exception("cannot open the folder \"" + joinSegments(folder) + "\"");
        return found;
    }
    UniqueFd current(::fcntl(root, F_DUPFD_CLOEXEC, 0));
    FileSegments walked;
    for (const auto& name : folder) {
        walked.push_back(name);
        UniqueFd next(ops.openat(current.get(), name.c_str(), flags));
        if (!next && errno == ENOENT) {
            if (ops.mkdirat(current.get(), name.c_str()) != 0 && errno != EEXIST)
                throw Exception("cannot create the folder \"" + joinSegments(walked) + "\"");
            created->push_back(walked);
            next = UniqueFd(ops.openat(current.get(), name.c_str(), flags));
        }
        if (!next && (errno == ELOOP || errno == ENOTDIR))
            throw Exception("\"" + joinSegments(walked) +
                            "\" in the destination is not a folder (a file or a symbolic link)");
        if (!next) throw Exception("cannot open the folder \"" + joinSegments(walked) + "\"");
        current = std::move(next);
    }
    return current;
}

void recoverDestination(const FileOps& ops, int parent, int destination, const std::string& path,
                        const std::string& name, bool discardUnreadable,
                        extraction::Recovery& out) {
    if (destination >= 0) {
        for (const auto& [entry, folder] : listFolder(destination))
            if (folder && isStagingName(entry, ""))
                recoverInside(ops, destination, path, entry, discardUnreadable, out);
        // What a new destination keeps of its staging folder when the
        // process died right after renaming it into place.
        if (holdsOwnStamp(destination) && ops.unlinkat(destination, kStampName, 0) == 0)
            out.done.push_back("removed " + path + "/" + kStampName);
    }
    if (parent < 0) return;
    const std::string parentPath = path.substr(0, path.rfind('/'));
    for (const auto& [entry, folder] : listFolder(parent))
        if (folder && isStagingName(entry, name)) removeBeside(ops, parent, parentPath, entry, out);
}

}  // namespace opc::detail
