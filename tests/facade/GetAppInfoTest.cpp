#include <gtest/gtest.h>

#include <typeinfo>

#include "facade/GetAppInfoTestSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/platform/filesystem/Path.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

using namespace tsapp::test;
using Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE;

namespace {

class GetAppInfo : public ::testing::Test {
  protected:
    // The text of the std::runtime_error that reading `name` raises, or
    // "(read)". Any other exception type fails the test.
    std::string failure(const std::string& name) { return failureAt(dir.ufile(name)); }
    std::string failureAt(const std::u16string& path) {
        try {
            facade.getAppInfo(path);
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(typeid(e), typeid(std::runtime_error)) << typeid(e).name();
            return e.what();
        }
        return "(read)";
    }
    std::string invalidPackage(const std::string& name) const {
        return invalid_package_text(dir.file(name));
    }

    ScopedTimeZone zone{"Europe/Berlin"};
    TempDir dir;
    Tsappinstall facade;
    const std::string internalError = internal_error_text();
};

std::string without(std::string text, const std::string& piece) {
    const std::size_t at = text.find(piece);
    EXPECT_NE(at, std::string::npos) << piece;
    if (at != std::string::npos) text.erase(at, piece.size());
    return text;
}

}  // namespace

TEST_F(GetAppInfo, SignedManifestReadsBackWhereverTheRelationshipPointsFrom) {
    const std::string manifest = signed_manifest(fullRecord());
    for (const char* target : {"manifest.xml", "/manifest.xml", "./manifest.xml"}) {
        app_package_with(manifest, target).write(dir.file("app.tsappinstall"));
        EXPECT_TRUE(
            same_record(facade.getAppInfo(dir.ufile("app.tsappinstall")), fullRecordAsRead()))
            << target;
    }
    app_package_with(manifest, "meta/../meta/app.xml", "meta/app.xml")
        .write(dir.file("nested.tsappinstall"));
    EXPECT_TRUE(
        same_record(facade.getAppInfo(dir.ufile("nested.tsappinstall")), fullRecordAsRead()));
    // The path is taken in native form: relative and unnormalised works too.
    EXPECT_TRUE(
        same_record(facade.getAppInfo(dir.ufile("x/../nested.tsappinstall")), fullRecordAsRead()));
}

TEST_F(GetAppInfo, ContactAndOrganizationAreOnlyWrittenBesideAName) {
    AppManifest record = fullRecord();
    record.authorName.clear();
    app_package_with(signed_manifest(record)).write(dir.file("app.tsappinstall"));
    AppManifest expected = fullRecordAsRead();
    expected.authorName.clear();
    expected.authorContact.clear();
    expected.authorOrganization.clear();
    EXPECT_TRUE(same_record(facade.getAppInfo(dir.ufile("app.tsappinstall")), expected));
}

TEST_F(GetAppInfo, NeitherExtensionNorContentTypeIsExamined) {
    const std::string manifest = signed_manifest(fullRecord());
    for (const char* name : {"app.zip", "app", "app.TSAPPINSTALL"}) {
        app_package_with(manifest).write(dir.file(name));
        EXPECT_TRUE(same_record(facade.getAppInfo(dir.ufile(name)), fullRecordAsRead())) << name;
    }
    app_package_with(manifest)
        .overrideType("/manifest.xml", "application/octet-stream")
        .write(dir.file("typed.tsappinstall"));
    EXPECT_TRUE(
        same_record(facade.getAppInfo(dir.ufile("typed.tsappinstall")), fullRecordAsRead()));
}

TEST_F(GetAppInfo, NoSingleManifestRelationshipIsAnInvalidPackage) {
    const std::string manifest = signed_manifest(fullRecord());
    PackageBuilder()
        .part("manifest.xml", manifest)
        .relationship("rIcon", Corvane::addons::apps::PRIMARY_ICON_RELATIONSHIP_TYPE,
                      "manifest.xml")
        .write(dir.file("none.tsappinstall"));
    PackageBuilder()
        .part("manifest.xml", manifest)
        .withoutRelationships()
        .write(dir.file("norels.tsappinstall"));
    app_package_with(manifest)
        .part("other.xml", manifest)
        .relationship("rManifest2", APP_PROPERTIES_RELATIONSHIP_TYPE, "other.xml")
        .write(dir.file("two.tsappinstall"));
    // Two relationships to the same valid part are still two.
    app_package_with(manifest)
        .relationship("rManifest2", APP_PROPERTIES_RELATIONSHIP_TYPE, "/manifest.xml")
        .write(dir.file("twice.tsappinstall"));
    // The type is compared exactly, and only the package's own relationships count.
    std::string upper = APP_PROPERTIES_RELATIONSHIP_TYPE;
    upper.replace(upper.rfind("appProperties"), 3, "APP");
    PackageBuilder()
        .part("manifest.xml", manifest)
        .relationship("rManifest", upper, "manifest.xml")
        .write(dir.file("case.tsappinstall"));
    PackageBuilder()
        .part("manifest.xml", manifest)
        .part("_rels/manifest.xml.rels",
              std::string("<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/"
                          "relationships\"><Relationship Id=\"r\" Type=\"") +
                  APP_PROPERTIES_RELATIONSHIP_TYPE + "\" Target=\"manifest.xml\"/></Relationships>")
        .withoutRelationships()
        .write(dir.file("partlevel.tsappinstall"));

    for (const char* name : {"none", "norels", "two", "twice", "case", "partlevel"}) {
        const std::string file = std::string(name) + ".tsappinstall";
        EXPECT_EQ(failure(file), invalidPackage(file)) << name;
    }
    // The argument is the native form of the path, not the text as given.
    EXPECT_EQ(failure("sub/.././/two.tsappinstall"), invalidPackage("two.tsappinstall"));
}

TEST_F(GetAppInfo, InvalidPackageTextFollowsTheMessagesLocale) {
    app_package_with(signed_manifest(fullRecord()))
        .relationship("rManifest2", APP_PROPERTIES_RELATIONSHIP_TYPE, "/manifest.xml")
        .write(dir.file("two.tsappinstall"));
    ScopedMessagesLocale german("de_DE.UTF-8");
    const std::string text = invalidPackage("two.tsappinstall");
    EXPECT_NE(text.find("ungültig"), std::string::npos) << text;
    EXPECT_EQ(failure("two.tsappinstall"), text);
}

TEST_F(GetAppInfo, EverythingElseIsTheInternalErrorAndTheCauseIsDropped) {
    const std::string manifest = signed_manifest(fullRecord());
    app_package_with(manifest, "missing.xml").write(dir.file("target.tsappinstall"));
    app_package_with(manifest, "http://example.com/manifest.xml")
        .write(dir.file("scheme.tsappinstall"));
    PackageBuilder()
        .part("manifest.xml", manifest)
        .relationship("rManifest", APP_PROPERTIES_RELATIONSHIP_TYPE, "manifest.xml", "External")
        .write(dir.file("external.tsappinstall"));
    app_package_with(without(manifest, "<GUID>" + kFullGuid + "</GUID>"))
        .write(dir.file("schema.tsappinstall"));
    app_package_with("<?xml version=\"1.0\"?><appProperties")
        .write(dir.file("broken.tsappinstall"));
    app_package_with(replaced(manifest, "<summary>Short<", "<summary>Short.<"))
        .write(dir.file("signature.tsappinstall"));
    std::string unsigned_ = manifest;
    unsigned_.erase(unsigned_.find(" signature=\""), 53);
    app_package_with(unsigned_).write(dir.file("unsigned.tsappinstall"));
    app_package_with(replaced(manifest, "<numFiles>42<", "<numFiles>42x<"))
        .write(dir.file("count.tsappinstall"));
    app_package_with(manifest).write(dir.file("crc.tsappinstall"));
    ZipPatcher crc(dir.file("crc.tsappinstall"));
    crc.put32(crc.centralHeader("manifest.xml") + 16,
              crc.get32(crc.centralHeader("manifest.xml") + 16) ^ 1);
    crc.put32(crc.localHeader("manifest.xml") + 14,
              crc.get32(crc.localHeader("manifest.xml") + 14) ^ 1);
    crc.save();
    write_file(dir.file("text.tsappinstall"), "not a ZIP container\n");
    write_file(dir.file("empty.tsappinstall"), "");
    write_file(dir.file("long.tsappinstall"), std::string(4096, 'P'));
    PackageBuilder()
        .withoutContentTypes()
        .part("manifest.xml", manifest)
        .write(dir.file("plainzip.tsappinstall"));

    for (const char* name :
         {"target", "scheme", "external", "schema", "broken", "signature", "unsigned", "count",
          "crc", "text", "empty", "long", "plainzip", "missing"}) {
        EXPECT_EQ(failure(std::string(name) + ".tsappinstall"), internalError) << name;
    }
    EXPECT_EQ(failure(""), internalError);  // a folder, not a package
    EXPECT_EQ(failureAt(u""), internalError);
}

TEST_F(GetAppInfo, PathConversionErrorsPassUnchanged) {
    EXPECT_THROW(facade.getAppInfo(std::u16string(u"a\0b.tsappinstall", 16)),
                 std::invalid_argument);
    EXPECT_THROW(facade.getAppInfo(u"a\xD800.tsappinstall"), fl::i18n::ConversionError);
}

TEST_F(GetAppInfo, NoDescriptorOutlivesACall) {
    const std::string manifest = signed_manifest(fullRecord());
    app_package_with(manifest).write(dir.file("good.tsappinstall"));
    app_package_with(manifest)
        .relationship("rManifest2", APP_PROPERTIES_RELATIONSHIP_TYPE, "/manifest.xml")
        .write(dir.file("two.tsappinstall"));
    app_package_with(manifest, "missing.xml").write(dir.file("target.tsappinstall"));
    app_package_with(replaced(manifest, "<summary>Short<", "<summary>Short.<"))
        .write(dir.file("signature.tsappinstall"));
    write_file(dir.file("text.tsappinstall"), "not a ZIP container\n");

    facade.getAppInfo(dir.ufile("good.tsappinstall"));  // first-use allocations out of the count
    const int before = open_descriptor_count();
    for (int round = 0; round < 3; ++round) {
        facade.getAppInfo(dir.ufile("good.tsappinstall"));
        for (const char* name : {"two", "target", "signature", "text", "missing"})
            EXPECT_THROW(facade.getAppInfo(dir.ufile(std::string(name) + ".tsappinstall")),
                         std::runtime_error);
    }
    EXPECT_EQ(open_descriptor_count(), before);
}

TEST_F(GetAppInfo, TheFileIsOnlyRead) {
    app_package_with(signed_manifest(fullRecord())).write(dir.file("app.tsappinstall"));
    const std::string before = read_file(dir.file("app.tsappinstall"));
    facade.getAppInfo(dir.ufile("app.tsappinstall"));
    EXPECT_EQ(read_file(dir.file("app.tsappinstall")), before);
}
