#include "platform/zip/EntryDecoder.hpp"

#include <libdeflate.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/zip/Inflater.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

[[noreturn]] void fail(const std::string& name, const std::string& why) {
    throw Exception("cannot extract \"" + name + "\": " + why);
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

}  // namespace

void writeFully(int fd, const unsigned char* data, std::size_t size, const std::string& name) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            fail(name, std::string("cannot write the file: ") + std::strerror(errno));
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
    unsigned char* out = out_.reserve(kChunk);
    Inflater inflater(raw, facts.compressedSize, in_.reserve(kChunk), kChunk,
                      "cannot extract \"" + name + "\": ");
    std::uint64_t produced = 0;
    for (std::size_t size; (size = inflater.read(out, kChunk)) > 0;) {
        produced += size;
        if (produced > facts.size)
            fail(name, "the data decodes to more bytes than the archive declares");
        writeFully(fd, out, size, name);
    }
    if (produced != facts.size)
        fail(name, "the data decodes to fewer bytes than the archive declares");
    checkCrc(inflater.crc32(), facts, name);
}

}  // namespace opc::detail
