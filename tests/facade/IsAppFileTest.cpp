#include <gtest/gtest.h>

#include "facade/FacadeFixture.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

using namespace tsapp::test;

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
