// The facade's calls on sound packages, and how they fail; packages that
// do not open are the hostile-input tests' concern.

#include <sys/stat.h>
#include <sys/statvfs.h>

#include "facade/FacadeFixture.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsapp::test {
namespace {

namespace fs = std::filesystem;
namespace qv = opc::qvservices;
using namespace Corvane::addons::apps;
using Facade = FacadeFixture;

// A package whose names exercise the decoding and whose last part is the
// one the corruption test damages.
PackageBuilder richPackage() {
    return app_package()
        .defaultType("txt", "text/plain")
        .part("files/a%20b.txt", "spaced")
        .part("files/%C3%A4/deep/x.txt", std::string("\0\r\n", 3), false)
        .part("files/last.txt", "the last part");
}

// Files as snapshot_tree shows them: what a package should leave behind.
std::string fileEntry(const std::string& bytes) {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return "file:" + std::to_string(0666 & ~mask) + ":" + bytes;
}

TEST_F(Facade, ExtractionLandsEveryPartWithItsDecodedPathAndExactBytes) {
    richPackage().write(pkg());
    EXPECT_EQ(extractError(pkg(), dest() + "/created/too"), "");
    EXPECT_EQ(snapshot_tree(dest() + "/created/too"),
              (Tree{{"_rels", "dir"},
                    {"_rels/.rels", fileEntry(richPackage().relationshipsText())},
                    {"files", "dir"},
                    {"files/a b.txt", fileEntry("spaced")},
                    {"files/\xC3\xA4", "dir"},
                    {"files/\xC3\xA4/deep", "dir"},
                    {"files/\xC3\xA4/deep/x.txt", fileEntry(std::string("\0\r\n", 3))},
                    {"files/last.txt", fileEntry("the last part")},
                    {"images", "dir"},
                    {"images/icon.png", fileEntry(icon_bytes())},
                    {"images/shot.png", fileEntry(icon_bytes(3000))},
                    {"manifest.xml", fileEntry(kManifestXml)}}));
}

// No fixed cap stands between a host and a valid package: 2.4 GiB of
// zeros in three parts extract, checked only against the free space.
TEST_F(Facade, APackageOverTwoGibibytesExtracts) {
    constexpr int kMiB = 800;
    struct statvfs space {};
    ASSERT_EQ(::statvfs(dir.path().c_str(), &space), 0);
    if (static_cast<double>(space.f_bavail) * space.f_frsize < 3.0 * kMiB * 3 * (1 << 20))
        GTEST_SKIP() << "less than 7 GiB free under " << dir.path();
    const std::string zeros = zeros_bomb(kMiB);
    PackageBuilder builder;
    builder.defaultType("bin", "application/octet-stream");
    for (const char* name : {"a.bin", "b.bin", "c.bin"}) builder.part(name, zeros, false);
    builder.write(pkg());
    ZipPatcher z(pkg());
    for (const char* name : {"a.bin", "b.bin", "c.bin"}) {
        // Stored as written, relabelled as deflated with what it inflates to.
        for (const std::size_t header : {z.localHeader(name) - 2, z.centralHeader(name)}) {
            z.put16(header + 10, 8);
            z.put32(header + 16, zeros_crc(kMiB));
            z.put32(header + 24, std::uint32_t{kMiB} << 20);
        }
    }
    z.save();
    EXPECT_EQ(extractError(pkg(), dest() + "/big"), "");
    for (const char* name : {"a.bin", "b.bin", "c.bin"})
        EXPECT_EQ(std::filesystem::file_size(dest() + "/big/" + name), std::uint64_t{kMiB} << 20);
}

// A damaged last part fails the whole extraction, and a link in the
// destination is neither followed nor replaced; an empty folder is no
// folder, and the texts name both paths in their native form.
TEST_F(Facade, AFailedExtractionLeavesEverythingByteForByteAsItWas) {
    richPackage().write(pkg());
    const Tree before = snapshot_tree(dir.path());
    EXPECT_EQ(extractError(dir.file("sub/../missing.tsappinstall"), dest() + "/./x"),
              extraction_error_text(dir.file("missing.tsappinstall"), dest() + "/x"));
    EXPECT_EQ(extractError("", dest()), extraction_error_text("", dest()));
    EXPECT_EQ(extractError(pkg(), ""), extraction_error_text(pkg(), ""));
    EXPECT_EQ(snapshot_tree(dir.path()), before);

    fs::create_directories(dir.file("elsewhere"));
    fs::create_directory_symlink(dir.file("elsewhere"), dest() + "/images");
    expectOnlyExtractionRefused(pkg());

    ZipPatcher patch(pkg());
    patch.bytes()[patch.dataOffset("files/last.txt") + 3] ^= 0x20;
    patch.save();  // stored bytes: the CRC-32 no longer matches
    fs::remove(dest() + "/images");
    expectOnlyExtractionRefused(pkg());
}

// Modes the facade does not use: content parts only, names as escaped.
TEST_F(Facade, TheManagersOtherModes) {
    richPackage().write(pkg());
    opc::model::OpenedPackage opened(u16(pkg()));
    qv::FileSystemManager manager(opened.package(), opc::FileSystemOpsSelector());
    std::size_t calls = 0;
    manager.setProgress(
        [&](std::uint64_t done, std::uint64_t total, std::size_t parts, std::size_t partsTotal) {
            ++calls;
            EXPECT_TRUE(parts < partsTotal || done == total);
        });
    manager.extractAll(u16(dir.file("out")), qv::RestoreMode::ContentParts,
                       qv::TransformMode::KeepEscapes, qv::ReplaceMode::Replace);
    EXPECT_EQ(calls, 6u);  // one per part written
    EXPECT_FALSE(file_exists(dir.file("out/_rels")));
    EXPECT_EQ(read_file(dir.file("out/files/a%20b.txt")), "spaced");
}

TEST_F(Facade, PartsAreCopiedByteForByteWhateverTheTargetSpelling) {
    for (const char* target : {"/images/icon.png", "/IMAGES/Icon.png"}) {
        app_package(kManifestXml, "/manifest.xml", target).write(pkg());
        write_file(iconOut(), std::string(20000, 'o'));  // longer: must be truncated
        testing::internal::CaptureStderr();
        EXPECT_TRUE(facade.extractAppIcon(u16(pkg()), u16(iconOut()))) << target;
        EXPECT_EQ(read_file(iconOut()), icon_bytes()) << target;
        EXPECT_TRUE(facade.extractAppScreenshot(u16(pkg()), dir.ufile("shot.png")));
        EXPECT_EQ(read_file(dir.file("shot.png")), icon_bytes(3000));
        EXPECT_TRUE(facade.extractPartContentFromTessalApp(
            u16(pkg()), u16(APP_PROPERTIES_RELATIONSHIP_TYPE), dir.ufile("m.xml")));
        EXPECT_EQ(read_file(dir.file("m.xml")), kManifestXml);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
}

// Two relationships of the type: the first is used, and the package is
// reported invalid.
TEST_F(Facade, TheNumberOfRelationshipsAndTheOutputDecideTheAnswer) {
    app_package()
        .relationship("rIcon2", PRIMARY_ICON_RELATIONSHIP_TYPE, "manifest.xml")
        .write(pkg());
    std::string printed;
    EXPECT_TRUE(extractPart(pkg(), printed));
    EXPECT_EQ(read_file(iconOut()), icon_bytes());
    EXPECT_EQ(printed, invalid_package_text(pkg()) + "\n");

    // No relationship, or an output that cannot be opened: a quiet false.
    write_file(iconOut(), "an older icon");
    PackageBuilder().part("manifest.xml", kManifestXml).write(pkg());
    EXPECT_FALSE(extractPart(pkg(), printed));
    EXPECT_EQ(read_file(iconOut()), "an older icon");

    app_package().write(pkg());
    testing::internal::CaptureStderr();
    for (const std::u16string& out :
         {dir.ufile("no/such/folder/icon.png"), std::u16string(), dir.ufile("")}) {
        EXPECT_FALSE(facade.extractAppIcon(u16(pkg()), out));
    }
    EXPECT_EQ(printed + testing::internal::GetCapturedStderr(), "");
}

TEST_F(Facade, AnOpeningPackageWithTheExactExtensionIsAnApp) {
    PackageBuilder().part("readme.xml", "<r/>").write(dir.file("bare.tsappinstall"));
    EXPECT_TRUE(facade.isAppFile(dir.ufile("sub/../bare.tsappinstall")));  // no manifest needed
    for (const char* name : {"app.TSAPPINSTALL", "app.Tsappinstall", "app.zip", "app",
                             "app.tsappinstall.zip", "app.tsappinstal", ".tsappinstall"}) {
        app_package().write(dir.file(name));
        EXPECT_FALSE(facade.isAppFile(dir.ufile(name))) << name;
    }
    EXPECT_FALSE(facade.isAppFile(u""));
    // The path conversion's own failure is not the package's.
    EXPECT_THROW(facade.isAppFile(std::u16string(u"a\0b.tsappinstall", 16)), std::invalid_argument);
    EXPECT_THROW(facade.extractAppIcon(std::u16string(u"a\0b", 3), u16(iconOut())),
                 std::invalid_argument);
}

}  // namespace
}  // namespace tsapp::test
