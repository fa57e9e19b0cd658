// The floor for whole-package extraction: every entry of a package read,
// inflated in one call with libdeflate, CRC-checked and written to a file of
// its own in one flat folder. No names are checked, no folders made, nothing
// staged or renamed; extract_bench.sh times it as a tool beside the others.
//
//   bench_inflate_floor PACKAGE FOLDER

#include <fcntl.h>
#include <libdeflate.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace {

struct Decompressor {
    libdeflate_decompressor* d = libdeflate_alloc_decompressor();
    Decompressor() = default;
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;
    ~Decompressor() { libdeflate_free_decompressor(d); }
};

struct Descriptor {
    int fd;
    explicit Descriptor(int value) : fd(value) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
};

bool read_at(int fd, unsigned char* to, std::size_t size, std::uint64_t offset) {
    while (size > 0) {
        const ssize_t n = ::pread(fd, to, size, static_cast<off_t>(offset));
        if (n <= 0) return false;
        to += n;
        size -= static_cast<std::size_t>(n);
        offset += static_cast<std::uint64_t>(n);
    }
    return true;
}

bool write_all(int fd, const unsigned char* from, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, from, size);
        if (n <= 0) return false;
        from += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_inflate_floor PACKAGE FOLDER\n");
        return 2;
    }
    const std::string package = argv[1];
    const std::string folder = argv[2];
    const opc::zippackage::ZipPhysicalPackage zip(std::u16string(package.begin(), package.end()),
                                                  true);
    const Descriptor in(::open(package.c_str(), O_RDONLY | O_CLOEXEC));
    Decompressor decompressor;
    std::vector<unsigned char> raw;
    std::vector<unsigned char> plain;
    int count = 0;
    for (const auto& entry : zip.getEntries()) {
        raw.resize(entry.compressedSize);
        plain.resize(entry.size);
        if (!read_at(in.fd, raw.data(), raw.size(), entry.dataOffset)) return 1;
        const unsigned char* bytes = raw.data();
        if (entry.compressionMethod == entry.kDeflated) {
            if (libdeflate_deflate_decompress(decompressor.d, raw.data(), raw.size(), plain.data(),
                                              plain.size(), nullptr) != LIBDEFLATE_SUCCESS)
                return 1;
            bytes = plain.data();
        }
        if (libdeflate_crc32(0, bytes, entry.size) != entry.crc32) return 1;
        const std::string path = folder + "/" + std::to_string(count++);
        const Descriptor out(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (out.fd < 0 || !write_all(out.fd, bytes, entry.size)) return 1;
    }
    return 0;
}
