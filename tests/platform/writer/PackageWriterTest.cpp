#include <algorithm>
#include <filesystem>

#include "support/PackageBuilder.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"

using opc::zippackage::PackageWriter;
using namespace tsapp::test;
namespace fs = std::filesystem;

TEST(PackageWriter, PartNamesArePercentEncodedAndNeverEquivalent) {
    EXPECT_EQ(opc::model::PartName::forPath("manifest.xml"), "/manifest.xml");
    EXPECT_EQ(opc::model::PartName::forPath("lib/a b.js"), "/lib/a%20b.js");
    EXPECT_EQ(opc::model::PartName::forPath("ü/[x]%"), "/%C3%BC/%5Bx%5D%25");
    EXPECT_EQ(opc::model::PartName::forPath("a/b~c@d:e"), "/a/b~c@d:e");
    for (const char* bad : {"", "a//b", "a/./b", "../x", "a/", "x."}) {
        EXPECT_THROW(opc::model::PartName::forPath(bad), opc::Exception) << bad;
    }
    TempDir dir;
    PackageWriter writer(dir.file("p.tsappinstall"));
    writer.addPart("Lib/A.js", "text/javascript", {});
    EXPECT_THROW(writer.addPart("lib/a.js", "text/javascript", {}), opc::Exception);
}

TEST(PackageWriter, WritesContentTypesRelationshipsAndPartsBytes) {
    TempDir dir;
    const std::string out = dir.file("app.tsappinstall");
    PackageWriter writer(out);
    const auto bytes_of = [](const std::string& s) {
        return std::vector<unsigned char>(s.begin(), s.end());
    };
    const std::string manifest = "<m>" + std::string(100, 'x') + "</m>";
    writer.addPart("manifest.xml", "application/xml", bytes_of(manifest));
    writer.addPart("icon.png", "image/png", bytes_of(std::string("\x89PNG\r\n\x1a\n\0", 9)),
                   PackageWriter::Compression::Stored);
    writer.addPart("data/notes.xml", "text/x-notes", bytes_of("n"));
    writer.addPart("bin/run", "application/octet-stream", bytes_of("#!"));
    writer.addRelationship("R1", "urn:t&ype", "/manifest.xml");
    writer.commit();

    ZipPatcher z(out);
    EXPECT_EQ(z.get16(z.endRecord() + 10), 6);  // entries, the content types first
    EXPECT_EQ(z.bytes().substr(30, 19), "[Content_Types].xml");
    EXPECT_EQ(zip_item(out, "[Content_Types].xml"),
              "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
              "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
              "<Default Extension=\"png\" ContentType=\"image/png\"/>"
              "<Default Extension=\"rels\" "
              "ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
              "<Default Extension=\"xml\" ContentType=\"application/xml\"/>"
              "<Override PartName=\"/data/notes.xml\" ContentType=\"text/x-notes\"/>"
              "<Override PartName=\"/bin/run\" ContentType=\"application/octet-stream\"/>"
              "</Types>");
    EXPECT_EQ(
        zip_item(out, "_rels/.rels"),
        "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
        "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
        "<Relationship Id=\"R1\" Type=\"urn:t&amp;ype\" "
        "Target=\"/manifest.xml\"/></Relationships>");
    EXPECT_EQ(zip_item(out, "icon.png"), std::string("\x89PNG\r\n\x1a\n\0", 9));
    EXPECT_EQ(z.get16(z.centralHeader("icon.png") + 10), 0);      // stored
    EXPECT_EQ(z.get16(z.centralHeader("manifest.xml") + 10), 8);  // deflated
    EXPECT_EQ(zip_item(out, "manifest.xml"), manifest);
    EXPECT_EQ(z.get16(z.centralHeader("bin/run") + 10), 0);  // deflate would not shrink it
}

// A big file is cut into pieces, compressed on several threads like the
// small files and joined into one entry, with a progress step for each
// piece. The bytes must not depend on how many threads, and a source that
// vanishes fails the commit leaving nothing behind.
TEST(PackageWriterConcurrency, SameBytesForAnyNumberOfJobs) {
    TempDir dir;
    std::string big;
    for (int i = 0; big.size() < (17u << 20); ++i) big += "line " + std::to_string(i) + "\n";
    std::string noise(300000, '\0');
    std::uint32_t state = 7;
    for (char& c : noise) c = static_cast<char>((state = state * 1103515245u + 12345u) >> 24);
    write_file(dir.file("big.txt"), big);
    const std::string whole = big.substr(0, 17u << 20);  // ends on a piece's end
    write_file(dir.file("whole.txt"), whole);
    write_file(dir.file("noise.bin"), noise);
    std::uint64_t total = big.size() + whole.size() + noise.size();
    for (int i = 0; i < 40; ++i) {
        write_file(dir.file("f" + std::to_string(i)), std::string(i * 997, 'a' + i % 26));
        total += i * 997;
    }
    const auto pack = [&](const std::string& out, unsigned jobs,
                          std::vector<std::uint64_t>* steps = nullptr) {
        PackageWriter writer(dir.file(out));
        writer.setModificationTime(1700000000);
        writer.setJobs(jobs);
        if (steps)
            writer.setProgress(
                [steps](std::uint64_t done, std::uint64_t) { steps->push_back(done); });
        writer.addPartFromFile("big.txt", "text/plain", dir.file("big.txt"));
        writer.addPartFromFile("whole.txt", "text/plain", dir.file("whole.txt"),
                               PackageWriter::Compression::Stored);
        writer.addPartFromFile("noise.bin", "application/octet-stream", dir.file("noise.bin"));
        for (int i = 0; i < 40; ++i)
            writer.addPartFromFile("d/f" + std::to_string(i), "text/plain",
                                   dir.file("f" + std::to_string(i)));
        writer.addDigests();
        writer.commit();
        return read_file(dir.file(out));
    };
    std::vector<std::uint64_t> steps;
    const std::string one = pack("1.tsappinstall", 1, &steps);
    EXPECT_TRUE(one == pack("4.tsappinstall", 4));
    EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end()));
    EXPECT_GE(steps.size(), 18u + 17u + 41u);
    EXPECT_EQ(steps.back(), total);
    EXPECT_TRUE(zip_item(dir.file("1.tsappinstall"), "big.txt") == big);
    EXPECT_TRUE(zip_item(dir.file("1.tsappinstall"), "whole.txt") == whole);
    ZipPatcher z(dir.file("1.tsappinstall"));
    EXPECT_EQ(z.get16(z.centralHeader("big.txt") + 10), 8);
    EXPECT_EQ(z.get16(z.centralHeader("whole.txt") + 10), 0);
    EXPECT_LT(z.get32(z.centralHeader("big.txt") + 20), big.size() / 4);
    EXPECT_EQ(z.get16(z.centralHeader("noise.bin") + 10), 0);  // deflate would not shrink it
    tsappinstall::integrity::Sha256 sha;
    sha.update(big.data(), big.size());
    EXPECT_NE(zip_item(dir.file("1.tsappinstall"), "_digests/sha256sums")
                  .find(sha.finishHex() + "  big.txt\n"),
              std::string::npos);

    fs::remove(dir.file("f3"));
    EXPECT_THROW(pack("gone.tsappinstall", 2), opc::Exception);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 44);
}
