#pragma once

// All-or-nothing writing of many files below one folder.
//
// Each file is first written to a temporary name beside its target; only
// commit() renames them into place. Until commit() has returned, the
// destructor undoes everything: temporary files are removed, files that
// were replaced get their old contents back, and every folder that this
// object created (the destination itself included) is removed again. The
// folder then holds exactly what it held before.
//
// Below the destination every folder is opened with openat() and
// O_NOFOLLOW, one component at a time, so a symbolic link that sits inside
// the destination is never followed: a path through it is an error. Files
// are created as regular files with mode 0666 less the umask, whatever the
// archive says, and a file is never written over a folder.

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/extract/ExtractionPaths.hpp"
#include "platform/base/UniqueFd.hpp"

namespace opc::detail {

class StagedExtraction {
  public:
    enum class Existing { Replace, Refuse };

    // Opens `destination` (an absolute path), creating it and any missing
    // parent folders. Throws opc::Exception when that fails.
    StagedExtraction(const std::string& destination, Existing existing);
    ~StagedExtraction();
    StagedExtraction(const StagedExtraction&) = delete;
    StagedExtraction& operator=(const StagedExtraction&) = delete;

    // Creates the folders of `path` and a temporary file beside its target,
    // and calls `write` with the open descriptor. Throws opc::Exception when
    // the path clashes with another staged file or folder (ignoring ASCII
    // case), with a folder or a symbolic link on the way, or with an
    // existing file under Existing::Refuse.
    void stage(const FileSegments& path, const std::function<void(int fd)>& write);

    // Moves every staged file into place. After it returns the extraction
    // is final; when it throws, the destructor restores the old state.
    void commit();

  private:
    struct StagedFile {
        FileSegments folder;
        std::string name;
        std::string temporary;
        std::string backup;  // the old file's temporary name once moved aside
        bool placed = false;
    };

    int folderFd(const FileSegments& folder, bool create);
    std::string createTemporary(int dirFd, UniqueFd& file);
    void checkTarget(int dirFd, const FileSegments& path) const;
    void reservePath(const FileSegments& path);
    void placeFile(StagedFile& file);
    void moveAsideAndPlace(int dirFd, StagedFile& file);
    void rollback() noexcept;
    void removeCreatedFolders() noexcept;

    std::string destination_;
    Existing existing_;
    std::vector<std::string> createdRoots_;     // absolute, outermost first
    std::vector<FileSegments> createdFolders_;  // below the destination, parents first
    std::set<FileSegments> freshFolders_;       // made by this object, the destination included
    std::vector<StagedFile> staged_;
    std::set<std::string> filePaths_;    // ASCII-lowercased, for clash checks
    std::set<std::string> folderPaths_;  // ASCII-lowercased
    UniqueFd root_;
    // Every folder opened so far, by its path below the destination, so
    // that parts spread over many folders cost one openat() per folder
    // rather than one per path component per part. Bounded by
    // kMaxCachedFolders; past that the cache starts afresh.
    static constexpr std::size_t kMaxCachedFolders = 512;
    std::map<FileSegments, UniqueFd> folders_;
    bool committed_ = false;
};

}  // namespace opc::detail
