// Item names that try to leave the destination folder, or to make paths no
// caller can address.

#include "hostile/HostileFixture.hpp"

namespace tsapp::test {
namespace {

class PathEscape : public Hostile {
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

TEST_F(PathEscape, ARawNulInAnItemNameIsRefusedByTheContainer) {
    withItem("a_b.txt");
    ZipPatcher patch(pkg());
    patch.bytes()[patch.centralHeader("a_b.txt") + 46 + 1] = '\0';
    patch.bytes()[patch.localHeader("a_b.txt") + 30 + 1] = '\0';
    patch.save();
    expectRefusedEverywhere(pkg());
}

TEST_F(PathEscape, AnEncodedNulIsAValidPartNameButNeverAFileName) {
    expectOpensButExtractionRefused(withItem("a%00b.txt"));
    expectOpensButExtractionRefused(withItem("dir%00/x.txt"));
}

TEST_F(PathEscape, ASegmentLongerThanAFileNameIsRefusedBeforeAnythingIsWritten) {
    expectOpensButExtractionRefused(withItem(std::string(4096, 'n') + ".txt"), "4 KiB segment");
    expectOpensButExtractionRefused(withItem(std::string(252, 'n') + ".txt"), "one over the limit");
}

TEST_F(PathEscape, PathsLongerThanThePlatformAllowsAreRefused) {
    // Short segments, so that only the length of the whole path is wrong.
    std::string fourKiB;
    while (fourKiB.size() < 4096) fourKiB += "segment/";
    expectOpensButExtractionRefused(withItem(fourKiB + "x.txt"), "4 KiB path");

    std::string deep;
    for (int i = 0; i < 10000; ++i) deep += "a/";
    expectOpensButExtractionRefused(withItem(deep + "x.txt"), "10,000 segments");
}

TEST_F(PathEscape, LongButAddressablePathsStillExtract) {
    std::string path;
    while (path.size() < 3000) path += "segment/";
    facade.extractAppFile(u16(withItem(path + "x.txt")), u16(dest()));
    EXPECT_EQ(read_file(dest() + "/" + path + "x.txt"), "escaped");
    EXPECT_EQ(read_file(dest() + "/files/own.txt"), "the caller's own file");
}

}  // namespace
}  // namespace tsapp::test
