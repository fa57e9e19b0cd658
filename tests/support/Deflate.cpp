#include "Deflate.hpp"

#include <zlib.h>

#include <cstring>
#include <stdexcept>

namespace tsapp::test {

std::string raw_deflate(const std::string& bytes, int level) {
    z_stream z;
    std::memset(&z, 0, sizeof z);
    if (deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("deflateInit2 failed");
    std::string out(deflateBound(&z, bytes.size()), '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    z.avail_in = static_cast<uInt>(bytes.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    const int status = deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    if (status != Z_STREAM_END) throw std::runtime_error("deflate failed");
    return out;
}

std::string sample_bytes(std::size_t size, unsigned seed) {
    static const char* const words[] = {"alpha ", "beta ", "gamma\n", "delta ", "\r\n", "epsilon "};
    std::string out;
    out.reserve(size);
    unsigned state = seed * 2654435761u + 1;
    while (out.size() < size) {
        state = state * 1103515245u + 12345u;
        if ((state >> 16) % 4 == 0)
            out += static_cast<char>(state >> 24);
        else
            out += words[(state >> 16) % 6];
    }
    out.resize(size);
    return out;
}

}  // namespace tsapp::test
