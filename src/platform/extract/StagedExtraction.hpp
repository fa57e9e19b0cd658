#pragma once

// All-or-nothing writing of many files below one folder, that a crash
// cannot leave half done (see Journal.hpp for the staging folders).
//
// Nothing the destination shows changes before commit(). A new
// destination is built whole in a staging folder beside it and renamed
// into place; into an existing one the files are staged in a hidden folder
// inside it, then moved one by one under a journal (Commit.hpp). Until
// commit() has returned, the destructor undoes everything: the staging
// folder goes, files that were replaced get their old contents back, and
// every folder this object created is removed. The destination then holds
// exactly what it held before. At commit(), before anything moves, the
// staging folders of dead extractions into the same destination are
// completed or removed (Recovery.hpp says how they prove themselves ours).
//
// Below the destination every folder is reached through a FolderCache, so
// a symbolic link that sits inside the destination is never followed: a
// path through it is an error. Files are created as regular files with
// mode 0666 less the umask, whatever the archive says, and a file is never
// written over a folder. Every file-system call goes through `ops`.

#include <sys/stat.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/extract/Commit.hpp"
#include "platform/extract/ExtractionPaths.hpp"
#include "platform/extract/FileOps.hpp"
#include "platform/extract/FolderCache.hpp"
#include "platform/extract/Journal.hpp"

namespace opc::detail {

class StagedExtraction {
  public:
    enum class Existing { Replace, Refuse };

    // Opens `destination` (an absolute path), creating its missing parent
    // folders, and makes the staging folder. Throws opc::Exception when
    // that fails. With `sync`, every file and folder is flushed to disk
    // before the new files count as installed.
    // New files get `fileMode` less the umask.
    StagedExtraction(const std::filesystem::path& destination, Existing existing, bool sync = false,
                     const FileOps& ops = posixFileOps(), mode_t fileMode = 0666);
    ~StagedExtraction();
    StagedExtraction(const StagedExtraction&) = delete;
    StagedExtraction& operator=(const StagedExtraction&) = delete;

    // Creates a staged file for `path` and calls `write` with the open
    // descriptor. Throws opc::Exception when the path clashes with another
    // staged file or folder (ignoring ASCII case), with a folder or a
    // symbolic link on the way, or with an existing file under
    // Existing::Refuse.
    void stage(const FileSegments& path, const std::function<void(int fd)>& write);

    // stage() in two steps, for writers fed piece by piece, several at
    // once if need be (each on a thread of its own): the staged file, open
    // for writing, which endFile() closes (with `sync` flushing it first).
    OpsFd beginFile(const FileSegments& path);
    void endFile(OpsFd file, const FileSegments& path) const;

    // How stageFrom() made a file.
    enum class Shared { Cloned, Linked, Copied };
    // Stages for `path` a file with the bytes of the open regular file
    // `source`: a clone of it where the file system can, else `source`
    // itself under a second name (when it is on the same file system and
    // has the mode a new file here gets), else a copy. `info` receives the
    // staged file's status.
    Shared stageFrom(const FileSegments& path, int source, struct stat& info);

    // Moves every staged file into place. After it returns the extraction
    // is final. When it throws, everything is already undone, or the text
    // names each file that could not be put back.
    void commit();

    // What could not be cleaned up or flushed after a successful commit:
    // one line each, naming the file or folder.
    const std::vector<std::string>& warnings() const { return warnings_; }

  private:
    struct StagedFile {
        FileSegments path;
        bool existed = false;  // something was at the path when staged
    };

    // Where a staged file goes: `name` in the folder `dirFd`, which `held`
    // keeps open.
    struct Place {
        int dirFd;
        std::shared_ptr<const OpsFd> held;
        std::string name;
    };

    bool fresh() const { return !dest_; }
    Place reserve(const FileSegments& path);
    OpsFd create(const Place& place, const FileSegments& path) const;
    bool linkable(const struct stat& source) const;
    void copy(int from, int to, const FileSegments& path) const;
    void openDestination();
    void createStaging();
    void repairLeftovers();
    void reservePath(const FileSegments& path);
    bool checkTarget(const FileSegments& path);
    void writeJournal();
    void commitFresh();
    void commitExisting();
    void removeCommitted();
    std::vector<std::string> undoCommit() noexcept;
    void flush(int fd, const std::string& what, bool warnOnly);
    void removeStaging() noexcept;
    void removeCreatedRoots() noexcept;
    std::string stagingPath() const;

    const FileOps& ops_;
    const Destination destination_;
    Existing existing_;
    bool sync_;
    mode_t fileMode_;
    std::vector<std::string> createdRoots_;     // absolute, outermost first
    std::vector<FileSegments> createdFolders_;  // in a new destination's staging tree
    std::set<FileSegments> missingFolders_;     // not in the destination when staged
    std::vector<StagedFile> staged_;
    std::unordered_set<std::string> filePaths_;    // ASCII-lowercased, for clash checks
    std::unordered_set<std::string> folderPaths_;  // ASCII-lowercased
    std::vector<std::string> warnings_;
    OpsFd parent_;
    OpsFd dest_;  // an existing destination; invalid for a new one
    std::string stagingName_;
    std::string token_;        // the staging folder's stamp, repeated in its journal
    OpsFd staging_;            // also holds the lock that marks the extraction alive
    std::mutex stagingMutex_;  // beginFile() may come from several threads
    // The device and mode of a new file here, once a clone into one failed
    // because the file system has none (under stagingMutex_).
    struct NewFiles {
        dev_t device;
        unsigned mode;
    };
    std::optional<NewFiles> newFiles_;
    // The staging tree of a new destination, or the existing destination.
    std::optional<FolderCache> folders_;
    Journal journal_;
    std::optional<Commit> commit_;
    bool journaled_ = false;
    bool committed_ = false;
    bool keepStaging_ = false;  // it holds what a failed undo left
};

}  // namespace opc::detail
