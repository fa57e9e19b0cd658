#pragma once

// The staging folders an extraction leaves while it runs, and the journal
// that says how to finish or undo one whose process died.
//
// An extraction into a new folder stages the whole tree in a folder beside
// it, ".~tsapp-<pid>-<n>-<name>", and renames that into place. One into an
// existing folder stages its files flat inside it, ".~tsapp-<pid>-<n>/n<i>"
// (mode 0700); before the first rename it writes the journal "journal"
// there, naming the folders it will create and every file it will move;
// the old file a new one replaces is moved to "o<i>" first (Commit.hpp).
// Every staging folder carries a stamp (StagingStamp.hpp) and the journal
// repeats its token: recovery (Recovery.hpp) touches nothing that does not
// prove itself this way. The running extraction holds flock() on its
// staging folder, so a staging folder that can be locked belongs to a
// process that is gone.

#include <string>
#include <vector>

#include "platform/extract/ExtractionPaths.hpp"
#include "platform/extract/FileOps.hpp"

namespace opc::detail {

inline const char kJournal[] = "journal";
// The journal renamed when a failed commit starts undoing itself: the
// files are then to be put back as they were rather than completed.
inline const char kUndoJournal[] = "undo";

struct JournalEntry {
    bool folder = false;   // a folder the commit creates, parents first
    bool existed = false;  // a file: something was at its path when staged
    std::string path;      // below the destination, "a/b/c"
};

struct Journal {
    bool refuseExisting = false;  // a file found in the way fails the commit
    std::vector<JournalEntry> entries;
};

std::string stagedName(std::size_t index);  // "n<i>"
std::string asideName(std::size_t index);   // "o<i>"

// A fresh staging folder name: inside the destination when `beside` is
// empty, else beside it for the destination named `beside`.
std::string stagingFolderName(const std::string& beside);
// Whether `name` is one stagingFolderName(beside) could have given.
bool isStagingName(const std::string& name, const std::string& beside);

// The journal's text, bound to the staging folder's stamp by `token`.
// Throws opc::Exception when it would be larger than recovery reads.
std::string encodeJournal(const std::string& token, const Journal& journal);

// Reads the journal of the staging folder `staging`, proven ours by
// `token`: false when it has none. Otherwise `forward` says whether to
// complete or undo, and `problem` is empty when the journal is whole and
// every path in it is a plain relative path below the destination.
bool readJournal(const FileOps& ops, int staging, const std::string& token, bool& forward,
                 Journal& journal, std::string& problem);

}  // namespace opc::detail
