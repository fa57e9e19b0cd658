#include "platform/zip/Inflater.hpp"

#include <isa-l/igzip_lib.h>

#include <new>

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {

void Inflater::StateDeleter::operator()(inflate_state* state) const {
    delete state;
}

Inflater::Inflater(InputStream& raw, std::uint64_t compressedSize, unsigned char* chunk,
                   std::size_t chunkSize, std::string prefix)
    : state_(new inflate_state),
      raw_(raw),
      inLeft_(compressedSize),
      chunk_(chunk),
      chunkSize_(chunkSize),
      prefix_(std::move(prefix)) {
    isal_inflate_init(state_.get());
    state_->crc_flag = ISAL_GZIP_NO_HDR;  // raw DEFLATE, CRC-32 of the output kept
}

Inflater::~Inflater() = default;

void Inflater::fail(const std::string& why) const {
    throw opc::Exception(prefix_ + why);
}

void Inflater::refill() {
    const std::size_t size = inLeft_ < chunkSize_ ? static_cast<std::size_t>(inLeft_) : chunkSize_;
    std::size_t done = 0;
    while (done < size) {
        const std::size_t got = raw_.read(chunk_ + done, size - done);
        if (got == 0) fail("the archive ends inside the entry's data");
        done += got;
    }
    inLeft_ -= size;
    state_->next_in = chunk_;
    state_->avail_in = static_cast<std::uint32_t>(size);
}

std::size_t Inflater::read(unsigned char* out, std::size_t size) {
    inflate_state& z = *state_;
    const std::uint32_t wanted = size < UINT32_MAX ? static_cast<std::uint32_t>(size) : UINT32_MAX;
    z.next_out = out;
    z.avail_out = wanted;
    while (z.avail_out > 0 && z.block_state != ISAL_BLOCK_FINISH) {
        if (z.avail_in == 0 && inLeft_ > 0) refill();
        const std::uint32_t inBefore = z.avail_in;
        const std::uint32_t outBefore = z.avail_out;
        if (isal_inflate(&z) != ISAL_DECOMP_OK) fail("the compressed data is corrupt");
        // ISA-L holds back input it cannot decode yet, so a call that neither
        // consumed, produced nor finished has run out of data.
        if (z.avail_in == inBefore && z.avail_out == outBefore &&
            z.block_state != ISAL_BLOCK_FINISH) {
            fail(z.avail_in == 0 ? "the compressed data ends too early"
                                 : "the compressed data is corrupt");
        }
    }
    return wanted - z.avail_out;
}

std::uint32_t Inflater::crc32() const {
    return state_->crc;
}

}  // namespace opc::detail
