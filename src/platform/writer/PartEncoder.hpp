#pragma once

// Turning a part's bytes into a ZIP entry's: SHA-256 (for the digest list),
// CRC-32 and deflate in one pass over bytes read once. Parts up to
// kWholePartBytes are read whole and deflated with libdeflate, several at a
// time; larger ones are streamed through zlib in bounded pieces, so a file
// of any size costs a few megabytes.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/writer/ZipOutput.hpp"

struct libdeflate_compressor;

namespace opc::zippackage::detail {

inline constexpr std::uint64_t kWholePartBytes = 16u << 20;

struct EncodedPart {
    std::vector<unsigned char> data;  // the entry's bytes
    bool deflated = false;
    std::uint32_t crc = 0;
    std::uint64_t size = 0;
    std::string sha256;
};

// One per thread: a compressor keeps its state between calls.
class PartEncoder {
  public:
    PartEncoder();

    // Deflated only when that makes the bytes smaller, as zip does.
    EncodedPart encode(std::vector<unsigned char> bytes, bool deflate);

  private:
    struct FreeCompressor {
        void operator()(libdeflate_compressor* compressor) const;
    };
    std::unique_ptr<libdeflate_compressor, FreeCompressor> compressor_;
};

// The whole of a regular file that had `expectedSize` bytes when the
// package was planned; throws opc::Exception when it cannot be read or no
// longer has that size.
std::vector<unsigned char> readWholeFile(const std::string& path, std::uint64_t expectedSize);

// Writes a regular file as a streamed entry of `out`, reporting each piece's
// source bytes to `progress`; returns its SHA-256.
std::string streamFile(const std::string& path, const std::string& entryName, bool deflate,
                       std::uint64_t expectedSize, ZipOutput& out,
                       const std::function<void(std::uint64_t)>& progress);

}  // namespace opc::zippackage::detail
