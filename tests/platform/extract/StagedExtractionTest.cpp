#include "platform/extract/StagedExtraction.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/extract/ExtractionPaths.hpp"
#include "platform/zip/EntryDecoder.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace {

namespace fs = std::filesystem;
using opc::detail::FileSegments;
using opc::detail::StagedExtraction;
using namespace tsapp::test;

std::function<void(int)> writes(const std::string& bytes) {
    return [bytes](int fd) {
        opc::detail::writeFully(fd, reinterpret_cast<const unsigned char*>(bytes.data()),
                                bytes.size(), "t");
    };
}

class StagedExtractionTest : public ::testing::Test {
  protected:
    std::string dest() const { return dir.file("dest"); }
    TempDir dir;
};

TEST_F(StagedExtractionTest, CommitReplacesALinkWithoutFollowingIt) {
    fs::create_directories(dest());
    fs::create_directories(dir.file("outside"));
    write_file(dir.file("outside/target"), "outside");
    fs::create_symlink(dir.file("outside/target"), dest() + "/link.txt");
    {
        StagedExtraction extraction(dest(), StagedExtraction::Existing::Replace);
        extraction.stage({"link.txt"}, writes("file now"));
        extraction.commit();
    }
    EXPECT_FALSE(fs::is_symlink(dest() + "/link.txt"));
    EXPECT_EQ(read_file(dest() + "/link.txt"), "file now");
    EXPECT_EQ(read_file(dir.file("outside/target")), "outside");
    EXPECT_EQ(snapshot_tree(dest()).size(), 1u);
}

TEST_F(StagedExtractionTest, ClashesAreErrorsNotOverwrites) {
    fs::create_directories(dest() + "/taken");
    write_file(dest() + "/exists", "x");
    const auto before = snapshot_tree(dest());
    auto attempt = [&](std::vector<FileSegments> paths, StagedExtraction::Existing existing) {
        return error_of<opc::Exception>([&] {
            StagedExtraction extraction(dest(), existing);
            for (const auto& path : paths) extraction.stage(path, writes("x"));
            extraction.commit();
        });
    };
    const auto replace = StagedExtraction::Existing::Replace;
    EXPECT_EQ(attempt({{"taken"}}, replace), "a folder is in the way of the file \"taken\"");
    EXPECT_EQ(attempt({{"Doc.txt"}, {"doc.TXT"}}, replace),
              "the package names \"doc.TXT\" twice, or as both a file and a folder");
    EXPECT_EQ(attempt({{"a"}, {"A", "b"}}, replace),
              "the package names \"A\" as both a file and a folder");
    EXPECT_EQ(attempt({{"a", "b"}, {"a"}}, replace),
              "the package names \"a\" twice, or as both a file and a folder");
    EXPECT_EQ(attempt({{"exists", "x"}}, replace),
              "\"exists\" in the destination is not a folder (a file or a symbolic link)");
    EXPECT_EQ(attempt({{"new"}, {"exists"}}, StagedExtraction::Existing::Refuse),
              "the file \"exists\" already exists");
    EXPECT_EQ(snapshot_tree(dest()), before);
}

// Folders missing when a file is staged are not searched for files in the
// way; a file someone else puts there before commit() must still never be lost.
TEST_F(StagedExtractionTest, AFileThatAppearsInAFolderTheCallMadeIsNeverLost) {
    auto stageThenIntrude = [&](StagedExtraction::Existing existing) {
        return error_of<opc::Exception>([&] {
            fs::create_directories(dest());
            StagedExtraction extraction(dest(), existing);
            extraction.stage({"lib", "a.js"}, writes("ours"));
            fs::create_directories(dest() + "/lib");
            write_file(dest() + "/lib/a.js", "theirs");
            extraction.commit();
        });
    };
    EXPECT_EQ(stageThenIntrude(StagedExtraction::Existing::Refuse),
              "the file \"lib/a.js\" already exists");
    EXPECT_EQ(read_file(dest() + "/lib/a.js"), "theirs");
    EXPECT_EQ(snapshot_tree(dest()).size(), 2u);  // and no temporary file beside it

    fs::remove_all(dest());
    EXPECT_EQ(stageThenIntrude(StagedExtraction::Existing::Replace), "");
    EXPECT_EQ(read_file(dest() + "/lib/a.js"), "ours");
    EXPECT_EQ(snapshot_tree(dest()).size(), 2u);  // the old copy is not left behind
}

}  // namespace
