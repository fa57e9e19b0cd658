#pragma once

// Reading and checking a ZIP file's directory straight from its bytes: the
// one reader of the container's structure, which refuses the files only
// an attack needs before any entry is read.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tsappinstall/platform/opc/IPhysicalPackage.hpp"

namespace opc::zippackage {

struct ZipLimits {
    std::uint64_t maxEntries;
    std::uint64_t maxCentralDirectoryBytes;
    std::uint64_t maxDeflateRatio;
};

struct ZipDirectory {
    std::vector<opc::interfaces::PhysicalEntry> entries;  // in directory order
    std::vector<std::string> warnings;  // what was tolerated: bytes after the end record
    std::uint64_t directoryOffset = 0;  // where the central directory begins
    std::uint64_t directorySize = 0;
};

// Puts `count` bytes of the file from `offset` into `into`, or throws.
using ByteSource =
    std::function<void(std::uint64_t offset, unsigned char* into, std::size_t count)>;

// Reads the end records, the central directory and every local header of
// the file open as `fd` (of `fileSize` bytes) with positioned reads and
// checks them (see ZipPhysicalPackage). The headers of the entries named
// in `leftOut` are not read: their dataOffset stays 0 and each takes at
// least its fixed header, its name and its stored bytes, as in
// readCentralDirectory. Throws opc::Exception.
ZipDirectory readZipDirectory(int fd, std::uint64_t fileSize, const ZipLimits& limits,
                              const std::set<std::string>& leftOut = {});

// The end records and the central directory alone, of a file known by its
// size and read through `source` (a client that fetches a package's tail
// rather than holding the file), checked as readZipDirectory checks them
// except for the local headers, which are not read: each entry's
// dataOffset stays 0. Entries that could not fit where they begin, given
// their names and stored sizes, are refused as overlapping.
ZipDirectory readCentralDirectory(const ByteSource& source, std::uint64_t fileSize,
                                  const ZipLimits& limits);

}  // namespace opc::zippackage
