#include "platform/zip/EntryDecoder.hpp"

#include <fcntl.h>

#include "platform/base/UniqueFd.hpp"
#include "support/PackageBuilder.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace {

using opc::detail::EntryDecoder;
using opc::detail::EntryFacts;
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

EntryFacts factsOf(int method, const std::string& plain, const std::string& raw) {
    const auto crc =
        crc32(0, reinterpret_cast<const Bytef*>(plain.data()), static_cast<uInt>(plain.size()));
    return EntryFacts{static_cast<std::uint16_t>(method), plain.size(), raw.size(),
                      static_cast<std::uint32_t>(crc)};
}

// What decoding `raw` into a fresh file gives: its bytes, or the error.
std::string decode(EntryDecoder& decoder, const EntryFacts& facts, const std::string& raw) {
    TempDir dir;
    opc::detail::UniqueFd fd(::open(dir.file("out").c_str(), O_WRONLY | O_CREAT, 0644));
    ChoppyStream stream(raw);
    const std::string error =
        error_of<opc::Exception>([&] { decoder.decodeTo(facts, stream, fd.get(), "x.bin"); });
    return error.empty() ? read_file(dir.file("out")) : error;
}

}  // namespace

// One decoder reused across entries: its buffers must not leak state.
TEST(EntryDecoder, EntriesComeOutByteForByteOrWithTheirFault) {
    std::string noise(300000, '\0');  // deflate keeps it in stored blocks
    unsigned x = 7;
    for (char& c : noise) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    // Words with a random byte between: compressible, yet every run differs.
    std::string plain("\x00\r\n\r\x0a", 5);
    for (std::size_t i = 0; plain.size() < 300000; ++i) plain += "gamma\r\n"s + noise[i];
    const std::string packed = raw_deflate(plain);
    std::string broken = packed;
    broken[broken.size() / 2] ^= 0x55;
    const std::string cannot = "cannot extract \"x.bin\": ";
    EntryDecoder decoder;
    EXPECT_TRUE(decode(decoder, factsOf(0, plain, plain), plain) == plain);
    EXPECT_TRUE(decode(decoder, factsOf(8, plain, packed), packed) == plain);
    EXPECT_TRUE(decode(decoder, factsOf(8, noise, raw_deflate(noise)), raw_deflate(noise)) ==
                noise);
    EXPECT_EQ(decode(decoder, factsOf(8, "", raw_deflate("")), raw_deflate("")), "");
    EntryFacts facts = factsOf(8, plain, packed);
    facts.crc32 ^= 1;
    EXPECT_EQ(decode(decoder, facts, packed), cannot + "CRC-32 mismatch, the data is corrupt");
    facts = factsOf(8, plain, packed);
    facts.size -= 1;  // a bomb declares less than it holds
    EXPECT_EQ(decode(decoder, facts, packed),
              cannot + "the data decodes to more bytes than the archive declares");
    facts.size += 2;
    EXPECT_EQ(decode(decoder, facts, packed),
              cannot + "the data decodes to fewer bytes than the archive declares");
    EXPECT_EQ(decode(decoder, factsOf(8, plain, packed), packed.substr(0, packed.size() - 10)),
              cannot + "the archive ends inside the entry's data");
    const std::string cut = packed.substr(0, packed.size() - 10);
    EXPECT_EQ(decode(decoder, factsOf(8, plain, cut), cut),
              cannot + "the compressed data ends too early");
    EXPECT_EQ(decode(decoder, factsOf(8, plain, broken), broken).rfind(cannot, 0), 0u);
    facts = factsOf(0, "stored", "stored");
    facts.compressedSize += 1;
    EXPECT_EQ(decode(decoder, facts, "stored"), cannot + "stored entry with two different sizes");
    EXPECT_EQ(decode(decoder, factsOf(12, "stored", "stored"), "stored"),
              cannot + "compression method 12 is not supported");
}
