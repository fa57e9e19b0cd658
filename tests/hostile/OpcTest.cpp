// Packages whose ZIP container is sound but whose OPC content misleads:
// colliding part names, relationships that point where they should not, and
// item names that try to leave the destination folder or make paths no
// caller can address.

#include <sys/stat.h>
#include <unistd.h>

#include "facade/FacadeFixture.hpp"

namespace tsapp::test {
namespace {

using Opc = FacadeFixture;

// isAppFile and every call of the facade answer at once for a FIFO (whose
// open() would wait for a writer), a socket, a device and a folder.
TEST_F(Opc, OnlyRegularFilesOpenAndNoneBlocks) {
    ASSERT_EQ(::mkfifo(dir.file("fifo.tsappinstall").c_str(), 0600), 0);
    std::filesystem::create_directory(dir.file("folder.tsappinstall"));
    ::alarm(30);  // a regression fails here instead of hanging the suite
    for (const std::string package : {"fifo.tsappinstall", "folder.tsappinstall"})
        expectRefusedEverywhere(dir.file(package), package);
    expectRefusedEverywhere("/dev/null", "a device");
    ::alarm(0);
}

TEST_F(Opc, DuplicateCaseVariantAndFolderLikePartNamesNeverOpen) {
    for (const char* twin : {"images/icon.png", "MANIFEST.XML", "Manifest.xml", "images/ICON.png",
                             "IMAGES/icon.png", "%6Danifest.xml", "images", "Images"}) {
        app_package().part(twin, "twin").write(pkg());
        expectRefusedEverywhere(pkg(), twin);
    }
}

// The manifest and icon relationships both lead nowhere readable: the
// package opens and extracts, getAppInfo raises the internal error, the
// icon is not copied and the internal error is printed.
TEST_F(Opc, RelationshipTargetsThatAreNoPartsAreRefused) {
    for (const char* target :
         {"..", "../", "/..", "../..", "/[Content_Types].xml", "[Content_Types].xml",
          "/missing.png", "/images", "/images/", "http://example.com/icon.png",
          "file:///etc/passwd", "//host/icon.png", "images/icon.png#frag", "images/icon.png?q",
          "images/icon%2Epng", "/manifest.xml\" TargetMode=\"External"}) {
        SCOPED_TRACE(target);
        app_package(kManifestXml, target, target).write(pkg());
        EXPECT_TRUE(facade.isAppFile(u16(pkg())));
        EXPECT_EQ(appInfoError(pkg()), internal_error_text());
        std::string printed;
        EXPECT_FALSE(extractPart(pkg(), printed));
        EXPECT_EQ(printed, internal_error_text());
        EXPECT_EQ(read_file(iconOut()), "an older icon");
        EXPECT_EQ(extractError(pkg()), "");
    }
    // Extra ".." segments stop at the root, which holds the real icon.
    app_package(kManifestXml, "/manifest.xml", "../../../images/icon.png").write(pkg());
    std::string printed;
    EXPECT_TRUE(extractPart(pkg(), printed));
    EXPECT_EQ(read_file(iconOut()), icon_bytes());
}

class PathEscape : public FacadeFixture {
  protected:
    std::string withItem(const std::string& itemName) {
        app_package().defaultType("txt", "text/plain").part(itemName, "escaped").write(pkg());
        return pkg();
    }
};

TEST_F(PathEscape, DotSegmentsAbsoluteNamesAndEncodedSeparatorsNeverOpen) {
    for (const char* name :
         {"../x.txt", "a/../../x.txt", "/abs.txt", "a\\..\\x.txt", "%2e%2e/x.txt", "%2E%2E/x.txt",
          "a/%2F/x.txt", "a/%5C/x.txt", "a/./x.txt", "./x.txt", "a//x.txt", "..", "a/.."}) {
        expectRefusedEverywhere(withItem(name), name);
    }
}

// Valid part names that no file system can hold: an encoded NUL, a segment
// longer than a file name, a path longer than the platform allows.
TEST_F(PathEscape, UnaddressablePathsAreRefusedBeforeAnythingIsWritten) {
    std::string fourKiB, deep;
    while (fourKiB.size() < 4096) fourKiB += "segment/";
    for (int i = 0; i < 10000; ++i) deep += "a/";
    for (const std::string& name :
         {std::string("a%00b.txt"), std::string("dir%00/x.txt"), std::string(4096, 'n') + ".txt",
          std::string(252, 'n') + ".txt", fourKiB + "x.txt", deep + "x.txt"}) {
        SCOPED_TRACE(name.substr(0, 20));
        expectOnlyExtractionRefused(withItem(name));
    }
    // Long but addressable paths still extract.
    std::string path;
    while (path.size() < 3000) path += "segment/";
    facade.extractAppFile(u16(withItem(path + "x.txt")), u16(dest()));
    EXPECT_EQ(read_file(dest() + "/" + path + "x.txt"), "escaped");
    EXPECT_EQ(read_file(dest() + "/files/own.txt"), "the caller's own file");
}

}  // namespace
}  // namespace tsapp::test
