#pragma once

// Unpacks an open package into a folder.

#include <cstdint>
#include <functional>
#include <string>

#include "tsappinstall/export.hpp"

namespace opc {

namespace model {
class Package;
}
namespace detail {
class FileOps;
}

// Selects the file-system operations the manager uses. The default (and,
// on Linux, only) selection is the process's own POSIX calls, used through
// openat() and friends relative to the destination folder.
class TSAPP_API FileSystemOpsSelector {
  public:
    FileSystemOpsSelector() = default;
    // Other operations, for the library's own fault-injection tests; they
    // must outlive every manager built with this selector.
    explicit FileSystemOpsSelector(const detail::FileOps* ops) : ops_(ops) {}
    const detail::FileOps* ops() const { return ops_; }

  private:
    const detail::FileOps* ops_ = nullptr;
};

namespace qvservices {

// Which parts become files.
enum class RestoreMode : int {
    ContentParts = 0,  // every part except relationship parts (".../_rels/*.rels")
    AllParts = 1,      // every part, relationship parts included
};

// How a part name becomes a file path below the folder.
enum class TransformMode : int {
    KeepEscapes = 0,    // segments as written in the name: "/a%20b" gives "a%20b"
    PercentDecode = 1,  // percent-decoded to UTF-8: "/a%20b" gives "a b"
};

// What happens to a file that already exists where a part goes.
enum class ReplaceMode : int {
    Replace = 0,       // it is replaced (a symbolic link is replaced, not followed)
    FailIfExists = 1,  // the extraction fails before anything is written
};

// extractAll() writes the chosen parts as regular files below the folder,
// creating the folder and sub-folders as needed. "[Content_Types].xml" is
// not a part and is never written.
//
// All or nothing: every part is first written into a staging folder and
// checked (size and CRC-32); only when every part succeeded are they
// renamed into place (a new folder in one rename). When anything fails,
// the staging folder and every folder the call created are removed,
// replaced files get their old contents back, and the folder holds exactly
// what it held before. A crash leaves a staging folder that the next
// extraction into the same folder completes or removes first (see
// tsappinstall/platform/extract/Extraction.hpp, which also offers a size
// limit, durability and cancellation).
//
// Never outside the folder: part names are checked again as file paths;
// every folder below the destination is opened with O_NOFOLLOW, so a
// symbolic link already inside the destination is never followed (a path
// through one is an error); files get mode 0666 less the umask whatever the
// archive says; a part whose path is taken by a folder, or two parts whose
// paths differ only in ASCII case, are errors. No entry yields more bytes
// than it declares, and each is checked against its CRC-32 before it is
// placed. Memory stays flat: every entry is streamed. No part may take a
// name the extractor reserves for its own state (see
// opc::extraction::isReservedPartName()).
//
// Enumerator values outside those declared throw opc::Exception; so does
// every failure, with a text that names the part or folder concerned, and
// so does a package whose parts add up to more than the free space of the
// destination's file system (checked before the first byte is written).
class TSAPP_API FileSystemManager {
  public:
    // Called after each part with the bytes and parts written so far and the
    // totals, for callers that show progress.
    using Progress = std::function<void(std::uint64_t bytesDone, std::uint64_t bytesTotal,
                                        std::size_t partsDone, std::size_t partsTotal)>;

    FileSystemManager(opc::model::Package& package, const FileSystemOpsSelector& selector);
    ~FileSystemManager();
    FileSystemManager(const FileSystemManager&) = delete;
    FileSystemManager& operator=(const FileSystemManager&) = delete;

    void setProgress(Progress progress);

    // `folder` is an absolute path.
    void extractAll(const std::u16string& folder, RestoreMode restore, TransformMode transform,
                    ReplaceMode replace);

  private:
    opc::model::Package& package_;
    const detail::FileOps* ops_;
    Progress progress_;
};

}  // namespace qvservices
}  // namespace opc
