#pragma once

// How an extraction proves that a staging folder is its own.
//
// Recovery acts on what it finds in staging folders: it moves files into
// the destination and deletes others. A package can hold files of any
// name, and so can a folder that someone else may write to, so a name
// proves nothing. Every staging folder therefore carries a stamp, written
// right after the folder was made exclusively, which binds it to this very
// folder and to the folder holding it: the user, the device and inode of
// both, the staging folder's birth time where the file system keeps one,
// and a random token. A package author cannot know the inode numbers and
// birth time the folder will get on someone else's machine; another user
// cannot write into the folder (mode 0700, or no write for others where a
// new destination is staged) nor make a stamp that is owned by us. The
// journal repeats the token, so a journal is only ever read from the
// folder whose stamp it matches.

#include <string>

#include "platform/extract/FileOps.hpp"

namespace opc::detail {

// The stamp's file name. It begins like every name the extractor keeps
// for itself, so no part can take it (see isReservedPartName()).
inline const char kStampName[] = ".~tsapp-owner";

// Writes the stamp into `staging`, a folder just made inside `holder`;
// returns its token. Throws opc::Exception naming `what` when that fails.
std::string writeStamp(const FileOps& ops, int holder, int staging, const std::string& what);

// The token of the stamp in `staging` (a folder inside `holder`, opened
// without following links) when both are this user's, the folder is not
// writable by others and the stamp binds to exactly these folders; else
// empty, with `why` saying what does not hold.
std::string provenToken(const FileOps& ops, int holder, int staging, std::string& why);

// True when `folder` holds a stamp that binds to `folder` itself: what a
// new destination keeps of its staging folder if the process dies between
// renaming it into place and removing the stamp.
bool holdsOwnStamp(const FileOps& ops, int folder);

// Reads the whole file `name` in `dir` when it is a regular file of this
// user's with one link, no access for others and at most `limit` bytes;
// else false, with `why` saying what does not hold (kMissing when there is
// no such file).
inline const char kMissing[] = "is missing";
bool readOwnFile(const FileOps& ops, int dir, const char* name, std::size_t limit,
                 std::string& text, std::string& why);

}  // namespace opc::detail
