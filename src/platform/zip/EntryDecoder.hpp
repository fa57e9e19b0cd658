#pragma once

// Decodes one ZIP entry's stored bytes into a file, checking that exactly
// the declared number of bytes comes out and that their CRC-32 matches.

#include <cstdint>
#include <memory>
#include <string>

#include "tsappinstall/platform/opc/Streams.hpp"

struct libdeflate_decompressor;

namespace opc::detail {

// What the central directory says about an entry.
struct EntryFacts {
    std::uint16_t method = 0;  // 0 stored, 8 DEFLATE
    std::uint64_t size = 0;    // uncompressed
    std::uint64_t compressedSize = 0;
    std::uint32_t crc32 = 0;
};

// Reused across the entries of one extraction: one decompressor and two
// buffers that only ever grow up to kWholeEntryLimit. Entries up to that
// size are inflated in one call with libdeflate; larger ones are streamed
// through ISA-L (see Inflater) in fixed chunks, so memory stays flat
// whatever the package declares.
class EntryDecoder {
  public:
    static constexpr std::uint64_t kWholeEntryLimit = 16u << 20;
    static constexpr std::size_t kChunk = 256u << 10;
    // Buffers this large or larger are allocated in whole, aligned huge pages.
    static constexpr std::size_t kHugePage = 2u << 20;

    // `wholeEntryLimit` only exists so that tests can reach the streaming
    // path with small data.
    explicit EntryDecoder(std::uint64_t wholeEntryLimit = kWholeEntryLimit);
    ~EntryDecoder();
    EntryDecoder(const EntryDecoder&) = delete;
    EntryDecoder& operator=(const EntryDecoder&) = delete;

    // Reads the entry's raw bytes (compressed, as stored in the archive)
    // from `raw` and writes the decoded bytes to `fd`. Throws
    // opc::Exception, naming `name`, when the data is corrupt, decodes to
    // more or fewer bytes than declared, fails its CRC-32, uses a method
    // other than stored or DEFLATE, or cannot be written.
    void decodeTo(const EntryFacts& facts, InputStream& raw, int fd, const std::string& name);

  private:
    struct Buffer {
        struct Free {
            void operator()(unsigned char* bytes) const;
        };
        std::unique_ptr<unsigned char, Free> bytes;
        std::size_t capacity = 0;
        unsigned char* reserve(std::size_t size);
    };

    void copyStored(const EntryFacts& facts, InputStream& raw, int fd, const std::string& name);
    void inflateWhole(const EntryFacts& facts, InputStream& raw, int fd, const std::string& name);
    void inflateStreaming(const EntryFacts& facts, InputStream& raw, int fd,
                          const std::string& name);

    struct DecompressorDeleter {
        void operator()(libdeflate_decompressor* d) const;
    };
    std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> decompressor_;
    std::uint64_t wholeEntryLimit_;
    Buffer in_;
    Buffer out_;
};

// Writes all of `data` to `fd`, retrying short writes and EINTR.
void writeFully(int fd, const unsigned char* data, std::size_t size, const std::string& name);

}  // namespace opc::detail
