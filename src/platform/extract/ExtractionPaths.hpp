#pragma once

// Turns a part name into the file path it takes below an extraction folder.

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace opc::detail {

// The folder segments and file name of one part, each a single path
// component in the file system's bytes (UTF-8 for names that were
// percent-encoded UTF-8).
using FileSegments = std::vector<std::string>;

// Splits `partName` ("/lib/a%20b.js") into its segments, percent-decoding
// them when `decode` is true. Throws opc::Exception for anything that could
// not be a plain relative path: an empty, "." or ".." segment, a decoded "/"
// or NUL, a malformed escape, a segment longer than a file name may be, a
// name the extractor reserves for itself, or a whole path of PATH_MAX bytes
// or more.
// The package already refuses such part names; this is the last line of
// defence before a name reaches the file system.
FileSegments fileSegmentsFor(const std::string& partName, bool decode);

// joinSegments(fileSegmentsFor(partName, true)): the decoded relative path
// ("lib/a b.js"), refused alike.
std::string filePathFor(const std::string& partName);

// True for a file or folder name the extractor keeps for itself: every
// name that begins with ".~tsapp", in any ASCII case (so that a file
// system that ignores case cannot alias one either).
bool isReservedName(std::string_view segment);

// A destination folder as extraction and recovery take it: the absolute
// path without trailing separators, the folder that holds it and its name
// ("/" and "" for the root).
struct Destination {
    std::string path, parent, name;
};
// Throws opc::Exception when `path` is not absolute.
Destination splitDestination(const std::filesystem::path& path);

// "a/b/c" split at every "/", empty segments kept.
FileSegments splitPath(const std::string& path);

// "a/b/c" for diagnostics.
std::string joinSegments(const FileSegments& segments);

}  // namespace opc::detail
