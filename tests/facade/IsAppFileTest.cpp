#include <gtest/gtest.h>

#include "facade/FacadeFixture.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

using Corvane::addons::apps::Tsappinstall;
using namespace tsapp::test;

TEST(IsAppFile, ValidPackageWithTheExactExtensionIsAnApp) {
    TempDir dir;
    app_package().write(dir.file("app.tsappinstall"));
    PackageBuilder().part("readme.xml", "<r/>").write(dir.file("bare.tsappinstall"));
    const std::string before = read_file(dir.file("app.tsappinstall"));
    Tsappinstall facade;
    EXPECT_TRUE(facade.isAppFile(dir.ufile("app.tsappinstall")));
    EXPECT_TRUE(facade.isAppFile(dir.ufile("app.tsappinstall")));
    EXPECT_EQ(read_file(dir.file("app.tsappinstall")), before);
    EXPECT_TRUE(
        facade.isAppFile(dir.ufile("bare.tsappinstall")));  // no manifest is still an app file
    EXPECT_TRUE(facade.isAppFile(dir.ufile("sub/../app.tsappinstall")));
}

TEST(IsAppFile, ExtensionMustMatchExactly) {
    TempDir dir;
    Tsappinstall facade;
    for (const char* name : {"app.TSAPPINSTALL", "app.Tsappinstall", "app.zip", "app",
                             "app.tsappinstall.zip", "app.tsappinstal", ".tsappinstall"}) {
        app_package().write(dir.file(name));
        EXPECT_FALSE(facade.isAppFile(dir.ufile(name))) << name;
    }
    EXPECT_FALSE(facade.isAppFile(u""));
    // The path conversion's own failure is not the package's.
    EXPECT_THROW(facade.isAppFile(std::u16string(u"a\0b.tsappinstall", 16)), std::invalid_argument);
}

TEST(IsAppFile, AnythingThatDoesNotOpenIsNoAppAndLeaksNothing) {
    TempDir dir;
    write_file(dir.file("text.tsappinstall"), "plain text, not a ZIP file\n");
    write_file(dir.file("empty.tsappinstall"), "");
    PackageBuilder()
        .withoutContentTypes()
        .part("a.xml", "<a/>")
        .write(dir.file("plainzip.tsappinstall"));
    PackageBuilder()
        .relationshipsXml("<!DOCTYPE x [<!ENTITY e SYSTEM \"file:///etc/passwd\">]><x>&e;</x>")
        .write(dir.file("doctype.tsappinstall"));
    app_package().part("Manifest.XML", "<dup/>").write(dir.file("dup.tsappinstall"));
    app_package().part("bad name.png", "x").write(dir.file("name.tsappinstall"));
    app_package().write(dir.file("crypt.tsappinstall"));
    ZipPatcher crypt(dir.file("crypt.tsappinstall"));
    crypt.put16Both("images/icon.png", 8, 6, 1);
    crypt.save();
    app_package().write(dir.file("bomb.tsappinstall"));
    ZipPatcher bomb(dir.file("bomb.tsappinstall"));
    bomb.put32(bomb.centralHeader("manifest.xml") + 20,
               100000);  // data runs over the icon's header
    bomb.save();

    Tsappinstall facade;
    const int before = open_descriptor_count();
    for (const char* name :
         {"text", "empty", "missing", "plainzip", "doctype", "dup", "name", "crypt", "bomb"}) {
        EXPECT_FALSE(facade.isAppFile(dir.ufile(std::string(name) + ".tsappinstall"))) << name;
    }
    EXPECT_EQ(open_descriptor_count(), before);
}
