#include "platform/zip/EntryDecoder.hpp"

#include <libdeflate.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

[[noreturn]] void fail(const std::string& name, const std::string& why,
                       Reason reason = Reason::DamagedEntry) {
    throw Exception(reason, "cannot extract \"" + name + "\": " + why);
}

void readExactly(InputStream& raw, unsigned char* buffer, std::size_t size,
                 const std::string& name) {
    std::size_t done = 0;
    while (done < size) {
        const std::size_t got = raw.read(buffer + done, size - done);
        if (got == 0) fail(name, "the archive ends inside the entry's data");
        done += got;
    }
}

void checkCrc(std::uint32_t actual, const EntryFacts& facts, const std::string& name) {
    if (actual != facts.crc32) fail(name, "CRC-32 mismatch, the data is corrupt");
}

// Owns a zlib inflate stream for raw DEFLATE data.
class RawInflater {
  public:
    explicit RawInflater(const std::string& name) {
        std::memset(&stream_, 0, sizeof stream_);
        if (inflateInit2(&stream_, -MAX_WBITS) != Z_OK) fail(name, "cannot start the decompressor");
    }
    ~RawInflater() { inflateEnd(&stream_); }
    RawInflater(const RawInflater&) = delete;
    RawInflater& operator=(const RawInflater&) = delete;
    z_stream& stream() { return stream_; }

  private:
    z_stream stream_;
};

}  // namespace

void writeFully(int fd, const unsigned char* data, std::size_t size, const std::string& name) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            fail(name, std::string("cannot write the file: ") + std::strerror(errno),
                 Reason::CannotWrite);
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

void EntryDecoder::DecompressorDeleter::operator()(libdeflate_decompressor* d) const {
    libdeflate_free_decompressor(d);
}

void EntryDecoder::Buffer::Free::operator()(unsigned char* bytes) const {
    std::free(bytes);
}

unsigned char* EntryDecoder::Buffer::reserve(std::size_t size) {
    if (size == 0) size = 1;
    if (size <= capacity) return bytes.get();
    // Grown in steps, so a run of ever larger entries reallocates a few
    // times rather than once per entry.
    std::size_t wanted = std::max(size, std::min<std::size_t>(capacity * 2, kWholeEntryLimit));
    void* memory = nullptr;
    if (wanted < kHugePage) {
        memory = std::malloc(wanted);
        if (memory == nullptr) throw std::bad_alloc();
    } else {
        wanted = (wanted + kHugePage - 1) / kHugePage * kHugePage;
        if (::posix_memalign(&memory, kHugePage, wanted) != 0) throw std::bad_alloc();
        // Every page of a large buffer is touched once per large entry. In
        // 4 KiB pages that is thousands of page faults per extraction, which
        // cost more than the copying itself on a virtual machine; huge pages
        // take a few. Where the kernel offers none the hint is ignored.
        ::madvise(memory, wanted, MADV_HUGEPAGE);
    }
    bytes.reset(static_cast<unsigned char*>(memory));  // not zero-filled: written before read
    capacity = wanted;
    return bytes.get();
}

EntryDecoder::EntryDecoder(std::uint64_t wholeEntryLimit)
    : decompressor_(libdeflate_alloc_decompressor()), wholeEntryLimit_(wholeEntryLimit) {
    if (!decompressor_) throw std::bad_alloc();
}

EntryDecoder::~EntryDecoder() = default;

void EntryDecoder::decodeTo(const EntryFacts& facts, InputStream& raw, int fd,
                            const std::string& name) {
    switch (facts.method) {
        case 0:
            copyStored(facts, raw, fd, name);
            return;
        case 8:
            if (facts.size <= wholeEntryLimit_ && facts.compressedSize <= wholeEntryLimit_)
                inflateWhole(facts, raw, fd, name);
            else
                inflateStreaming(facts, raw, fd, name);
            return;
        default:
            fail(name, "compression method " + std::to_string(facts.method) + " is not supported");
    }
}

void EntryDecoder::copyStored(const EntryFacts& facts, InputStream& raw, int fd,
                              const std::string& name) {
    if (facts.compressedSize != facts.size) fail(name, "stored entry with two different sizes");
    unsigned char* chunk = in_.reserve(kChunk);
    std::uint64_t left = facts.size;
    std::uint32_t crc = 0;
    while (left > 0) {
        const std::size_t size = left < kChunk ? static_cast<std::size_t>(left) : kChunk;
        readExactly(raw, chunk, size, name);
        crc = libdeflate_crc32(crc, chunk, size);
        writeFully(fd, chunk, size, name);
        left -= size;
    }
    checkCrc(crc, facts, name);
}

void EntryDecoder::inflateWhole(const EntryFacts& facts, InputStream& raw, int fd,
                                const std::string& name) {
    const auto inSize = static_cast<std::size_t>(facts.compressedSize);
    const auto outSize = static_cast<std::size_t>(facts.size);
    unsigned char* in = in_.reserve(inSize);
    unsigned char* out = out_.reserve(outSize);
    readExactly(raw, in, inSize, name);
    std::size_t produced = 0;
    switch (
        libdeflate_deflate_decompress(decompressor_.get(), in, inSize, out, outSize, &produced)) {
        case LIBDEFLATE_SUCCESS:
            break;
        case LIBDEFLATE_INSUFFICIENT_SPACE:
            fail(name, "the data decodes to more bytes than the archive declares");
        default:
            fail(name, "the compressed data is corrupt");
    }
    if (produced != outSize)
        fail(name, "the data decodes to fewer bytes than the archive declares");
    checkCrc(libdeflate_crc32(0, out, outSize), facts, name);
    writeFully(fd, out, outSize, name);
}

void EntryDecoder::inflateStreaming(const EntryFacts& facts, InputStream& raw, int fd,
                                    const std::string& name) {
    unsigned char* in = in_.reserve(kChunk);
    unsigned char* out = out_.reserve(kChunk);
    RawInflater inflater(name);
    z_stream& z = inflater.stream();
    std::uint64_t inLeft = facts.compressedSize;
    std::uint64_t produced = 0;
    std::uint32_t crc = 0;
    int status = Z_OK;
    while (status != Z_STREAM_END) {
        if (z.avail_in == 0) {
            if (inLeft == 0) fail(name, "the compressed data ends too early");
            const std::size_t size = inLeft < kChunk ? static_cast<std::size_t>(inLeft) : kChunk;
            readExactly(raw, in, size, name);
            inLeft -= size;
            z.next_in = in;
            z.avail_in = static_cast<uInt>(size);
        }
        z.next_out = out;
        z.avail_out = static_cast<uInt>(kChunk);
        status = inflate(&z, Z_NO_FLUSH);
        if (status != Z_OK && status != Z_STREAM_END) fail(name, "the compressed data is corrupt");
        const std::size_t size = kChunk - z.avail_out;
        produced += size;
        if (produced > facts.size)
            fail(name, "the data decodes to more bytes than the archive declares");
        crc = libdeflate_crc32(crc, out, size);
        writeFully(fd, out, size, name);
    }
    if (produced != facts.size)
        fail(name, "the data decodes to fewer bytes than the archive declares");
    checkCrc(crc, facts, name);
}

}  // namespace opc::detail
