#pragma once

// Turning a part's bytes into a ZIP entry's: SHA-256 (for the digest list),
// CRC-32 and deflate in one pass over bytes read once. Parts up to
// kWholePartBytes are read whole and deflated with libdeflate, several at a
// time. Larger files are cut into pieces of kPieceBytes that are deflated
// on every core like small parts and joined in order into one deflate
// stream, so a file of any size costs a few megabytes and is not left to
// one thread.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct libdeflate_compressor;

namespace opc::zippackage::detail {

inline constexpr std::uint64_t kWholePartBytes = 16u << 20;
// Piece boundaries are fixed, never derived from the thread count, so the
// package's bytes do not depend on it.
inline constexpr std::uint64_t kPieceBytes = 1u << 20;

struct EncodedPart {
    std::vector<unsigned char> data;  // the entry's bytes
    bool deflated = false;
    std::uint32_t crc = 0;
    std::uint64_t size = 0;
    std::string sha256;  // empty for a piece: the writer hashes pieces in order
    // A deflated piece's own bytes, which that hash needs; a stored
    // piece's are `data`.
    std::vector<unsigned char> source;
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

// The piece of a regular file of `fileSize` bytes that starts at `offset`
// (a multiple of kPieceBytes), deflated (raw, for ZIP) so that the pieces'
// data joined in order is one deflate stream of the whole file: the last
// 32 KiB before the piece are its dictionary, and every piece but the last
// ends on a byte boundary with an unfinished block. Throws opc::Exception
// when the file cannot be read or no longer has that size.
EncodedPart encodePiece(const std::string& path, std::uint64_t fileSize, std::uint64_t offset,
                        bool deflate);

}  // namespace opc::zippackage::detail
