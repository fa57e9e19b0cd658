#pragma once

// The one way extraction and recovery reach a folder below a root: one
// component at a time with O_NOFOLLOW when folders may have to be made,
// openat2(RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS) when only looking, and
// each folder opened once. A symbolic link on the way is never followed:
// a path through one is an error.

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "platform/extract/ExtractionPaths.hpp"
#include "platform/extract/FileOps.hpp"

namespace opc::detail {

class FolderCache {
  public:
    // `root` stays the caller's.
    FolderCache(const FileOps& ops, int root) : ops_(ops), root_(root) {}

    // The open folder `folder` below the root. Missing components are made
    // when `created` is given (each one made is appended, parents first);
    // otherwise a missing one gives -1. Throws opc::Exception when a
    // component is not a folder or cannot be opened or made.
    int open(const FileSegments& folder, std::vector<FileSegments>* created);
    // open(), with the folder kept open for as long as the caller holds
    // the second half, even when the cache starts afresh meanwhile (null
    // for the root, which is the caller's anyway).
    using Held = std::pair<int, std::shared_ptr<const OpsFd>>;
    Held hold(const FileSegments& folder, std::vector<FileSegments>* created);

    // After `folder` was removed, or anything moved below the root.
    void forget(const FileSegments& folder) { folders_.erase(folder); }
    void clear() { folders_.clear(); }

  private:
    int lookUp(int parent, const FileSegments& folder, std::size_t depth);
    int keep(const FileSegments& folder, OpsFd fd);
    int walk(int parent, const FileSegments& folder, std::size_t depth,
             std::vector<FileSegments>* created);

    // Bounded; past that the cache starts afresh.
    static constexpr std::size_t kMaxCached = 512;

    const FileOps& ops_;
    int root_;
    std::map<FileSegments, std::shared_ptr<const OpsFd>> folders_;
};

}  // namespace opc::detail
