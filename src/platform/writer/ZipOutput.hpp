#pragma once

// The ZIP container as the package writer lays it out: entries one after
// the other, never seeking back, then the central directory. Because the
// file is written front to back, its SHA-256 is taken from the bytes as
// they go out and the file is never read again for it.

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "platform/base/UniqueFd.hpp"
#include "tsappinstall/integrity/Digests.hpp"

namespace opc::zippackage::detail {

// What the central directory records of one entry.
struct ZipEntryRecord {
    std::string name;
    bool deflated = false;
    bool descriptor = false;  // sizes and CRC-32 follow the data
    std::uint32_t crc = 0;
    std::uint64_t compressedSize = 0;
    std::uint64_t size = 0;
    std::uint64_t offset = 0;
};

class ZipOutput {
  public:
    // Writes to `fd`, which must be empty; every entry gets `when` as its
    // time, in UTC, so the bytes do not depend on the machine's time zone.
    ZipOutput(int fd, std::string path, std::time_t when);

    // An entry whose bytes, CRC-32 and size are known.
    void addEntry(const std::string& name, bool deflated, std::uint32_t crc, std::uint64_t size,
                  const unsigned char* data, std::size_t compressedSize);

    // An entry whose data is written in pieces, its sizes and CRC-32 in a
    // descriptor after them. `sizeHint` (the source file's size) decides
    // whether the local header needs ZIP64 room.
    void beginStreamedEntry(const std::string& name, bool deflated, std::uint64_t sizeHint);
    void writeStreamedData(const unsigned char* data, std::size_t size);
    void endStreamedEntry(std::uint32_t crc, std::uint64_t size);

    // Writes the central directory and the end records, flushes, and
    // returns the file's SHA-256 (64 hex digits).
    std::string finish();
    std::uint64_t size() const { return offset_; }

  private:
    void localHeader(const ZipEntryRecord& entry, bool zip64);
    void centralHeader(const ZipEntryRecord& entry);
    void endRecords(std::uint64_t directoryOffset, std::uint64_t directorySize);
    void write(const void* data, std::size_t size);
    void flush();
    void writeAll(const unsigned char* data, std::size_t size);

    int fd_;
    std::string path_;
    std::uint16_t dosTime_ = 0, dosDate_ = 0;
    std::vector<ZipEntryRecord> entries_;
    std::vector<unsigned char> buffer_;
    std::uint64_t offset_ = 0;
    std::uint64_t streamedFrom_ = 0;  // where the open streamed entry's data began
    bool streamedZip64_ = false;      // ... and whether its sizes take 64 bits
    tsappinstall::integrity::Sha256 sha_;
};

}  // namespace opc::zippackage::detail
