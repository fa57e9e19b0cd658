#include <gtest/gtest.h>

#include <typeinfo>

#include "facade/FacadeFixture.hpp"
#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

using namespace tsapp::test;
using namespace Corvane::addons::apps;

namespace {

class GetAppInfo : public ::testing::Test {
  protected:
    // The text of the std::runtime_error that reading `name` raises, or
    // "(read)". Any other exception type fails the test.
    std::string failure(const std::string& name) {
        try {
            facade.getAppInfo(dir.ufile(name));
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(typeid(e), typeid(std::runtime_error)) << typeid(e).name();
            return e.what();
        }
        return "(read)";
    }

    ScopedTimeZone zone{"Europe/Berlin"};
    TempDir dir;
    Tsappinstall facade;
    const std::string manifest = signed_manifest(fullRecord());
};

}  // namespace

// Neither the extension nor the content type is examined.
TEST_F(GetAppInfo, SignedManifestReadsBackWhereverTheRelationshipPointsFrom) {
    for (const char* target : {"manifest.xml", "/manifest.xml", "./x/../manifest.xml"}) {
        for (const char* name : {"app.tsappinstall", "app.zip"}) {
            app_package_with(manifest, target)
                .overrideType("/manifest.xml", "application/octet-stream")
                .write(dir.file(name));
            EXPECT_TRUE(same_record(facade.getAppInfo(dir.ufile(name)), fullRecordAsRead()))
                << target << " " << name;
        }
    }
    EXPECT_TRUE(same_record(facade.getAppInfo(dir.ufile("x/../app.zip")), fullRecordAsRead()));
}

TEST_F(GetAppInfo, NoSingleManifestRelationshipIsAnInvalidPackageInTheMessagesLocale) {
    std::string upper = APP_PROPERTIES_RELATIONSHIP_TYPE;
    upper.replace(upper.rfind("appProperties"), 3, "APP");  // types compare exactly
    const std::pair<const char*, PackageBuilder> cases[] = {
        {"none", PackageBuilder().part("manifest.xml", manifest)},
        {"norels", PackageBuilder().part("manifest.xml", manifest).withoutRelationships()},
        {"twice", app_package_with(manifest).relationship(
                      "rManifest2", APP_PROPERTIES_RELATIONSHIP_TYPE, "manifest.xml")},
        {"case",
         PackageBuilder().part("manifest.xml", manifest).relationship("m", upper, "manifest.xml")},
        // Only the package's own relationships count.
        {"partlevel",
         PackageBuilder()
             .part("manifest.xml", manifest)
             .part("_rels/manifest.xml.rels",
                   std::string("<Relationships xmlns=\"http://schemas.openxmlformats.org/"
                               "package/2006/relationships\"><Relationship Id=\"r\" Type=\"") +
                       APP_PROPERTIES_RELATIONSHIP_TYPE +
                       "\" Target=\"manifest.xml\"/></Relationships>")
             .withoutRelationships()},
    };
    for (const auto& [name, builder] : cases) {
        builder.write(dir.file(std::string(name) + ".tsappinstall"));
        EXPECT_EQ(failure(std::string(name) + ".tsappinstall"),
                  invalid_package_text(dir.file(std::string(name) + ".tsappinstall")))
            << name;
    }
    // The argument is the native form of the path, not the text as given.
    EXPECT_EQ(failure("sub/.././/twice.tsappinstall"),
              invalid_package_text(dir.file("twice.tsappinstall")));
    ScopedMessagesLocale german("de_DE.UTF-8");
    const std::string text = invalid_package_text(dir.file("twice.tsappinstall"));
    EXPECT_NE(text.find("ungültig"), std::string::npos) << text;
    EXPECT_EQ(failure("twice.tsappinstall"), text);
}

// Everything else is the internal error, the cause dropped, and no
// descriptor outlives a call.
TEST_F(GetAppInfo, EverythingElseIsTheInternalErrorAndLeaksNothing) {
    const std::pair<const char*, std::string> manifests[] = {
        {"schema", replaced(manifest, "<GUID>" + kFullGuid + "</GUID>", "")},
        {"broken", "<?xml version=\"1.0\"?><appProperties"},
        {"signature", replaced(manifest, "<summary>Short<", "<summary>Short.<")},
        {"count", replaced(manifest, "<numFiles>42<", "<numFiles>42x<")},
    };
    for (const auto& [name, text] : manifests)
        app_package_with(text).write(dir.file(std::string(name) + ".tsappinstall"));
    app_package_with(manifest, "missing.xml").write(dir.file("target.tsappinstall"));
    app_package_with(manifest, "http://example.com/manifest.xml")
        .write(dir.file("scheme.tsappinstall"));
    PackageBuilder()
        .part("manifest.xml", manifest)
        .relationship("m", APP_PROPERTIES_RELATIONSHIP_TYPE, "manifest.xml", "External")
        .write(dir.file("external.tsappinstall"));
    write_file(dir.file("text.tsappinstall"), "not a ZIP container\n");

    app_package_with(manifest).write(dir.file("good.tsappinstall"));
    const std::string good = read_file(dir.file("good.tsappinstall"));
    facade.getAppInfo(dir.ufile("good.tsappinstall"));  // first-use allocations out of the count
    const int before = open_descriptor_count();
    for (const char* name : {"schema", "broken", "signature", "count", "target", "scheme",
                             "external", "text", "missing"}) {
        EXPECT_EQ(failure(std::string(name) + ".tsappinstall"), internal_error_text()) << name;
    }
    EXPECT_EQ(failure(""), internal_error_text());  // a folder, not a package
    EXPECT_EQ(open_descriptor_count(), before);
    EXPECT_EQ(read_file(dir.file("good.tsappinstall")), good);  // only read
    EXPECT_THROW(facade.getAppInfo(std::u16string(u"a\0b.tsappinstall", 16)),
                 std::invalid_argument);
    EXPECT_THROW(facade.getAppInfo(u"a\xD800.tsappinstall"), fl::i18n::ConversionError);
}
