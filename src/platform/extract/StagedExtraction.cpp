#include "platform/extract/StagedExtraction.hpp"

#include <fcntl.h>
#include <stdio.h>  // RENAME_NOREPLACE
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/base/Ascii.hpp"
#include "platform/extract/Recovery.hpp"
#include "platform/extract/StagingStamp.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
const char kJournalDraft[] = "journal.new";

[[noreturn]] void fail(const std::string& what, Reason reason = Reason::CannotWrite) {
    throw Exception(reason, what);
}

[[noreturn]] void failErrno(const std::string& what) {
    fail(what + ": " + std::strerror(errno));
}

FileSegments folderOf(const FileSegments& path) {
    return FileSegments(path.begin(), path.end() - 1);
}

std::string quoted(const FileSegments& path) {
    return "\"" + joinSegments(path) + "\"";
}

}  // namespace

StagedExtraction::StagedExtraction(const std::filesystem::path& destination, Existing existing,
                                   bool sync, const FileOps& ops, mode_t fileMode)
    : ops_(ops),
      destination_(splitDestination(destination)),
      existing_(existing),
      sync_(sync),
      fileMode_(fileMode) {
    try {
        openDestination();
        createStaging();
        folders_.emplace(ops_, fresh() ? staging_.get() : dest_.get());
    } catch (...) {
        removeStaging();
        removeCreatedRoots();
        throw;
    }
}

StagedExtraction::~StagedExtraction() {
    if (committed_) return;
    if (journaled_ && !keepStaging_ && !undoCommit().empty()) keepStaging_ = true;
    if (keepStaging_) return;
    removeStaging();
    removeCreatedRoots();
}

// The destination path itself comes from the caller and is trusted as
// given; only what lies below it is guarded against links.
void StagedExtraction::openDestination() {
    const std::string& path = destination_.path;
    const std::size_t slash = path.rfind('/');
    for (std::size_t at = path.find('/', 1); at != std::string::npos && at <= slash;
         at = path.find('/', at + 1)) {
        const std::string prefix = path.substr(0, at);
        if (ops_.mkdirat(AT_FDCWD, prefix.c_str()) == 0)
            createdRoots_.push_back(prefix);
        else if (errno != EEXIST)
            failErrno("cannot create the folder \"" + prefix + "\"");
    }
    const std::string& parentPath = destination_.parent;
    if (!destination_.name.empty())
        parent_ = OpsFd(ops_, ops_.openat(AT_FDCWD, parentPath.c_str(), O_RDONLY | O_DIRECTORY));
    dest_ = OpsFd(ops_, ops_.openat(AT_FDCWD, path.c_str(), O_RDONLY | O_DIRECTORY));
    if (!dest_ && (errno != ENOENT || !parent_))
        failErrno("cannot open the folder \"" + (parent_ ? path : parentPath) + "\"");
}

// The staging folder is made exclusively under a name no part can take,
// private when it sits inside the destination, and stamped at once, so
// that recovery can tell it from anything else named like it.
void StagedExtraction::createStaging() {
    const int where = fresh() ? parent_.get() : dest_.get();
    const mode_t mode = fresh() ? 0777 : 0700;  // a new destination keeps the usual mode
    for (int attempt = 0;; ++attempt) {
        const std::string name = stagingFolderName(fresh() ? destination_.name : "");
        if (ops_.mkdirat(where, name.c_str(), mode) == 0) {
            stagingName_ = name;
            break;
        }
        if (errno != EEXIST || attempt == 100)
            failErrno("cannot create a staging folder for \"" + destination_.path + "\"");
    }
    staging_ = OpsFd(ops_, ops_.openat(where, stagingName_.c_str(), kFolderFlags));
    if (!staging_ || ops_.flock(staging_.get(), LOCK_EX | LOCK_NB) != 0)
        failErrno("cannot open the staging folder \"" + stagingPath() + "\"");
    token_ = writeStamp(ops_, where, staging_.get(), stagingPath());
}

// Leftovers of dead extractions are repaired only now that the package is
// verified: a refused package leaves the folder exactly as it found it.
// A leftover that cannot be repaired stops the commit (its journal would
// later replay over the new files); one whose journal cannot be read is
// only reported, for nothing says which files it concerns.
void StagedExtraction::repairLeftovers() {
    extraction::Recovery recovery;
    recoverDestination(ops_, parent_ ? parent_.get() : -1, dest_ ? dest_.get() : -1,
                       destination_.path, destination_.name, false, recovery);
    if (!recovery.leftAside.empty())
        fail("the folder \"" + destination_.path +
             "\" holds what an interrupted extraction left, and it could not be repaired: " +
             recovery.leftAside.front());
    for (const auto& unreadable : recovery.unreadable)
        warnings_.push_back("left alone " + unreadable + "; `tsapp recover --discard` removes it");
    if (recovery.done.empty() || fresh()) return;
    // The repair moved files: look again at what each staged file meets.
    folders_->clear();
    missingFolders_.clear();
    for (auto& file : staged_) file.existed = checkTarget(file.path);
}

std::string StagedExtraction::stagingPath() const {
    const std::string& where = fresh() ? destination_.parent : destination_.path;
    return (where == "/" ? "" : where) + "/" + stagingName_;
}

void StagedExtraction::reservePath(const FileSegments& path) {
    // The key of each folder above the file is a prefix of the file's own.
    std::string key;
    std::vector<std::size_t> ends;
    for (const std::string& segment : path) {
        if (!key.empty()) key += '/';
        key += segment;
        ends.push_back(key.size());
    }
    key = opc::detail::ascii_lower(key);
    if (folderPaths_.count(key) || !filePaths_.insert(key).second)
        fail("the package names " + quoted(path) + " twice, or as both a file and a folder",
             Reason::BadPath);
    // Deepest first: a folder already known had the folders above it
    // checked and recorded with it.
    for (std::size_t depth = path.size() - 1; depth > 0; --depth) {
        std::string folderKey = key.substr(0, ends[depth - 1]);
        if (folderPaths_.count(folderKey)) return;
        if (filePaths_.count(folderKey))
            fail("the package names " + quoted(FileSegments(path.begin(), path.begin() + depth)) +
                     " as both a file and a folder",
                 Reason::BadPath);
        folderPaths_.insert(std::move(folderKey));
    }
}

// True when something is at the path in an existing destination now.
bool StagedExtraction::checkTarget(const FileSegments& path) {
    if (fresh()) return false;
    const FileSegments folder = folderOf(path);
    if (missingFolders_.count(folder)) return false;
    const int dirFd = folders_->open(folder, nullptr);
    if (dirFd < 0) {
        missingFolders_.insert(folder);
        return false;
    }
    struct stat info {};
    if (ops_.lstatat(dirFd, path.back().c_str(), &info) != 0) {
        if (errno != ENOENT) failErrno("cannot inspect " + quoted(path));
        return false;
    }
    if (S_ISDIR(info.st_mode)) fail("a folder is in the way of the file " + quoted(path));
    if (existing_ == Existing::Refuse) fail("the file " + quoted(path) + " already exists");
    return true;
}

void StagedExtraction::stage(const FileSegments& path, const std::function<void(int fd)>& write) {
    OpsFd file = beginFile(path);
    write(file.get());
    endFile(std::move(file), path);
}

OpsFd StagedExtraction::beginFile(const FileSegments& path) {
    return create(reserve(path), path);
}

// The lock covers only the bookkeeping: creating or linking the file, the
// slow part, happens outside it, in a folder held open meanwhile.
StagedExtraction::Place StagedExtraction::reserve(const FileSegments& path) {
    std::lock_guard<std::mutex> lock(stagingMutex_);
    if (path.empty()) fail("a part has no file name", Reason::BadPath);
    reservePath(path);
    staged_.push_back({path, checkTarget(path)});
    // A new destination is staged as the tree it becomes; files for an
    // existing one wait flat in the staging folder inside it.
    if (!fresh()) return {staging_.get(), nullptr, stagedName(staged_.size() - 1)};
    auto [dirFd, held] = folders_->hold(folderOf(path), &createdFolders_);
    return {dirFd, std::move(held), path.back()};
}

OpsFd StagedExtraction::create(const Place& place, const FileSegments& path) const {
    OpsFd out(ops_, ops_.openat(place.dirFd, place.name.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, fileMode_));
    if (!out) failErrno("cannot create the file " + quoted(path) + " in the destination");
    return out;
}

StagedExtraction::Shared StagedExtraction::stageFrom(const FileSegments& path, int source,
                                                     struct stat& info) {
    struct stat from {};
    if (ops_.fstat(source, &from) != 0) failErrno("cannot examine the file " + quoted(path));
    bool straight = false;
    {
        // Once the file system has said it cannot clone, each file goes
        // straight to a link, without a file made to be cloned into first.
        std::lock_guard<std::mutex> lock(stagingMutex_);
        straight = newFiles_ && linkable(from);
    }
    const Place place = reserve(path);
    if (straight && ops_.linkFile(source, place.dirFd, place.name.c_str()) == 0) {
        info = from;
        return Shared::Linked;
    }
    OpsFd out = create(place, path);
    Shared how = Shared::Copied;
    if (!straight) {
        // A clone is a file of its own: nothing the source goes through
        // later reaches it. Where there is none, a link shares the very
        // file, and only one already as a new file would be (its mode is
        // what the records of a fresh unpacking would say).
        if (ops_.cloneFile(out.get(), source) == 0) {
            how = Shared::Cloned;
        } else {
            const bool cannotClone = errno == EOPNOTSUPP || errno == EINVAL || errno == ENOTTY;
            struct stat created {};
            if (ops_.fstat(out.get(), &created) != 0)
                failErrno("cannot examine the file " + quoted(path));
            if (cannotClone) {
                std::lock_guard<std::mutex> lock(stagingMutex_);
                newFiles_ = NewFiles{created.st_dev, created.st_mode & 07777};
            }
            if (S_ISREG(from.st_mode) && from.st_dev == created.st_dev &&
                (from.st_mode & 07777) == (created.st_mode & 07777) &&
                ops_.unlinkat(place.dirFd, place.name.c_str(), 0) == 0) {
                out.reset();
                if (ops_.linkFile(source, place.dirFd, place.name.c_str()) == 0) {
                    info = from;
                    return Shared::Linked;
                }
                // Whatever failed the link, the copy goes into a file of
                // our own again.
                out = create(place, path);
            }
        }
    }
    if (how == Shared::Copied) copy(source, out.get(), path);
    if (ops_.fstat(out.get(), &info) != 0) failErrno("cannot examine the file " + quoted(path));
    endFile(std::move(out), path);
    return how;
}

bool StagedExtraction::linkable(const struct stat& source) const {
    return S_ISREG(source.st_mode) && source.st_dev == newFiles_->device &&
           (source.st_mode & 07777) == newFiles_->mode;
}

void StagedExtraction::copy(int from, int to, const FileSegments& path) const {
    std::vector<unsigned char> buffer(256u << 10);
    for (long long at = 0;;) {
        const long got = ops_.readAt(from, buffer.data(), buffer.size(), at);
        if (got < 0) failErrno("cannot read the file to copy to " + quoted(path));
        if (got == 0) return;
        if (ops_.writeAll(to, buffer.data(), static_cast<std::size_t>(got)) != 0)
            failErrno("cannot write the file " + quoted(path));
        at += got;
    }
}

void StagedExtraction::endFile(OpsFd file, const FileSegments& path) const {
    // close() is where some file systems report a failed write.
    if ((sync_ && ops_.fsync(file.get()) != 0) || ops_.close(file.release()) != 0)
        failErrno("cannot write the file " + quoted(path));
}

void StagedExtraction::flush(int fd, const std::string& what, bool warnOnly) {
    if (ops_.fsync(fd) == 0) return;
    if (!warnOnly) failErrno("cannot flush \"" + what + "\" to disk");
    warnings_.push_back("could not flush " + what + " to disk: " + std::strerror(errno));
}

void StagedExtraction::commit() {
    repairLeftovers();
    if (fresh())
        commitFresh();
    else
        commitExisting();
}

void StagedExtraction::commitFresh() {
    if (sync_) {
        for (const auto& folder : createdFolders_)
            flush(folders_->open(folder, nullptr), stagingPath() + "/" + joinSegments(folder),
                  false);
        flush(staging_.get(), stagingPath(), false);
    }
    const int parent = parent_.get();
    int moved = ops_.renameat(parent, stagingName_.c_str(), parent, destination_.name.c_str(),
                              RENAME_NOREPLACE);
    if (moved != 0 && errno == EINVAL)  // a file system that cannot promise NOREPLACE
        moved = ops_.renameat(parent, stagingName_.c_str(), parent, destination_.name.c_str());
    if (moved != 0) {
        if (errno == EEXIST || errno == ENOTEMPTY)
            fail("the folder \"" + destination_.path + "\" appeared during the extraction");
        failErrno("cannot move the new folder into place as \"" + destination_.path + "\"");
    }
    committed_ = true;
    // The stamp came along with the folder; a copy that stays is removed by
    // the next recovery, which finds it bound to the destination itself.
    if (ops_.unlinkat(staging_.get(), kStampName, 0) != 0 &&
        ops_.unlinkat(staging_.get(), kStampName, 0) != 0 && errno != ENOENT)
        warnings_.push_back("could not remove " + destination_.path + "/" + kStampName);
    if (sync_) flush(parent, destination_.path + "/..", true);
}

void StagedExtraction::writeJournal() {
    journal_.refuseExisting = existing_ == Existing::Refuse;
    std::set<FileSegments> newFolders;
    for (const auto& folder : missingFolders_)
        for (std::size_t depth = 1; depth <= folder.size(); ++depth)
            newFolders.insert(FileSegments(folder.begin(), folder.begin() + depth));
    // Parents sort before their children.
    for (const auto& folder : newFolders)
        if (folders_->open(folder, nullptr) < 0)
            journal_.entries.push_back({true, false, joinSegments(folder)});
    for (const auto& file : staged_)
        journal_.entries.push_back({false, file.existed, joinSegments(file.path)});
    const std::string text = encodeJournal(token_, journal_);

    OpsFd out(ops_, ops_.openat(staging_.get(), kJournalDraft, O_WRONLY | O_CREAT | O_EXCL, 0600));
    if (!out || ops_.writeAll(out.get(), text.data(), text.size()) != 0 ||
        (sync_ && ops_.fsync(out.get()) != 0) || ops_.close(out.release()) != 0 ||
        ops_.renameat(staging_.get(), kJournalDraft, staging_.get(), kJournal) != 0)
        failErrno("cannot write the journal in \"" + stagingPath() + "\"");
    journaled_ = true;
    if (sync_) flush(staging_.get(), stagingPath(), false);
}

void StagedExtraction::commitExisting() {
    if (sync_) flush(staging_.get(), stagingPath(), false);
    std::set<std::string> present;
    for (std::size_t i = 0; i < staged_.size(); ++i) present.insert(stagedName(i));
    commit_.emplace(ops_, *folders_, staging_.get(), stagingPath(), journal_, std::move(present));
    writeJournal();
    try {
        commit_->forward();
    } catch (const Exception& e) {
        const std::vector<std::string> problems = undoCommit();
        if (problems.empty()) throw;
        keepStaging_ = true;
        std::string text = std::string(e.what()) + "; could not undo:";
        for (const auto& problem : problems) text += " " + problem + ";";
        fail(text + " the destination may need `tsapp recover`");
    }
    committed_ = true;
    if (sync_) {
        std::set<FileSegments> touched;
        for (const auto& file : staged_) touched.insert(folderOf(file.path));
        for (const auto& folder : touched)
            flush(folders_->open(folder, nullptr), destination_.path + "/" + joinSegments(folder),
                  true);
    }
    removeCommitted();
}

// Cleaning up: each removal gets a second chance before it is reported.
// What cannot be removed stays for the next recovery, which completes the
// journal (nothing left to move) and removes the rest.
void StagedExtraction::removeCommitted() {
    const std::vector<std::string> left = commit_->dropOldCopies();
    warnings_.insert(warnings_.end(), left.begin(), left.end());
    auto remove = [&](int dir, const std::string& name, int flags) {
        return ops_.unlinkat(dir, name.c_str(), flags) == 0 ||
               ops_.unlinkat(dir, name.c_str(), flags) == 0 || errno == ENOENT;
    };
    const int staging = staging_.get();
    if (left.empty() && (!remove(staging, kJournal, 0) || !remove(staging, kStampName, 0) ||
                         !remove(dest_.get(), stagingName_, AT_REMOVEDIR)))
        warnings_.push_back("could not remove " + stagingPath());
}

// Puts the destination back as it was; returns what could not be, one line each.
std::vector<std::string> StagedExtraction::undoCommit() noexcept {
    std::vector<std::string> problems;
    // From here a crash, or a staging folder that cannot be removed, must
    // lead to undoing, not completing.
    if (journaled_ && ops_.renameat(staging_.get(), kJournal, staging_.get(), kUndoJournal) != 0) {
        for (const auto& path : commit_->touchedPaths())
            problems.push_back(path + " (left as the new version)");
        if (!problems.empty()) return problems;
        if (ops_.unlinkat(staging_.get(), kJournal, 0) != 0)
            problems.push_back(stagingPath() + "/" + kJournal + " (could not be removed)");
    }
    journaled_ = false;
    const std::vector<std::string> left = commit_->back();
    problems.insert(problems.end(), left.begin(), left.end());
    return problems;
}

void StagedExtraction::removeStaging() noexcept {
    folders_.reset();
    const int where = fresh() ? parent_.get() : dest_.get();
    // What cannot be removed now, the next extraction removes: the lock
    // goes with this process.
    if (!stagingName_.empty() && where >= 0) removeTree(ops_, where, stagingName_);
    staging_.reset();
}

void StagedExtraction::removeCreatedRoots() noexcept {
    parent_.reset();
    for (auto it = createdRoots_.rbegin(); it != createdRoots_.rend(); ++it)
        ops_.unlinkat(AT_FDCWD, it->c_str(), AT_REMOVEDIR);
    createdRoots_.clear();
}

}  // namespace opc::detail
