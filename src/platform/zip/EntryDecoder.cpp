#include "platform/zip/EntryDecoder.hpp"

#include <libdeflate.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/zip/Inflater.hpp"
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

EntryDecoder::EntryDecoder()
    : in_(std::make_unique<unsigned char[]>(kChunk)),
      out_(std::make_unique<unsigned char[]>(kChunk)) {}

EntryDecoder::~EntryDecoder() = default;

void EntryDecoder::decodeTo(const EntryFacts& facts, InputStream& raw, int fd,
                            const std::string& name, const Tap& tap) {
    switch (facts.method) {
        case 0:
            copyStored(facts, raw, fd, name, tap);
            return;
        case 8:
            inflate(facts, raw, fd, name, tap);
            return;
        default:
            fail(name, "compression method " + std::to_string(facts.method) + " is not supported");
    }
}

void EntryDecoder::copyStored(const EntryFacts& facts, InputStream& raw, int fd,
                              const std::string& name, const Tap& tap) {
    if (facts.compressedSize != facts.size) fail(name, "stored entry with two different sizes");
    unsigned char* chunk = in_.get();
    std::uint64_t left = facts.size;
    std::uint32_t crc = 0;
    while (left > 0) {
        const std::size_t size = left < kChunk ? static_cast<std::size_t>(left) : kChunk;
        readExactly(raw, chunk, size, name);
        crc = libdeflate_crc32(crc, chunk, size);
        writeFully(fd, chunk, size, name);
        if (tap) tap(chunk, size);
        left -= size;
    }
    checkCrc(crc, facts, name);
}

void EntryDecoder::inflate(const EntryFacts& facts, InputStream& raw, int fd,
                           const std::string& name, const Tap& tap) {
    unsigned char* out = out_.get();
    Inflater inflater(raw, facts.compressedSize, in_.get(), kChunk,
                      "cannot extract \"" + name + "\": ");
    std::uint64_t produced = 0;
    for (std::size_t size; (size = inflater.read(out, kChunk)) > 0;) {
        produced += size;
        if (produced > facts.size)
            fail(name, "the data decodes to more bytes than the archive declares");
        writeFully(fd, out, size, name);
        if (tap) tap(out, size);
    }
    if (produced != facts.size)
        fail(name, "the data decodes to fewer bytes than the archive declares");
    checkCrc(inflater.crc32(), facts, name);
}

}  // namespace opc::detail
