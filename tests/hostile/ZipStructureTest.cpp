// ZIP containers built to mislead a reader: overlapping and misplaced
// records, lying sizes, truncation, absurd ZIP64 values, size bombs.

#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <tuple>

#include "facade/FacadeFixture.hpp"
#include "platform/zip/ZipDirectory.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace tsapp::test {
namespace {

class ZipStructure : public FacadeFixture {
  protected:
    void patched(const std::function<void(ZipPatcher&)>& patch, bool zip64 = false) {
        write_zip(pkg(), app_package().items(), zip64);
        ZipPatcher patcher(pkg());
        patch(patcher);
        patcher.save();
    }
};

using Patch = std::function<void(ZipPatcher&)>;

// Sets (or with `add`, moves by `value`) the `width`-byte field at `at` in
// the end record ('e'), the item's central record ('c'), or both its records
// ('b': local fields from the version to the sizes sit two bytes earlier).
// Width 8 means both four-byte size fields.
Patch field(char where, const char* item, std::size_t at, int width, std::int64_t value,
            bool add = false) {
    if (width == 8) {
        return [=](ZipPatcher& z) {
            field(where, item, at, 4, value, add)(z), field(where, item, at + 4, 4, value, add)(z);
        };
    }
    return [=](ZipPatcher& z) {
        std::vector<std::size_t> places = {where == 'e' ? z.endRecord() : z.centralHeader(item)};
        if (where == 'b') places.push_back(z.localHeader(item) - 2);
        for (std::size_t place : places) {
            const std::int64_t old = width == 2 ? z.get16(place + at) : z.get32(place + at);
            z.bytes().replace(place + at, width, le(add ? old + value : value, width));
        }
    };
}

TEST_F(ZipStructure, MisplacedRecordsMismatchedNamesAndUnsupportedEntriesAreRefused) {
    const char* icon = "images/icon.png";
    const char* shot = "images/shot.png";
    const std::vector<std::pair<const char*, Patch>> cases = {
        {"two central records, one local header",
         [](ZipPatcher& z) {
             z.put32(z.centralHeader("images/shot.png") + 42,
                     z.get32(z.centralHeader("images/icon.png") + 42));
         }},
        {"stored data running over the next local header", field('b', icon, 20, 8, 10001)},
        {"last data reaching into the directory", field('c', shot, 20, 4, 200, true)},
        {"stored entry with two sizes", field('c', icon, 20, 4, -1, true)},
        {"size deflate cannot reach", field('c', "manifest.xml", 24, 4, 0x7FFFFFFF)},
        {"local header offset beyond the end", field('c', icon, 42, 4, 0x7FFFFFF0)},
        {"local and central names differ",
         [](ZipPatcher& z) { z.bytes()[z.localHeader("images/icon.png") + 30] = 'I'; }},
        {"raw NUL in a name",
         [](ZipPatcher& z) {
             z.bytes()[z.centralHeader("images/icon.png") + 46 + 1] = '\0';
             z.bytes()[z.localHeader("images/icon.png") + 30 + 1] = '\0';
         }},
        {"local header missing",
         [](ZipPatcher& z) { z.put32(z.localHeader("images/icon.png"), 0x08074b50); }},
        {"encrypted", field('b', icon, 8, 2, 1)},
        {"bzip2", field('b', icon, 10, 2, 12)},
        {"unknown method", field('b', shot, 10, 2, 99)},
        {"65535 entries in a directory of five", field('e', "", 8, 4, 0xFFFFFFFF)},
        {"split archive", field('e', "", 6, 2, 3)},
        {"split archive disk", field('e', "", 4, 2, 1)},
    };
    // A ranged download reads the directory alone, from the package's
    // tail: every lie but those in a local header is refused there.
    const std::set<std::string> inLocalHeader = {"local and central names differ",
                                                 "local header missing"};
    const auto directoryOnly = [](const std::string& bytes) {
        const opc::zippackage::ByteSource source = [&](std::uint64_t at, unsigned char* into,
                                                       std::size_t count) {
            std::memcpy(into, bytes.data() + at, count);
        };
        return opc::zippackage::readCentralDirectory(source, bytes.size(),
                                                     {100000, 1u << 26, 1032});
    };
    for (const auto& [label, patch] : cases) {
        patched(patch);
        expectRefusedEverywhere(pkg(), label);
        if (!inLocalHeader.count(label)) {
            EXPECT_THROW(directoryOnly(read_file(pkg())), opc::Exception) << label;
        }
    }
    write_zip(pkg(), app_package().items());
    EXPECT_EQ(directoryOnly(read_file(pkg())).entries.size(), app_package().items().size());
    expectRefusedEverywhere(dir.path(), "a folder");
    expectRefusedEverywhere(dir.file("missing.tsappinstall"), "missing");
}

// A ranged download leaves the items it takes from the installed version
// out of the file: header and bytes a hole. Named as left out, they are
// not read, yet still held to where the directory places them.
TEST_F(ZipStructure, ItemsLeftOutOfAFileAreNeverReadButMustStillFit) {
    const std::string icon = "images/icon.png";
    const auto verdict = [&](const std::set<std::string>& leftOut) -> std::string {
        try {
            opc::zippackage::ZipPhysicalPackage zip(pkg(), leftOut);
            std::string read;
            for (std::uint64_t i = 0; i < zip.getEntries().size(); ++i) {
                try {
                    unsigned char byte;
                    zip.openEntry(i)->read(&byte, 1);
                } catch (const opc::Exception& e) {
                    read += std::string("; ") + e.what();
                }
            }
            opc::model::OpenedPackage(pkg(), leftOut).close();
            return "opens" + read;
        } catch (const opc::Exception& e) {
            return e.what();
        }
    };
    const Patch hole = [&](ZipPatcher& z) {
        const std::size_t from = z.localHeader(icon), to = z.dataOffset(icon);
        z.bytes().replace(from, to - from, to - from, '\0');
    };
    patched(hole);
    const std::string refused = "not a usable ZIP file: ";
    EXPECT_EQ(verdict({}), refused + "the local header of \"images/icon.png\" is missing");
    EXPECT_EQ(verdict({icon, "no/such/item"}),
              "opens; the item \"images/icon.png\" is left out of this file");
    patched([&](ZipPatcher& z) { hole(z), field('c', icon.c_str(), 20, 8, 10001)(z); });
    EXPECT_EQ(verdict({icon}),
              refused + "the entries \"images/icon.png\" and \"images/shot.png\" overlap");
}

TEST_F(ZipStructure, EveryTruncationAtAStructuralBoundaryIsRefused) {
    app_package().write(pkg());
    const std::string whole = read_file(pkg());
    ZipPatcher z(pkg());
    std::set<std::size_t> cuts = {
        0, 1, 4, 21, 22, z.endRecord(), z.endRecord() + 1, whole.size() - 1};
    for (const char* item : {"[Content_Types].xml", "_rels/.rels", "manifest.xml",
                             "images/icon.png", "images/shot.png"}) {
        for (std::size_t at : {z.localHeader(item), z.centralHeader(item)}) {
            for (std::size_t offset : {0, 4, 29, 30, 46}) cuts.insert(at + offset);
        }
        cuts.insert(z.dataOffset(item));
        cuts.insert(z.dataOffset(item) + 1);
    }
    for (std::size_t cut : cuts) {
        write_file(pkg(), whole.substr(0, cut));
        expectRefusedEverywhere(pkg(), "cut at " + std::to_string(cut));
    }
}

// Each case damages the manifest and one image; the headers stay
// consistent, so the package opens and only reading the data shows it.
TEST_F(ZipStructure, SizesAndChecksumsThatLieFailTheReadAndChangeNothing) {
    // Label, image, where the field sits ('d': a bit of the data), offset, width, change.
    const std::tuple<const char*, const char*, char, std::size_t, int, int> cases[] = {
        {"stored size smaller than its data", "images/icon.png", 'b', 20, 8, -1},
        {"deflated size larger than its data", "images/shot.png", 'c', 24, 4, 1},
        {"deflated size smaller than its data", "images/shot.png", 'c', 24, 4, -1},
        {"CRC mismatch", "images/icon.png", 'b', 16, 4, 1},
        {"one data bit", "images/icon.png", 'd', 5, 1, 1},
    };
    for (const auto& [label, image, where, at, width, by] : cases) {
        SCOPED_TRACE(label);
        patched([&](ZipPatcher& z) {
            for (const char* item : {"manifest.xml", image}) {
                if (where == 'd')
                    z.bytes()[z.dataOffset(item) + at] ^= 1;
                else
                    field(where, item, at, width, by, true)(z);
            }
        });
        EXPECT_TRUE(facade.isAppFile(u16(pkg())));  // opening reads no data
        expectReadsRefused(pkg(),
                           std::string(image) == "images/icon.png"
                               ? Corvane::addons::apps::PRIMARY_ICON_RELATIONSHIP_TYPE
                               : Corvane::addons::apps::PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE);
    }
}

// A ZIP64 package written by hand: the same OPC content, every size and
// offset in the ZIP64 extra fields.
TEST_F(ZipStructure, Zip64PackagesOpenButAbsurdZip64ValuesAreRefused) {
    write_zip(pkg(), app_package().items(), true);
    EXPECT_TRUE(facade.isAppFile(u16(pkg())));
    std::string printed;
    EXPECT_TRUE(extractPart(pkg(), printed));
    EXPECT_EQ(read_file(iconOut()), icon_bytes());
    EXPECT_EQ(extractError(pkg()), "");

    // Where a value sits: the extra field of an item's central record (0
    // size, 1 compressed size, 2 local offset), or the ZIP64 end records.
    const auto extra = [](const char* item, int which) {
        return [=](ZipPatcher& z) {
            return z.centralHeader(item) + 46 + strlen(item) + 4 + 8 * which;
        };
    };
    const auto end64 = [](std::size_t at) {
        return [=](ZipPatcher& z) { return z.bytes().rfind(std::string("PK\x06\x06", 4)) + at; };
    };
    const auto locator = [](ZipPatcher& z) { return z.endRecord() - 12; };
    const std::uint64_t huge = 0xFFFFFFFFFFFFFFF0ull;
    using Field = std::function<std::size_t(ZipPatcher&)>;
    const std::vector<std::pair<std::vector<Field>, std::uint64_t>> cases = {
        {{extra("images/icon.png", 0), extra("images/icon.png", 1)}, huge},
        {{extra("manifest.xml", 0), extra("manifest.xml", 1)}, 1ull << 63},
        {{extra("images/shot.png", 2)}, huge},
        {{end64(24), end64(32)}, huge},     // entry count
        {{end64(24), end64(32)}, 3000000},  // entry count
        {{end64(40)}, huge},                // directory size
        {{end64(48)}, huge},                // directory offset
        {{locator}, huge},                  // offset of the ZIP64 end record
    };
    for (const auto& [fields, value] : cases) {
        patched(
            [&](ZipPatcher& z) {
                for (const Field& at : fields) z.bytes().replace(at(z), 8, le(value, 8));
            },
            true);
        expectRefusedEverywhere(pkg(), std::to_string(value));
    }
    // An extra field shorter than its values.
    patched([&](ZipPatcher& z) { z.put16(extra("images/icon.png", 0)(z) - 2, 8); }, true);
    expectRefusedEverywhere(pkg(), "short extra field");
}

// A deflated icon whose headers declare 1 GiB: the ratio check lets it
// through (its compressed data is large enough), so only reading it shows
// that it holds far less. Nothing may size a buffer from the declaration.
TEST_F(ZipStructure, AGibibyteDeclaredSizeIsNeverAllocated) {
    std::mt19937 random(8);
    std::string noise(1200000, '\0');  // random bytes: deflate cannot shrink them
    for (char& c : noise) c = static_cast<char>(random());
    app_package()
        .defaultType("bin", "application/octet-stream")
        .part("bomb.bin", noise)
        .relationship("rBomb", "urn:bomb", "bomb.bin")
        .write(pkg());
    ZipPatcher z(pkg());
    field('b', "bomb.bin", 24, 4, 1 << 30)(z);
    z.save();

    const long before = peak_rss_kib();
    EXPECT_TRUE(facade.isAppFile(u16(pkg())));
    expectReadsRefused(pkg(), "urn:bomb");
    EXPECT_LT(peak_rss_kib() - before, 256 * 1024) << "KiB more at the peak";
}

// A real bomb: about 1 MiB of deflate data that inflates to 1 GiB of zeros,
// as the manifest. Reading it stops at the largest document accepted.
TEST_F(ZipStructure, AGibibyteDeflateBombAsTheManifestIsCutOff) {
    const std::string compressed = zeros_bomb(1024);
    ASSERT_LT(compressed.size(), 2u << 20);
    // Stored as written: the entry carries the deflate bytes, then its
    // headers are relabelled as deflated with the size they inflate to.
    PackageBuilder()
        .part("manifest.xml", compressed, false)
        .relationship("rManifest", Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE,
                      "/manifest.xml")
        .write(pkg());
    ZipPatcher z(pkg());
    field('b', "manifest.xml", 10, 2, 8)(z);
    field('b', "manifest.xml", 24, 4, 1 << 30)(z);
    z.save();

    const long before = peak_rss_kib();
    EXPECT_TRUE(facade.isAppFile(u16(pkg())));
    EXPECT_EQ(appInfoError(pkg()), internal_error_text());
    EXPECT_LT(peak_rss_kib() - before, 256 * 1024) << "KiB more at the peak";
}

// What opening the package at `path` says: the failure's text, or "opens",
// its warnings and the content type and bytes of "/a.xml" (between them a
// flag when its entry's size or CRC-32 disagrees with the bytes).
std::string verdict_of(const std::string& path) {
    const int descriptors = open_descriptor_count();
    std::string verdict = "opens";
    try {
        opc::model::OpenedPackage opened{std::filesystem::path(path)};
        for (const std::string& warning : opened.warnings()) verdict += "; " + warning;
        auto part = opened->getPart(opc::model::PartName(u"/a.xml"));
        const std::string bytes = read_all(part.getInputStream());
        const auto crc = crc32(0L, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
        const bool agrees = part.getEntry().size == bytes.size() && part.getEntry().crc32 == crc;
        verdict += "; " + part.getContentType() + (agrees ? " " : " (entry disagrees) ") + bytes;
    } catch (const opc::Exception& e) {
        verdict = e.what();
    }
    EXPECT_EQ(open_descriptor_count(), descriptors) << path;
    return verdict;
}

// Layouts other producers write, and their broken twins. A piece holds its
// number; every other item is stored.
TEST(OddLayouts, TrailingBytesPiecesAndContentTypesInOtherCaseGetTheirVerdicts) {
    using Edit = std::function<void(ZipPatcher&)>;
    const auto tail = [](std::uint16_t comment, std::string bytes) {
        return Edit(
            [=](ZipPatcher& z) { z.put16(z.endRecord() + 20, comment), z.bytes() += bytes; });
    };
    const std::string rels = kRelationshipsContentType, endsBefore = " bytes before the end record";
    const struct {
        std::string items;  // "a.xml" when empty
        Edit edit;
        std::string relsType;  // the Default for "rels", when not the usual
        std::string verdict;   // a part of what verdict_of says
    } cases[] = {
        {"", tail(0, std::string(1000, '\0')), "",
         "opens; 1000 bytes follow the end of the ZIP archive and are ignored; application/xml "
         "<a/>"},
        {"", tail(0, "x"), "", "opens; 1 byte follows the end of the ZIP archive and is ignored"},
        {"", tail(5, "hellosig"), "", "opens; 3 bytes follow"},
        {"", tail(5, "hey"), "", "no end of central directory"},
        {"", tail(0, std::string(70000, 'S')), "", "no end of central directory"},
        {"", [](ZipPatcher& z) { z.bytes() += z.bytes().substr(z.endRecord()); }, "",
         "the central directory ends 22" + endsBefore},
        {"", [](ZipPatcher& z) { z.bytes().insert(0, 100, 'M'); }, "",
         "ends 100" + endsBefore + " begins (bytes put in front of a ZIP file"},
        {"", [](ZipPatcher& z) { z.put32(z.endRecord() + 16, 0x7FFFFFF0), z.bytes() += "pad"; }, "",
         "does not end where the end record begins"},
        {"a.xml/[2].LAST.PIECE a.xml/[0].piece a.xml/[1].Piece", {}, "", "/xml 012"},
        {"a.xml/[0].piece a.xml/[2].last.piece", {}, "", "lacks its piece numbered 1"},
        {"a.xml/[0].piece a.xml/[0].PIECE a.xml/[1].last.piece", {}, "", "two pieces numbered 0"},
        {"a.xml/[0].piece a.xml/[1].piece", {}, "", "has no last piece"},
        {"a.xml/[0].last.piece a.xml/[1].last.piece", {}, "", "has pieces after its last piece"},
        {"a.xml/[00].last.piece", {}, "", "\"a.xml/[00].last.piece\" is not a valid piece name"},
        {"[0].last.piece", {}, "", "\"[0].last.piece\" is a piece of no part"},
        {"a.xml a.xml/[0].last.piece", {}, "", "\"/a.xml\" is both a part and an interleaved part"},
        {"a.xml/[0].piece a.xml/[1].last.piece",
         [](ZipPatcher& z) { z.bytes()[z.dataOffset("a.xml/[1].last.piece")] ^= 1; }, "",
         "cannot read the ZIP entry \"a.xml/[1].last.piece\": its CRC-32 does not match"},
        {"", {}, "Application/VND.openxmlformats-package.Relationships+XML", "opens; application"},
        {"", {}, rels + " ; charset=utf-8", "does not have the relationships content type"},
    };
    TempDir dir;
    for (const auto& c : cases) {
        PackageBuilder builder;
        std::istringstream items(c.items.empty() ? "a.xml" : c.items);
        int i = 0;
        for (std::string name; items >> name; ++i) {
            const std::size_t open = name.find('[');
            const std::size_t count = name.find(']') - open - 1;
            builder.part(name, open == std::string::npos ? "<a/>" : name.substr(open + 1, count),
                         i % 2 == 0);
        }
        if (!c.relsType.empty())
            builder.contentTypesXml(replaced(builder.contentTypesText(), rels, c.relsType));
        builder.relationship("r", "urn:a", "/a.xml").write(dir.file("p.zip"));
        ZipPatcher z(dir.file("p.zip"));
        if (c.edit) c.edit(z), z.save();
        const std::string verdict = verdict_of(dir.file("p.zip"));
        EXPECT_NE(verdict.find(c.verdict), std::string::npos) << &c - cases << ": " << verdict;
    }
}

}  // namespace
}  // namespace tsapp::test
