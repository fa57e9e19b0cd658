#include <gtest/gtest.h>

#include <functional>

#include "support/PackageBuilder.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

using opc::interfaces::PhysicalEntry;
using opc::zippackage::ZipPhysicalPackage;
using namespace tsapp::test;

namespace {

// Reads in pieces smaller than the entries, so reads are split.
std::string read_all_split(opc::InputStream& in) {
    return read_all(in, 1000);
}

std::string pattern(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 13) & 0xFF);
    return bytes;
}

// Three entries: a stored one in the middle, so that its neighbours'
// headers and data can be made to collide with it.
struct Sample {
    TempDir dir;
    std::string path = dir.file("sample.zip");
    Sample() {
        write_zip(path, {{"first.txt", std::string(3000, 'a'), true},
                         {"middle.bin", pattern(100), false},
                         {"last.bin", pattern(50), false}});
    }
};

// Opening fails with an opc::Exception naming `reason`, and leaves no file
// descriptor behind.
void expect_refused(const std::string& path, const std::string& reason) {
    const int before = open_descriptor_count();
    try {
        ZipPhysicalPackage package(u16(path), true);
        ADD_FAILURE() << "opened; expected: " << reason;
    } catch (const opc::Exception& e) {
        EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
    }
    EXPECT_EQ(open_descriptor_count(), before);
}

void expect_patched_refused(const std::function<void(ZipPatcher&)>& patch,
                            const std::string& reason) {
    Sample sample;
    ZipPatcher patcher(sample.path);
    patch(patcher);
    patcher.save();
    expect_refused(sample.path, reason);
}

}  // namespace

TEST(ZipPhysicalPackage, ListsEntriesAndStreamsTheirBytes) {
    Sample sample;
    ZipPhysicalPackage package(u16(sample.path), true);
    const auto& entries = package.getEntries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].name, "first.txt");
    EXPECT_EQ(entries[0].compressionMethod, PhysicalEntry::kDeflated);
    EXPECT_EQ(entries[0].size, 3000u);
    EXPECT_LT(entries[0].compressedSize, 3000u);
    EXPECT_EQ(entries[1].index, 1u);
    EXPECT_EQ(entries[1].compressionMethod, PhysicalEntry::kStored);
    EXPECT_EQ(entries[1].compressedSize, 100u);
    EXPECT_EQ(entries[1].dataOffset, entries[1].localHeaderOffset + 30 + entries[1].name.size());

    EXPECT_EQ(read_all_split(*package.openEntry(0)), std::string(3000, 'a'));
    EXPECT_EQ(read_all_split(*package.openEntry(1)), pattern(100));
    EXPECT_EQ(read_all_split(*package.openRawEntry(1)), pattern(100));
    EXPECT_EQ(read_all_split(*package.openRawEntry(0)).size(), entries[0].compressedSize);
    EXPECT_THROW(package.openEntry(3), opc::Exception);
    package.close();
    EXPECT_THROW(package.openEntry(0), opc::Exception);
}

TEST(ZipPhysicalPackage, HeadersFarApartAreReadOneByOne) {
    TempDir dir;
    const std::string path = dir.file("spread.zip");
    write_zip(path, {{"a", "1", false},
                     {"big", pattern(300000), false},
                     {"b", "2", false},
                     {"c", pattern(5000), false},
                     {"d", "3", false}});
    ZipPhysicalPackage package(u16(path), true);
    EXPECT_EQ(read_all_split(*package.openEntry(1)), pattern(300000));
    EXPECT_EQ(read_all_split(*package.openEntry(4)), "3");
}

TEST(ZipPhysicalPackage, ReadsZip64SizesOffsetsAndCounts) {
    TempDir dir;
    const std::string path = dir.file("big.zip");
    write_zip64(path, {{"a.txt", "alpha", false}, {"b/c.bin", pattern(4000), false}});
    ZipPhysicalPackage package(u16(path), true);
    const auto& entries = package.getEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1].name, "b/c.bin");
    EXPECT_EQ(entries[1].size, 4000u);
    EXPECT_GT(entries[1].localHeaderOffset, 0u);
    EXPECT_EQ(read_all_split(*package.openEntry(0)), "alpha");
    EXPECT_EQ(read_all_split(*package.openEntry(1)), pattern(4000));
}

TEST(ZipPhysicalPackage, RefusesWhatIsNotAReadableZipFileWithoutLeakingDescriptors) {
    TempDir dir;
    write_file(dir.file("text.zip"), "just some text, certainly no ZIP file at all");
    write_file(dir.file("empty.zip"), "");
    expect_refused(dir.file("text.zip"), "not a ZIP file");
    expect_refused(dir.file("empty.zip"), "too short");
    expect_refused(dir.file("missing.zip"), "cannot open");
    expect_refused(dir.path(), "not a regular file");
    expect_refused("", "cannot open");
    EXPECT_THROW(ZipPhysicalPackage(u16(dir.file("text.zip")), false), opc::Exception);

    Sample sample;
    write_file(sample.path, read_file(sample.path) + "junk");
    expect_refused(sample.path, "no end of central directory");
    write_file(sample.path,
               "junk" + read_file(sample.path).substr(0, read_file(sample.path).size() - 4));
    expect_refused(sample.path, "central directory does not end");
}

TEST(ZipPhysicalPackage, RefusesEntriesWhoseDataOverlap) {
    // The stored middle entry claims 120 bytes: its data now covers the
    // local header of the last entry, as in the overlapping-entry bomb.
    expect_patched_refused(
        [](ZipPatcher& z) {
            z.put32(z.centralHeader("middle.bin") + 20, 120);
            z.put32(z.centralHeader("middle.bin") + 24, 120);
        },
        "overlap");
    // Two central records pointing at one local header.
    expect_patched_refused(
        [](ZipPatcher& z) {
            z.put32(z.centralHeader("last.bin") + 42, z.get32(z.centralHeader("middle.bin") + 42));
        },
        "names another item");
    expect_patched_refused(
        [](ZipPatcher& z) {
            z.put32(z.centralHeader("last.bin") + 20, 80);
            z.put32(z.centralHeader("last.bin") + 24, 80);
        },
        "reaches into the central directory");
}

TEST(ZipPhysicalPackage, RefusesHostileNamesMethodsAndCounts) {
    expect_patched_refused(
        [](ZipPatcher& z) { z.bytes()[z.centralHeader("middle.bin") + 46 + 3] = '\0'; }, "NUL");
    expect_patched_refused(
        [](ZipPatcher& z) { z.bytes()[z.centralHeader("middle.bin") + 46] = 'M'; },
        "names another item");
    expect_patched_refused([](ZipPatcher& z) { z.put16Both("middle.bin", 8, 6, 1); },
                           "\"middle.bin\" is encrypted");
    expect_patched_refused([](ZipPatcher& z) { z.put16Both("middle.bin", 10, 8, 12); },
                           "compression method 12; only stored and deflate");
    expect_patched_refused([](ZipPatcher& z) { z.put32(z.centralHeader("middle.bin") + 20, 99); },
                           "declares two different sizes");
    expect_patched_refused(
        [](ZipPatcher& z) { z.put32(z.centralHeader("first.txt") + 24, 0x7FFFFFFF); },
        "claims a size deflate cannot reach");
    expect_patched_refused(
        [](ZipPatcher& z) {
            z.put16(z.endRecord() + 8, 0xFFFF);
            z.put16(z.endRecord() + 10, 0xFFFF);
        },
        "too small for its entry count");
    expect_patched_refused([](ZipPatcher& z) { z.put16(z.endRecord() + 4, 1); }, "split archives");

    TempDir dir;
    const std::string path = dir.file("many.zip");
    write_zip64(path, {{"a", "x", false}});
    ZipPatcher z(path);
    const std::size_t zip64End = z.bytes().rfind(std::string("PK\x06\x06", 4));
    z.put32(zip64End + 24, 200000);
    z.put32(zip64End + 32, 200000);
    z.save();
    expect_refused(path, "200000 entries, more than the 100000 accepted");
}

TEST(ZipPhysicalPackage, ReadsFailWhenBytesDoNotMatchTheirSizeOrCrc) {
    Sample sample;
    {
        ZipPatcher z(sample.path);
        z.bytes()[z.localHeader("middle.bin") + 30 + 10 + 5] ^= 0x01;  // one data bit
        z.put32(z.centralHeader("first.txt") + 24, 3001);              // one byte too many declared
        z.put32(z.centralHeader("last.bin") + 16, 0xDEADBEEF);         // CRC
        z.save();
    }
    ZipPhysicalPackage package(u16(sample.path), true);
    for (std::uint64_t index : {0u, 1u, 2u}) {
        const auto stream = package.openEntry(index);
        EXPECT_THROW(read_all_split(*stream), opc::Exception) << index;
    }
    // Compressed bytes are copied as stored: a wrong uncompressed size does
    // not concern them.
    EXPECT_EQ(read_all_split(*package.openRawEntry(0)).size(),
              package.getEntries()[0].compressedSize);
}
