#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>

#include "facade/FacadeFixture.hpp"
#include "support/Deflate.hpp"
#include "support/TestSupport.hpp"
#include "support/TreeSnapshot.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"
#include "tsappinstall/platform/opc/Package.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tsapp::test;
using Corvane::addons::apps::Tsappinstall;
using Tree = std::map<std::string, std::string>;

std::string extractionError(const std::u16string& package, const std::u16string& folder) {
    return tsapp_builtins::tsapp_builtins::message_text(
        tsapp_builtins::tsapp_builtins::TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(package,
                                                                                     folder));
}

// A package whose names exercise the decoding and whose last part is the
// one the corruption tests damage.
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

class ExtractAppFile : public ::testing::Test {
  protected:
    std::string pkg() const { return dir.file("app.tsappinstall"); }
    std::string dest() const { return dir.file("dest"); }
    std::string error(const std::string& package, const std::string& folder) {
        try {
            facade.extractAppFile(u16(package), u16(folder));
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "no error";
    }
    TempDir dir;
    Tsappinstall facade;
};

TEST_F(ExtractAppFile, EveryPartLandsWithItsDecodedPathAndExactBytes) {
    richPackage().write(pkg());
    facade.extractAppFile(u16(pkg()), u16(dest() + "/created/too"));
    const Tree tree = snapshot_tree(dest() + "/created/too");
    EXPECT_EQ(tree, (Tree{{"_rels", "dir"},
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

TEST_F(ExtractAppFile, TheManifestIsNeverReadSoABadSignatureStillExtracts) {
    PackageBuilder()
        .part("manifest.xml", "<appProperties signature=\"0000\"/>")
        .relationship("m", Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE, "manifest.xml")
        .write(pkg());
    facade.extractAppFile(u16(pkg()), u16(dest()));
    EXPECT_EQ(read_file(dest() + "/manifest.xml"), "<appProperties signature=\"0000\"/>");
}

TEST_F(ExtractAppFile, FailuresRaiseTheCatalogTextWithBothNativePaths) {
    const std::string missing = dir.file("sub/../missing.tsappinstall");
    EXPECT_EQ(error(missing, dest() + "/./x"),
              extractionError(u16(dir.file("missing.tsappinstall")), u16(dest() + "/x")));
    EXPECT_EQ(error("", dest()), extractionError(u"", u16(dest())));
    richPackage().write(pkg());
    EXPECT_EQ(error(pkg(), ""), extractionError(u16(pkg()), u""));
    EXPECT_FALSE(file_exists(dest()));
}

TEST_F(ExtractAppFile, ExtractingAgainReplacesWhatTheFirstRunWrote) {
    richPackage().write(pkg());
    facade.extractAppFile(u16(pkg()), u16(dest()));
    write_file(dest() + "/mine.txt", "kept");
    PackageBuilder changed =
        app_package().defaultType("txt", "text/plain").part("files/last.txt", "changed");
    changed.write(pkg());
    facade.extractAppFile(u16(pkg()), u16(dest()));
    EXPECT_EQ(read_file(dest() + "/files/last.txt"), "changed");
    EXPECT_EQ(read_file(dest() + "/files/a b.txt"), "spaced");  // not in the package: left alone
    EXPECT_EQ(read_file(dest() + "/mine.txt"), "kept");
}

TEST_F(ExtractAppFile, ACorruptLastPartLeavesTheDestinationByteForByteAsItWas) {
    richPackage().write(pkg());
    ZipPatcher patch(pkg());
    const std::size_t local = patch.localHeader("files/last.txt");
    const std::size_t data = local + 30 + patch.get16(local + 26) + patch.get16(local + 28);
    patch.bytes()[data + 3] ^= 0x20;  // stored bytes: the CRC-32 no longer matches
    patch.save();

    fs::create_directories(dest() + "/files");
    write_file(dest() + "/manifest.xml", "old manifest");
    write_file(dest() + "/files/a b.txt", "old spaced");
    write_file(dest() + "/own.txt", "own");
    const Tree before = snapshot_tree(dest());
    EXPECT_EQ(error(pkg(), dest()), extractionError(u16(pkg()), u16(dest())));
    EXPECT_EQ(snapshot_tree(dest()), before);
}

TEST_F(ExtractAppFile, ALinkInsideTheDestinationIsNotFollowed) {
    richPackage().write(pkg());
    fs::create_directories(dest());
    fs::create_directories(dir.file("elsewhere"));
    fs::create_directory_symlink(dir.file("elsewhere"), dest() + "/files");
    const Tree before = snapshot_tree(dir.path());
    EXPECT_EQ(error(pkg(), dest()), extractionError(u16(pkg()), u16(dest())));
    EXPECT_EQ(snapshot_tree(dir.path()), before);
}

TEST_F(ExtractAppFile, APartBiggerThanTheWholeEntryBufferIsStreamed) {
    // Repetitive enough to compress quickly, stamped so that a chunk written
    // twice or out of order shows.
    const std::string block = sample_bytes(4096, 7);
    std::string big;
    for (unsigned i = 0; big.size() <= (17u << 20); ++i) big += block + std::to_string(i);
    app_package().defaultType("bin", "application/octet-stream").part("big.bin", big).write(pkg());
    facade.extractAppFile(u16(pkg()), u16(dest()));
    EXPECT_TRUE(read_file(dest() + "/big.bin") == big);
}

// The modes the facade does not use, through the manager itself.
class FileSystemManagerModes : public ExtractAppFile {
  protected:
    void extractWith(int restore, int transform, int replace) {
        opc::zippackage::ZipPhysicalPackage physical(u16(pkg()), true);
        opc::model::Package package(physical);
        package.open(opc::interfaces::OpenMode::Read);
        opc::qvservices::FileSystemManager manager(package, opc::FileSystemOpsSelector());
        manager.extractAll(u16(dest()), static_cast<opc::qvservices::RestoreMode>(restore),
                           static_cast<opc::qvservices::TransformMode>(transform),
                           static_cast<opc::qvservices::ReplaceMode>(replace));
    }
};

TEST_F(FileSystemManagerModes, ContentPartsOnlyAndKeptEscapes) {
    richPackage().write(pkg());
    extractWith(0, 0, 0);
    EXPECT_FALSE(file_exists(dest() + "/_rels"));
    EXPECT_EQ(read_file(dest() + "/files/a%20b.txt"), "spaced");
    EXPECT_TRUE(file_exists(dest() + "/files/%C3%A4/deep/x.txt"));
}

TEST_F(FileSystemManagerModes, FailIfExistsWritesNothingAndUnknownModesRaise) {
    richPackage().write(pkg());
    fs::create_directories(dest() + "/files");
    write_file(dest() + "/files/last.txt", "mine");
    const Tree before = snapshot_tree(dest());
    EXPECT_THROW(extractWith(1, 1, 1), opc::Exception);
    EXPECT_EQ(snapshot_tree(dest()), before);
    for (auto modes : {std::array<int, 3>{2, 1, 0}, {1, 2, 0}, {1, 1, 2}, {-1, 1, 0}}) {
        EXPECT_THROW(extractWith(modes[0], modes[1], modes[2]), opc::Exception);
    }
    EXPECT_EQ(snapshot_tree(dest()), before);
}

TEST_F(FileSystemManagerModes, ProgressCountsEveryPartAndByte) {
    richPackage().write(pkg());
    opc::zippackage::ZipPhysicalPackage physical(u16(pkg()), true);
    opc::model::Package package(physical);
    package.open(opc::interfaces::OpenMode::Read);
    opc::qvservices::FileSystemManager manager(package, opc::FileSystemOpsSelector());
    std::uint64_t lastBytes = 0, totalBytes = 0;
    std::size_t calls = 0, lastParts = 0, totalParts = 0;
    manager.setProgress(
        [&](std::uint64_t done, std::uint64_t total, std::size_t parts, std::size_t partsTotal) {
            ++calls;
            lastBytes = done, totalBytes = total, lastParts = parts, totalParts = partsTotal;
        });
    manager.extractAll(u16(dest()), opc::qvservices::RestoreMode::AllParts,
                       opc::qvservices::TransformMode::PercentDecode,
                       opc::qvservices::ReplaceMode::Replace);
    EXPECT_EQ(calls, 7u);
    EXPECT_EQ(lastParts, totalParts);
    EXPECT_EQ(lastBytes, totalBytes);
}

}  // namespace
