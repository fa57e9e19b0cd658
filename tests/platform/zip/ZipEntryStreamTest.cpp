#include "platform/zip/ZipEntryStream.hpp"

#include "support/PackageBuilder.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace {

using opc::interfaces::PhysicalEntry;
using namespace tsapp::test;
using namespace std::string_literals;

// Hands out a byte string in small, uneven pieces, as a real stream may.
struct ChoppyStream : opc::InputStream {
    explicit ChoppyStream(std::string raw) : bytes(std::move(raw)) {}
    std::size_t read(unsigned char* buffer, std::size_t size) override {
        const std::size_t n = std::min({size, bytes.size() - pos, std::size_t{7777}});
        std::copy_n(bytes.data() + pos, n, buffer);
        pos += n;
        return n;
    }
    std::string bytes;
    std::size_t pos = 0;
};

PhysicalEntry entryOf(int method, const std::string& plain, const std::string& raw) {
    PhysicalEntry entry;
    entry.name = "x.bin";
    entry.compressionMethod = static_cast<std::uint16_t>(method);
    entry.size = plain.size();
    entry.compressedSize = raw.size();
    entry.crc32 = static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(plain.data()), static_cast<uInt>(plain.size())));
    return entry;
}

// What reading the entry whole gives, in reads of an odd size: its bytes,
// or the error.
std::string decode(const PhysicalEntry& entry, const std::string& raw) {
    std::string out;
    const std::string error = error_of<opc::Exception>([&] {
        opc::zippackage::ZipEntryStream stream(entry, std::make_unique<ChoppyStream>(raw));
        out = read_all(stream, 100003);
    });
    return error.empty() ? out : error;
}

}  // namespace

// Every part reaches extraction, checking and hashing through this one
// stream: what it hands over is the entry's bytes, exactly, or an error.
TEST(ZipEntryStream, EntriesComeOutByteForByteOrWithTheirFault) {
    std::string noise(300000, '\0');  // deflate keeps it in stored blocks
    unsigned x = 7;
    for (char& c : noise) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    // Words with a random byte between: compressible, yet every run differs.
    std::string plain("\x00\r\n\r\x0a", 5);
    for (std::size_t i = 0; plain.size() < 300000; ++i) plain += "gamma\r\n"s + noise[i];
    const std::string packed = raw_deflate(plain);
    std::string broken = packed;
    broken[broken.size() / 2] ^= 0x55;
    const std::string cannot = "cannot read the ZIP entry \"x.bin\": ";
    EXPECT_TRUE(decode(entryOf(0, plain, plain), plain) == plain);
    EXPECT_TRUE(decode(entryOf(8, plain, packed), packed) == plain);
    EXPECT_TRUE(decode(entryOf(8, noise, raw_deflate(noise)), raw_deflate(noise)) == noise);
    EXPECT_EQ(decode(entryOf(8, "", raw_deflate("")), raw_deflate("")), "");
    PhysicalEntry entry = entryOf(8, plain, packed);
    entry.crc32 ^= 1;
    EXPECT_EQ(decode(entry, packed), cannot + "its CRC-32 does not match (the data is damaged)");
    entry = entryOf(8, plain, packed);
    entry.size -= 1;  // a bomb declares less than it holds
    EXPECT_EQ(decode(entry, packed), cannot + "it holds more bytes than its declared size");
    entry.size += 2;
    EXPECT_EQ(decode(entry, packed), cannot + "it holds fewer bytes than its declared size");
    const std::string cut = packed.substr(0, packed.size() - 10);
    EXPECT_EQ(decode(entryOf(8, plain, cut), cut).rfind(cannot, 0), 0u);
    EXPECT_EQ(decode(entryOf(8, plain, broken), broken).rfind(cannot, 0), 0u);
    entry = entryOf(0, "stored", "stored");
    entry.size = entry.compressedSize = 4;
    EXPECT_EQ(decode(entry, "stored"), cannot + "it holds more bytes than its declared size");
}
