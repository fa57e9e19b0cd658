#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "facade/FacadeFixture.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace {

namespace fs = std::filesystem;
namespace qv = opc::qvservices;
using namespace tsapp::test;
using Tree = std::map<std::string, std::string>;

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

class ExtractAppFile : public ::testing::Test {
  protected:
    std::string pkg() const { return dir.file("app.tsappinstall"); }
    std::string dest() const { return dir.file("dest"); }
    std::string error(const std::string& package, const std::string& folder) {
        return error_of([&] { facade.extractAppFile(u16(package), u16(folder)); });
    }
    // Extracts through the manager with modes the facade does not use.
    void extractWith(qv::RestoreMode restore, qv::TransformMode transform, qv::ReplaceMode replace,
                     std::size_t* progressCalls = nullptr) {
        opc::model::OpenedPackage opened(u16(pkg()));
        qv::FileSystemManager manager(opened.package(), opc::FileSystemOpsSelector());
        manager.setProgress([=](std::uint64_t done, std::uint64_t total, std::size_t parts,
                                std::size_t partsTotal) {
            if (progressCalls != nullptr) ++*progressCalls;
            if (parts == partsTotal) {
                EXPECT_EQ(done, total);
            }
        });
        manager.extractAll(u16(dest()), restore, transform, replace);
    }
    TempDir dir;
    Corvane::addons::apps::Tsappinstall facade;
};

TEST_F(ExtractAppFile, EveryPartLandsWithItsDecodedPathAndExactBytes) {
    richPackage().write(pkg());
    facade.extractAppFile(u16(pkg()), u16(dest() + "/created/too"));
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

TEST_F(ExtractAppFile, FailuresRaiseTheCatalogTextWithBothNativePaths) {
    EXPECT_EQ(error(dir.file("sub/../missing.tsappinstall"), dest() + "/./x"),
              extraction_error_text(dir.file("missing.tsappinstall"), dest() + "/x"));
    EXPECT_EQ(error("", dest()), extraction_error_text("", dest()));
    richPackage().write(pkg());
    EXPECT_EQ(error(pkg(), ""), extraction_error_text(pkg(), ""));
    EXPECT_FALSE(file_exists(dest()));
}

// A damaged last part fails the whole extraction, and a link in the
// destination is neither followed nor replaced.
TEST_F(ExtractAppFile, AFailureLeavesTheFolderByteForByteAsItWas) {
    richPackage().write(pkg());
    ZipPatcher patch(pkg());
    const std::size_t local = patch.localHeader("files/last.txt");
    patch.bytes()[local + 30 + patch.get16(local + 26) + patch.get16(local + 28) + 3] ^= 0x20;
    patch.save();  // stored bytes: the CRC-32 no longer matches
    EXPECT_EQ(error(pkg(), dest() + "/a/b"), extraction_error_text(pkg(), dest() + "/a/b"));
    EXPECT_FALSE(file_exists(dest()));

    // A link inside the destination is not followed.
    richPackage().write(pkg());
    fs::create_directories(dest());
    fs::create_directories(dir.file("elsewhere"));
    fs::create_directory_symlink(dir.file("elsewhere"), dest() + "/files");
    const Tree linked = snapshot_tree(dir.path());
    EXPECT_EQ(error(pkg(), dest()), extraction_error_text(pkg(), dest()));
    EXPECT_EQ(snapshot_tree(dir.path()), linked);
}

TEST_F(ExtractAppFile, TheManagersOtherModes) {
    richPackage().write(pkg());
    std::size_t calls = 0;
    extractWith(qv::RestoreMode::ContentParts, qv::TransformMode::KeepEscapes,
                qv::ReplaceMode::Replace, &calls);
    EXPECT_EQ(calls, 6u);  // one per part written
    EXPECT_FALSE(file_exists(dest() + "/_rels"));
    EXPECT_EQ(read_file(dest() + "/files/a%20b.txt"), "spaced");
    EXPECT_TRUE(file_exists(dest() + "/files/%C3%A4/deep/x.txt"));

    const Tree before = snapshot_tree(dest());
    EXPECT_THROW(extractWith(qv::RestoreMode::AllParts, qv::TransformMode::KeepEscapes,
                             qv::ReplaceMode::FailIfExists),
                 opc::Exception);
    EXPECT_THROW(extractWith(static_cast<qv::RestoreMode>(2), qv::TransformMode::KeepEscapes,
                             qv::ReplaceMode::Replace),
                 opc::Exception);
    EXPECT_EQ(snapshot_tree(dest()), before);
}

}  // namespace
