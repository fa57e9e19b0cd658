#include "platform/zip/EntryDecoder.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include "platform/base/UniqueFd.hpp"
#include "support/Deflate.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace {

using opc::detail::EntryDecoder;
using opc::detail::EntryFacts;
using namespace tsapp::test;

// Hands out a byte string in small, uneven pieces, as a real stream may.
class ChoppyStream : public opc::InputStream {
  public:
    explicit ChoppyStream(std::string bytes) : bytes_(std::move(bytes)) {}
    std::size_t read(unsigned char* buffer, std::size_t size) override {
        const std::size_t n = std::min({size, bytes_.size() - pos_, std::size_t{7777}});
        std::copy_n(bytes_.data() + pos_, n, buffer);
        pos_ += n;
        return n;
    }

  private:
    std::string bytes_;
    std::size_t pos_ = 0;
};

std::uint32_t crcOf(const std::string& bytes) {
    return static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

EntryFacts deflatedFacts(const std::string& plain, const std::string& packed) {
    return EntryFacts{8, plain.size(), packed.size(), crcOf(plain)};
}

class EntryDecoderTest : public ::testing::Test {
  protected:
    // Decodes into a fresh file and returns what landed in it.
    std::string decode(EntryDecoder& decoder, const EntryFacts& facts, const std::string& raw) {
        const std::string path = dir.file("out" + std::to_string(++count));
        opc::detail::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
        ChoppyStream stream(raw);
        decoder.decodeTo(facts, stream, fd.get(), "x.bin");
        return read_file(path);
    }
    std::string decodeError(EntryDecoder& decoder, const EntryFacts& facts,
                            const std::string& raw) {
        try {
            decode(decoder, facts, raw);
        } catch (const opc::Exception& e) {
            return e.what();
        }
        return "no error";
    }

    TempDir dir;
    int count = 0;
};

TEST_F(EntryDecoderTest, StoredAndDeflatedEntriesComeOutByteForByte) {
    const std::string plain = std::string("\x00\r\n\r\x0a", 5) + sample_bytes(300000, 1);
    EntryDecoder decoder;  // more than one chunk in and out
    EXPECT_EQ(decode(decoder, EntryFacts{0, plain.size(), plain.size(), crcOf(plain)}, plain),
              plain);
    const std::string packed = raw_deflate(plain);
    EXPECT_EQ(decode(decoder, deflatedFacts(plain, packed), packed), plain);
    std::string noise(300000, '\0');  // deflate stores it in stored blocks
    unsigned x = 7;
    for (char& c : noise) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    EXPECT_EQ(decode(decoder, deflatedFacts(noise, raw_deflate(noise)), raw_deflate(noise)), noise);
    // The same decoder serves the next entry with its reused buffers.
    const std::string small = "tiny";
    EXPECT_EQ(decode(decoder, deflatedFacts(small, raw_deflate(small)), raw_deflate(small)), small);
    EXPECT_EQ(decode(decoder, deflatedFacts("", raw_deflate("")), raw_deflate("")), "");
}

TEST_F(EntryDecoderTest, CorruptOrMisdeclaredDataIsRefused) {
    const std::string plain = sample_bytes(50000, 2);
    const std::string packed = raw_deflate(plain);
    EntryDecoder decoder;
    EntryFacts facts = deflatedFacts(plain, packed);
    facts.crc32 ^= 1;
    EXPECT_EQ(decodeError(decoder, facts, packed),
              "cannot extract \"x.bin\": CRC-32 mismatch, the data is corrupt");

    facts = deflatedFacts(plain, packed);
    facts.size -= 1;  // a bomb declares less than it holds
    EXPECT_EQ(decodeError(decoder, facts, packed),
              "cannot extract \"x.bin\": the data decodes to more bytes than the archive declares");

    facts = deflatedFacts(plain, packed);
    facts.size += 1;
    EXPECT_EQ(
        decodeError(decoder, facts, packed),
        "cannot extract \"x.bin\": the data decodes to fewer bytes than the archive declares");

    std::string broken = packed;
    broken[broken.size() / 2] ^= 0x55;
    EXPECT_NE(decodeError(decoder, deflatedFacts(plain, broken), broken), "no error");

    facts = deflatedFacts(plain, packed);
    EXPECT_EQ(decodeError(decoder, facts, packed.substr(0, packed.size() - 10)),
              "cannot extract \"x.bin\": the archive ends inside the entry's data");
    const std::string cut = packed.substr(0, packed.size() - 10);
    facts.compressedSize = cut.size();
    EXPECT_EQ(decodeError(decoder, facts, cut),
              "cannot extract \"x.bin\": the compressed data ends too early");
}

TEST_F(EntryDecoderTest, StoredEntriesAreCheckedToo) {
    EntryDecoder decoder;
    const std::string plain = "stored bytes";
    EXPECT_EQ(
        decodeError(decoder, EntryFacts{0, plain.size(), plain.size(), crcOf(plain) + 1}, plain),
        "cannot extract \"x.bin\": CRC-32 mismatch, the data is corrupt");
    EXPECT_EQ(
        decodeError(decoder, EntryFacts{0, plain.size(), plain.size() + 1, crcOf(plain)}, plain),
        "cannot extract \"x.bin\": stored entry with two different sizes");
    EXPECT_EQ(decodeError(decoder, EntryFacts{12, plain.size(), plain.size(), crcOf(plain)}, plain),
              "cannot extract \"x.bin\": compression method 12 is not supported");
}

}  // namespace
