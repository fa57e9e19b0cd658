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

// Valid part names that no file system can hold: an encoded NUL, a segment
// longer than a file name, a path longer than the platform allows.
TEST_F(PathEscape, UnaddressablePathsAreRefusedBeforeAnythingIsWritten) {
    std::string fourKiB, deep;
    while (fourKiB.size() < 4096) fourKiB += "segment/";
    for (int i = 0; i < 10000; ++i) deep += "a/";
    for (const std::string& name :
         {std::string("a%00b.txt"), std::string("dir%00/x.txt"), std::string(4096, 'n') + ".txt",
          std::string(252, 'n') + ".txt", fourKiB + "x.txt", deep + "x.txt"}) {
        expectOpensButExtractionRefused(withItem(name), name.substr(0, 20));
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
