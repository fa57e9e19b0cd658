#pragma once

// Decodes one ZIP entry's stored bytes into a file, checking that exactly
// the declared number of bytes comes out and that their CRC-32 matches.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tsappinstall/platform/opc/Streams.hpp"

namespace opc::detail {

// What the central directory says about an entry.
struct EntryFacts {
    std::uint16_t method = 0;  // 0 stored, 8 DEFLATE
    std::uint64_t size = 0;    // uncompressed
    std::uint64_t compressedSize = 0;
    std::uint32_t crc32 = 0;
};

// Reused across the entries of one extraction: two fixed chunks. Deflated
// entries are streamed through ISA-L (see Inflater), which here inflates
// faster than libdeflate does in one call (about 1,000 against 760 MB/s of
// output on the benchmark packages) and needs no buffer of the entry's
// size, so memory stays flat whatever the package declares.
class EntryDecoder {
  public:
    static constexpr std::size_t kChunk = 256u << 10;

    EntryDecoder();
    ~EntryDecoder();
    EntryDecoder(const EntryDecoder&) = delete;
    EntryDecoder& operator=(const EntryDecoder&) = delete;

    // Reads the entry's raw bytes (compressed, as stored in the archive)
    // from `raw` and writes the decoded bytes to `fd`. Throws
    // opc::Exception, naming `name`, when the data is corrupt, decodes to
    // more or fewer bytes than declared, fails its CRC-32, uses a method
    // other than stored or DEFLATE, or cannot be written. `tap`, when set,
    // sees each decoded chunk once it is written.
    using Tap = std::function<void(const unsigned char* data, std::size_t size)>;
    void decodeTo(const EntryFacts& facts, InputStream& raw, int fd, const std::string& name,
                  const Tap& tap = {});

  private:
    void copyStored(const EntryFacts& facts, InputStream& raw, int fd, const std::string& name,
                    const Tap& tap);
    void inflate(const EntryFacts& facts, InputStream& raw, int fd, const std::string& name,
                 const Tap& tap);

    std::unique_ptr<unsigned char[]> in_;
    std::unique_ptr<unsigned char[]> out_;
};

// Writes all of `data` to `fd`, retrying short writes and EINTR.
void writeFully(int fd, const unsigned char* data, std::size_t size, const std::string& name);

}  // namespace opc::detail
