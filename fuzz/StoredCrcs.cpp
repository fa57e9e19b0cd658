#include "StoredCrcs.hpp"

#include <zlib.h>

#include <cstdint>
#include <map>

namespace tsapp::fuzz {
namespace {

constexpr std::uint32_t kLocalHeader = 0x04034b50;
constexpr std::uint32_t kCentralHeader = 0x02014b50;

std::uint32_t get(const std::string& bytes, std::size_t at, int width) {
    std::uint32_t value = 0;
    for (int i = width - 1; i >= 0; --i)
        value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

void put32(std::string& bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>((value >> (8 * i)) & 0xFF);
}

bool headerAt(const std::string& bytes, std::size_t at, std::uint32_t signature,
              std::size_t length) {
    return at + length <= bytes.size() && get(bytes, at, 4) == signature;
}

// Local header offset -> the CRC written into it.
std::map<std::size_t, std::uint32_t> fixLocalHeaders(std::string& bytes) {
    std::map<std::size_t, std::uint32_t> fixed;
    for (std::size_t at = 0; at + 30 <= bytes.size(); ++at) {
        if (!headerAt(bytes, at, kLocalHeader, 30) || get(bytes, at + 8, 2) != 0) continue;
        const std::size_t data = at + 30 + get(bytes, at + 26, 2) + get(bytes, at + 28, 2);
        const std::size_t size = get(bytes, at + 18, 4);
        if (data > bytes.size() || size > bytes.size() - data) continue;
        const auto crc = static_cast<std::uint32_t>(crc32(
            0L, reinterpret_cast<const Bytef*>(bytes.data() + data), static_cast<uInt>(size)));
        put32(bytes, at + 14, crc);
        fixed[at] = crc;
    }
    return fixed;
}

}  // namespace

std::string withStoredCrcsFixed(std::string bytes) {
    const auto fixed = fixLocalHeaders(bytes);
    for (std::size_t at = 0; at + 46 <= bytes.size(); ++at) {
        if (!headerAt(bytes, at, kCentralHeader, 46)) continue;
        const auto local = fixed.find(get(bytes, at + 42, 4));
        if (local != fixed.end()) put32(bytes, at + 16, local->second);
    }
    return bytes;
}

}  // namespace tsapp::fuzz
