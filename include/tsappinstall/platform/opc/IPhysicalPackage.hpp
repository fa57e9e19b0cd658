#pragma once

// The container under a package: a flat table of named entries whose bytes
// can be streamed. The package model (Package, Part) reads only through
// this interface.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace opc::interfaces {

// How a package is opened. Only reading exists: packages are written with
// opc::zippackage::PackageWriter, never modified in place.
enum class OpenMode : int {
    Read = 0,
};

// One entry of the container, as its directory describes it. Everything a
// consumer needs to copy the entry without decoding it is here: the
// compressed bytes (IPhysicalPackage::openRawEntry) together with the
// method, both sizes and the CRC-32 make a complete ZIP entry.
struct TSAPP_API PhysicalEntry {
    static constexpr std::uint16_t kStored = 0;
    static constexpr std::uint16_t kDeflated = 8;

    std::uint64_t index = 0;  // position in the container's directory
    std::string name;         // the item name as stored, without a leading "/"
    std::uint64_t size = 0;   // uncompressed size
    std::uint64_t compressedSize = 0;
    std::uint32_t crc32 = 0;  // of the uncompressed bytes
    std::uint16_t compressionMethod = kStored;
    std::uint16_t dosTime = 0;  // MS-DOS modification time and date
    std::uint16_t dosDate = 0;
    std::uint64_t localHeaderOffset = 0;
    std::uint64_t dataOffset = 0;  // first byte of the compressed data

    // Folder entries ("lib/") carry no part.
    bool isDirectory() const { return !name.empty() && name.back() == '/'; }
};

class TSAPP_API IPhysicalPackage {
  public:
    virtual ~IPhysicalPackage();

    // The directory, in the container's order; entry i has index i.
    virtual const std::vector<PhysicalEntry>& getEntries() const = 0;

    // The decoded bytes of entry `index`. The stream checks the declared size
    // and the CRC-32 as it reads: a mismatch throws opc::Exception from
    // read() (at the latest when the end is reached), so a consumer that
    // reads to the end never takes damaged bytes for good ones. The stream
    // must not outlive the physical package. `lent`, when given, is a
    // buffer of the caller's that the stream may use for stored bytes on
    // their way to the inflater, so that a reader of many entries reuses
    // one; it must outlive the stream and not be used meanwhile.
    virtual std::unique_ptr<InputStream> openEntry(std::uint64_t index,
                                                   std::vector<unsigned char>* lent = nullptr) = 0;

    // The entry's bytes exactly as stored (compressed when the method is
    // deflate). Their count is checked against compressedSize; the CRC-32
    // is left to the caller, who decodes them.
    virtual std::unique_ptr<InputStream> openRawEntry(std::uint64_t index) = 0;

    // Reads the entry's stored bytes once into memory; from then on
    // openEntry and openRawEntry of `index` serve those bytes (openEntry
    // still decodes them and checks size and CRC-32). Whoever parses or
    // verifies an entry pins it first, so that what is extracted later is
    // the very bytes that were checked, even if the file is rewritten in
    // between. Throws opc::Exception, before reading anything, when the
    // entry declares more than `maxSize` bytes or stores more than a
    // deflated `maxSize` can take; pinning a pinned entry does nothing.
    // Not to be called while another thread uses the package.
    virtual void pinEntry(std::uint64_t index, std::uint64_t maxSize) = 0;

    // Releases the container. Entries cannot be opened afterwards; streams
    // already handed out must have been destroyed.
    virtual void close() = 0;
};

}  // namespace opc::interfaces
