#pragma once

// Moving staged files into an existing destination, and back, as a journal
// describes it. A running extraction and the recovery of a dead one call
// the same code: the run knows which staged files and old copies are in
// the staging folder, recovery lists it, and from there both go the same
// way.
//
// Each file's renames are ordered so that any single one that fails can be
// undone: the old file is moved into the staging folder ("o<i>") before the
// new one ("n<i>") takes its name.

#include <set>
#include <string>
#include <vector>

#include "platform/extract/FileOps.hpp"
#include "platform/extract/FolderCache.hpp"
#include "platform/extract/Journal.hpp"

namespace opc::detail {

class Commit {
  public:
    // `destination` reaches the destination's folders; `staging` is the
    // open staging folder, `stagingPath` its path for messages; `present`
    // the names in it now. All must outlive the commit.
    Commit(const FileOps& ops, FolderCache& destination, int staging, std::string stagingPath,
           const Journal& journal, std::set<std::string> present);

    // Moves every staged file still waiting into place. Throws
    // opc::Exception at the first that cannot be.
    void forward();

    // Removes the old copies once every file is in place; one line for
    // each that cannot be removed (tried twice).
    std::vector<std::string> dropOldCopies();

    // Puts back every old copy, removes every new file, then the new
    // folders; one line for each that cannot be.
    std::vector<std::string> back();

    // The files whose new version or old copy has moved so far.
    std::vector<std::string> touchedPaths() const;

  private:
    void place(std::size_t index, const JournalEntry& file);
    void moveOldAside(int folder, const std::string& name, std::size_t index,
                      const std::string& path);

    const FileOps& ops_;
    FolderCache& destination_;
    int staging_;
    std::string stagingPath_;
    const Journal& journal_;
    std::set<std::string> present_;
    // Files placed where nothing stood: whatever the journal says, undoing
    // removes them.
    std::set<std::size_t> placedFresh_;
};

}  // namespace opc::detail
