#include <gtest/gtest.h>

#include "facade/FacadeFixture.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

using Corvane::addons::apps::Tsappinstall;
using namespace tsapp::test;
namespace ids = tsapp_builtins::tsapp_builtins;

namespace {

std::string internal_error_text() {
    return ids::message_text(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR());
}

struct Extraction {
    TempDir dir;
    Tsappinstall facade;
    std::u16string package(const PackageBuilder& builder) {
        builder.write(dir.file("app.tsappinstall"));
        return dir.ufile("app.tsappinstall");
    }
};

}  // namespace

TEST(ExtractPart, IconIsCopiedByteForByteWhateverTheTargetSpelling) {
    for (const char* target :
         {"images/icon.png", "/images/icon.png", "./x/../images/icon.png", "/IMAGES/Icon.png"}) {
        Extraction x;
        const std::u16string package = x.package(app_package(target));
        write_file(x.dir.file("icon.png"), std::string(20000, 'o'));  // longer: must be truncated
        CerrCapture err;
        EXPECT_TRUE(x.facade.extractAppIcon(package, x.dir.ufile("icon.png"))) << target;
        EXPECT_EQ(read_file(x.dir.file("icon.png")), icon_bytes()) << target;
        EXPECT_EQ(err.text(), "");
    }
}

TEST(ExtractPart, ScreenshotAndAnyRelationshipTypeAreCopiedUnchanged) {
    Extraction x;
    const std::u16string package = x.package(app_package());
    EXPECT_TRUE(x.facade.extractAppScreenshot(package, x.dir.ufile("shot.png")));
    EXPECT_EQ(read_file(x.dir.file("shot.png")), icon_bytes(3000));
    EXPECT_TRUE(x.facade.extractPartContentFromTessalApp(
        package, u16(Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE),
        x.dir.ufile("m.xml")));
    EXPECT_EQ(read_file(x.dir.file("m.xml")), kManifestXml);
}

TEST(ExtractPart, TwoRelationshipsPrintInvalidPackageAndUseTheFirst) {
    Extraction x;
    const std::u16string package = x.package(app_package().relationship(
        "rIcon2", Corvane::addons::apps::PRIMARY_ICON_RELATIONSHIP_TYPE, "manifest.xml"));
    CerrCapture err;
    EXPECT_TRUE(x.facade.extractAppIcon(package, x.dir.ufile("icon.png")));
    EXPECT_EQ(read_file(x.dir.file("icon.png")), icon_bytes());
    EXPECT_EQ(err.text(), ids::message_text(ids::TSAPP_BUILTINS_INVALID_PACKAGE_ERROR(
                              x.dir.file("app.tsappinstall"))) +
                              "\n");
}

TEST(ExtractPart, MissingRelationshipOrUnopenableOutputIsQuietFalse) {
    Extraction x;
    const std::u16string package = x.package(PackageBuilder().part("manifest.xml", kManifestXml));
    write_file(x.dir.file("shot.png"), "keep me");
    CerrCapture err;
    EXPECT_FALSE(x.facade.extractAppScreenshot(package, x.dir.ufile("shot.png")));
    EXPECT_EQ(read_file(x.dir.file("shot.png")), "keep me");

    const std::u16string app = x.package(app_package());
    EXPECT_FALSE(x.facade.extractAppIcon(app, x.dir.ufile("no/such/folder/icon.png")));
    EXPECT_FALSE(x.facade.extractAppIcon(app, u""));
    EXPECT_FALSE(x.facade.extractAppIcon(app, u16(x.dir.path())));
    EXPECT_EQ(err.text(), "");
}

TEST(ExtractPart, PackageFailuresPrintTheInternalErrorWithoutNewline) {
    Extraction x;
    write_file(x.dir.file("text.tsappinstall"), "not a package");
    app_package("gone.png").write(x.dir.file("dangling.tsappinstall"));
    app_package("http://example.com/icon.png\" TargetMode=\"External")
        .write(x.dir.file("external.tsappinstall"));
    app_package().write(x.dir.file("damaged.tsappinstall"));
    ZipPatcher damaged(x.dir.file("damaged.tsappinstall"));
    damaged.bytes()[damaged.localHeader("images/icon.png") + 30 + 15 + 100] ^= 0x40;
    damaged.save();

    write_file(x.dir.file("out.png"), "untouched");
    const int before = open_descriptor_count();
    for (const char* name : {"missing", "text", "dangling", "external", "damaged"}) {
        CerrCapture err;
        EXPECT_FALSE(x.facade.extractAppIcon(x.dir.ufile(std::string(name) + ".tsappinstall"),
                                             x.dir.ufile("out.png")))
            << name;
        EXPECT_EQ(err.text(), internal_error_text()) << name;
    }
    CerrCapture err;
    EXPECT_FALSE(x.facade.extractAppIcon(u"", x.dir.ufile("out.png")));
    EXPECT_EQ(err.text(), internal_error_text());
    EXPECT_EQ(read_file(x.dir.file("out.png")), "untouched");
    EXPECT_EQ(open_descriptor_count(), before);
    EXPECT_THROW(x.facade.extractAppIcon(std::u16string(u"a\0b", 3), x.dir.ufile("out.png")),
                 std::invalid_argument);
    EXPECT_EQ(err.text(), internal_error_text());  // nothing more printed
}
