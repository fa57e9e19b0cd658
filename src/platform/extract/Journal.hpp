#pragma once

// The staging folders an extraction leaves while it runs, and what is done
// with those of extractions that died.
//
// An extraction into a new folder stages the whole tree in a folder beside
// it, ".~tsapp-<pid>-<n>-<name>", and renames that into place. One into an
// existing folder stages its files flat inside it, ".~tsapp-<pid>-<n>/n<i>"
// (mode 0700); before the first rename it writes the journal "journal"
// there, naming the folders it will create and every file it will move;
// the old file a new one replaces is moved to "o<i>" first. Every staging
// folder carries a stamp (StagingStamp.hpp) and the journal repeats its
// token: recovery touches nothing that does not prove itself this way.
// The running extraction holds flock() on its staging folder, so a staging
// folder that can be locked belongs to a process that is gone.

#include <string>
#include <vector>

#include "platform/base/UniqueFd.hpp"
#include "platform/extract/ExtractionPaths.hpp"
#include "platform/extract/FileOps.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"

namespace opc::detail {

inline const char kJournal[] = "journal";
// The journal renamed when a failed commit starts undoing itself: the
// files are then to be put back as they were rather than completed.
inline const char kUndoJournal[] = "undo";

struct JournalEntry {
    bool folder = false;   // a folder the commit creates, parents first
    bool existed = false;  // a file: something was at its path before
    std::string path;      // below the destination, "a/b/c"
};

std::string stagedName(std::size_t index);  // "n<i>"
std::string asideName(std::size_t index);   // "o<i>"

// A fresh staging folder name: inside the destination when `beside` is
// empty, else beside it for the destination named `beside`.
std::string stagingFolderName(const std::string& beside);

// The journal's text, bound to the staging folder's stamp by `token`.
// Throws opc::Exception when it would be larger than recovery reads.
std::string encodeJournal(const std::string& token, const std::vector<JournalEntry>& entries);

// Removes the folder `name` below `parent` and everything in it, without
// following links. True when it is gone.
bool removeTree(const FileOps& ops, int parent, const std::string& name);

// Opens `folder` below `root` one component at a time with O_NOFOLLOW.
// Missing components are created when `created` is given (each one made
// is appended); otherwise a missing one gives an invalid descriptor.
// Throws opc::Exception when a component is not a folder.
UniqueFd openFolderBelow(const FileOps& ops, int root, const FileSegments& folder,
                         std::vector<FileSegments>* created);

// Repairs and removes the staging folders of dead extractions into the
// folder `name` below `parent` (an open descriptor, or -1 when the parent
// cannot be read) whose own descriptor is `destination` (or -1 while it
// does not exist). `path` is its absolute path, for messages. With
// `discardUnreadable`, a staging folder of ours whose journal cannot be
// read is removed instead of reported.
void recoverDestination(const FileOps& ops, int parent, int destination, const std::string& path,
                        const std::string& name, bool discardUnreadable, extraction::Recovery& out);

}  // namespace opc::detail
