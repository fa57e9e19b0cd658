#include <gtest/gtest.h>

#include "facade/FacadeFixture.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

using namespace Corvane::addons::apps;
using namespace tsapp::test;

namespace {

struct Extraction {
    TempDir dir;
    Tsappinstall facade;
    std::u16string package(const PackageBuilder& builder) {
        builder.write(dir.file("app.tsappinstall"));
        return dir.ufile("app.tsappinstall");
    }
};

}  // namespace

TEST(ExtractPart, PartsAreCopiedByteForByteWhateverTheTargetSpelling) {
    for (const char* target :
         {"images/icon.png", "/images/icon.png", "./x/../images/icon.png", "/IMAGES/Icon.png"}) {
        Extraction x;
        const std::u16string package = x.package(app_package(target));
        write_file(x.dir.file("icon.png"), std::string(20000, 'o'));  // longer: must be truncated
        CerrCapture err;
        EXPECT_TRUE(x.facade.extractAppIcon(package, x.dir.ufile("icon.png"))) << target;
        EXPECT_EQ(read_file(x.dir.file("icon.png")), icon_bytes()) << target;
        EXPECT_TRUE(x.facade.extractAppScreenshot(package, x.dir.ufile("shot.png")));
        EXPECT_EQ(read_file(x.dir.file("shot.png")), icon_bytes(3000));
        EXPECT_TRUE(x.facade.extractPartContentFromTessalApp(
            package, u16(APP_PROPERTIES_RELATIONSHIP_TYPE), x.dir.ufile("m.xml")));
        EXPECT_EQ(read_file(x.dir.file("m.xml")), kManifestXml);
        EXPECT_EQ(err.text(), "");
    }
}

TEST(ExtractPart, TwoRelationshipsPrintInvalidPackageAndUseTheFirst) {
    Extraction x;
    const std::u16string package = x.package(
        app_package().relationship("rIcon2", PRIMARY_ICON_RELATIONSHIP_TYPE, "manifest.xml"));
    CerrCapture err;
    EXPECT_TRUE(x.facade.extractAppIcon(package, x.dir.ufile("icon.png")));
    EXPECT_EQ(read_file(x.dir.file("icon.png")), icon_bytes());
    EXPECT_EQ(err.text(), invalid_package_text(x.dir.file("app.tsappinstall")) + "\n");
}

TEST(ExtractPart, MissingRelationshipOrUnopenableOutputIsQuietFalse) {
    Extraction x;
    const std::u16string package = x.package(PackageBuilder().part("manifest.xml", kManifestXml));
    write_file(x.dir.file("shot.png"), "keep me");
    CerrCapture err;
    EXPECT_FALSE(x.facade.extractAppScreenshot(package, x.dir.ufile("shot.png")));
    EXPECT_EQ(read_file(x.dir.file("shot.png")), "keep me");

    const std::u16string app = x.package(app_package());
    for (const std::u16string& out :
         {x.dir.ufile("no/such/folder/icon.png"), std::u16string(), x.dir.ufile("")}) {
        EXPECT_FALSE(x.facade.extractAppIcon(app, out));
    }
    EXPECT_EQ(err.text(), "");
}

TEST(ExtractPart, PackageFailuresPrintTheInternalErrorWithoutNewline) {
    Extraction x;
    write_file(x.dir.file("out.png"), "untouched");
    const int before = open_descriptor_count();
    CerrCapture err;
    EXPECT_FALSE(x.facade.extractAppIcon(u"", x.dir.ufile("out.png")));
    EXPECT_EQ(err.text(), internal_error_text());
    EXPECT_EQ(read_file(x.dir.file("out.png")), "untouched");
    EXPECT_EQ(open_descriptor_count(), before);
    EXPECT_THROW(x.facade.extractAppIcon(std::u16string(u"a\0b", 3), x.dir.ufile("out.png")),
                 std::invalid_argument);
    EXPECT_EQ(err.text(), internal_error_text());  // nothing more printed
}

// What does not open is covered by the hostile-input tests.
TEST(IsAppFile, AnOpeningPackageWithTheExactExtensionIsAnApp) {
    TempDir dir;
    Corvane::addons::apps::Tsappinstall facade;
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
}
