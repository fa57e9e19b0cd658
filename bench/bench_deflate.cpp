// Compresses every file below a folder, each on its own as a ZIP entry
// holds it, with zlib (what zip uses) and with libdeflate at several
// levels, in this one process; prints each one's time and total size
// (a file that deflate would not shrink counted as stored, as zip does).
//
//   bench_deflate FOLDER
#include <libdeflate.h>
#include <zlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

std::size_t zlibSize(const std::string& in, std::vector<unsigned char>& out, int level) {
    z_stream z{};
    deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    out.resize(deflateBound(&z, in.size()));
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
    z.avail_in = static_cast<uInt>(in.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    const std::size_t size = z.total_out;
    deflateEnd(&z);
    return size < in.size() ? size : in.size();
}

std::size_t libdeflateSize(libdeflate_compressor* c, const std::string& in,
                           std::vector<unsigned char>& out) {
    out.resize(in.size());
    const std::size_t size = in.empty() ? 0
                                        : libdeflate_deflate_compress(c, in.data(), in.size(),
                                                                      out.data(), in.size() - 1);
    return size != 0 ? size : in.size();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: bench_deflate FOLDER\n");
        return 2;
    }
    std::vector<std::string> files;
    std::size_t total = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[1])) {
        if (!entry.is_regular_file()) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        files.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        total += files.back().size();
    }
    std::printf("%zu files, %.1f MB\n%-14s %8s %12s\n", files.size(), total / 1e6, "deflater", "s",
                "bytes");
    std::vector<unsigned char> out;
    const auto report = [&](const std::string& name, Clock::time_point start, std::size_t size) {
        std::printf("%-14s %8.2f %12zu\n", name.c_str(),
                    std::chrono::duration<double>(Clock::now() - start).count(), size);
    };
    auto start = Clock::now();
    std::size_t size = 0;
    for (const auto& file : files) size += zlibSize(file, out, 6);
    report("zlib 6", start, size);
    for (int level : {5, 6, 7, 8, 9}) {
        libdeflate_compressor* c = libdeflate_alloc_compressor(level);
        start = Clock::now();
        size = 0;
        for (const auto& file : files) size += libdeflateSize(c, file, out);
        report("libdeflate " + std::to_string(level), start, size);
        libdeflate_free_compressor(c);
    }
    return 0;
}
