#pragma once

// Reading and checking a ZIP file's directory straight from its bytes: the
// one reader of the container's structure, which refuses the files only
// an attack needs before any entry is read.

#include <cstdint>
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
};

// Reads the end records, the central directory and every local header of
// the file open as `fd` (of `fileSize` bytes) with positioned reads and
// checks them (see ZipPhysicalPackage). Throws opc::Exception.
ZipDirectory readZipDirectory(int fd, std::uint64_t fileSize, const ZipLimits& limits);

}  // namespace opc::zippackage
