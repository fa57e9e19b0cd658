#pragma once

// Streaming raw-DEFLATE decoding over ISA-L, which keeps only a 32 KiB
// window and inflates faster than zlib (docs/decisions.md has the figures).

#include <cstdint>
#include <memory>
#include <string>

#include "tsappinstall/platform/opc/Streams.hpp"

struct inflate_state;

namespace opc::detail {

// Inflates the `compressedSize` bytes that `raw` yields, pulling them into
// the caller's `chunk` as needed, and keeps the CRC-32 of what comes out.
// Errors throw opc::Exception, the text starting with `prefix`.
class Inflater {
  public:
    Inflater(InputStream& raw, std::uint64_t compressedSize, unsigned char* chunk,
             std::size_t chunkSize, std::string prefix);
    ~Inflater();
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    // Fills `out` with up to `size` decoded bytes; 0 only once the DEFLATE
    // stream has ended (or `size` is 0). Data that stops before the end of
    // the stream, or is not DEFLATE, throws.
    std::size_t read(unsigned char* out, std::size_t size);
    std::uint32_t crc32() const;

  private:
    [[noreturn]] void fail(const std::string& why) const;
    void refill();

    struct StateDeleter {
        void operator()(inflate_state* state) const;
    };
    std::unique_ptr<inflate_state, StateDeleter> state_;
    InputStream& raw_;
    std::uint64_t inLeft_;
    unsigned char* chunk_;
    std::size_t chunkSize_;
    std::string prefix_;
};

}  // namespace opc::detail
