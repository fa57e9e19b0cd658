// Hostile XML in the three documents a package carries: the content types,
// the package relationships and the manifest.

#include "facade/FacadeFixture.hpp"
#include "manifest/ManifestTestSupport.hpp"

namespace tsapp::test {
namespace {

using namespace Corvane::addons::apps;

const std::string kTypesNs = "http://schemas.openxmlformats.org/package/2006/content-types";

std::string billionLaughs(const std::string& root) {
    std::string dtd = "<!DOCTYPE " + root + " [<!ENTITY l0 \"ha\">";
    for (int i = 1; i <= 9; ++i) {
        const std::string prev = "&l" + std::to_string(i - 1) + ";";
        dtd += "<!ENTITY l" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) dtd += prev;
        dtd += "\">";
    }
    return dtd + "]>";
}

std::string nested(int depth) {
    std::string open, close;
    for (int i = 0; i < depth; ++i) open += "<n>", close += "</n>";
    return open + close;
}

class XmlAttack : public FacadeFixture {
  protected:
    std::string signedManifest() { return signed_manifest(fullRecord()); }
    std::string defaultTypes() const { return PackageBuilder().contentTypesText(); }
    std::string defaultRels() const { return app_package().relationshipsText(); }
    // An app package whose manifest, content types and relationships are
    // the given texts ("": the usual ones).
    std::string package(const std::string& manifest, const std::string& types = "",
                        const std::string& rels = "") {
        PackageBuilder()
            .contentTypesXml(types)
            .relationshipsXml(rels.empty() ? defaultRels() : rels)
            .part("manifest.xml", manifest)
            .part("images/icon.png", icon_bytes(), false)
            .write(pkg());
        return pkg();
    }
    std::string readError(const std::string& description) {
        return ids::message_text(ids::TSAPP_BUILTINS_XML_READ_ERROR(description));
    }
    // A manifest the package opens with but getAppInfo refuses; extraction
    // never reads it, so it lands unchanged.
    void expectManifestRefused(const std::string& manifest) {
        package(manifest);
        EXPECT_TRUE(facade.isAppFile(u16(pkg())));
        EXPECT_EQ(appInfoError(pkg()), internal_error_text());
        EXPECT_EQ(extractError(pkg()), "");
        EXPECT_TRUE(read_file(dest() + "/manifest.xml") == manifest);
    }

    ScopedTimeZone zone{"UTC"};
};

// Billion laughs costs neither time nor memory: the entities are never expanded.
TEST_F(XmlAttack, DoctypesAreRefusedInEveryDocument) {
    const long before = peak_rss_kib();
    write_file(dir.file("local.dtd"), "<!ENTITY e \"x\">");
    const std::string dtds[] = {
        "<!DOCTYPE r SYSTEM \"http://127.0.0.1:9/external.dtd\">",
        "<!DOCTYPE r SYSTEM \"file://" + dir.file("local.dtd") + "\">",
        "<!DOCTYPE r [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>",
        billionLaughs("r"),
    };
    for (const std::string& dtd : dtds) {
        SCOPED_TRACE(dtd.substr(0, 60));
        const std::string decl = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
        expectRefusedEverywhere(
            package(kManifestXml, decl + dtd + defaultTypes().substr(decl.size() + 1)));
        expectRefusedEverywhere(
            package(kManifestXml, "", decl + dtd + defaultRels().substr(decl.size() + 1)));
        const std::string manifest = replaced(signedManifest(), "?>", "?>" + dtd);
        expectManifestRefused(manifest);
        EXPECT_EQ(load_result(manifest),
                  readError("line 1, column 66: invalid document structure"));
    }
    expectRefusedEverywhere(package(
        kManifestXml, billionLaughs("Types") + "<Types xmlns=\"" + kTypesNs + "\">&l9;</Types>"));
    EXPECT_LT(peak_rss_kib() - before, 64 * 1024) << "KiB more at the peak";
}

TEST_F(XmlAttack, SchemaLocationHintsAreNeverLoaded) {
    // Were the hint followed, this schema would fail the read: it is not
    // even well-formed.
    write_file(dir.file("evil.xsd"), "<xs:schema this is not a schema");
    const std::string hint =
        " xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
        "xsi:schemaLocation=\"http://schemas.corvane.com/tessal/app/2012/"
        "appProperties file://" +
        dir.file("evil.xsd") + "\" xsi:noNamespaceSchemaLocation=\"file://" + dir.file("evil.xsd") +
        "\"";
    package(replaced(signedManifest(), "<appProperties", "<appProperties" + hint));
    EXPECT_TRUE(same_record(facade.getAppInfo(u16(pkg())), fullRecord()));
}

TEST_F(XmlAttack, DeepNestingIsRefusedAtTheDepthLimit) {
    // Each open element slows the parse of every element below it, so
    // 100 000 levels would take minutes; the parse stops at 256.
    const auto insideTypes = [&](const std::string& content) {
        return replaced(defaultTypes(), "ContentType=\"image/png\"/>",
                        "ContentType=\"image/png\">" + content + "</Default>");
    };
    const auto insideRels = [&](const std::string& content) {
        return replaced(defaultRels(), "Target=\"images/icon.png\"/>",
                        "Target=\"images/icon.png\">" + content + "</Relationship>");
    };
    expectRefusedEverywhere(package(kManifestXml, insideTypes(nested(100000))));
    expectRefusedEverywhere(package(kManifestXml, "", insideRels(nested(100000))));
    // What the package layer ignores inside an element may nest up to the
    // limit: the root and its child are two levels.
    package(kManifestXml, insideTypes(nested(254)), insideRels(nested(254)));
    std::string printed;
    EXPECT_TRUE(extractPart(pkg(), printed));
    EXPECT_EQ(read_file(iconOut()), icon_bytes());
    expectRefusedEverywhere(package(kManifestXml, insideTypes(nested(255))));

    const std::string manifest = replaced(signedManifest(), "<summary>Short</summary>",
                                          "<summary>Short" + nested(100000) + "</summary>");
    expectManifestRefused(manifest);
    EXPECT_EQ(load_result(manifest),
              readError("the XML document nests elements deeper than 256 levels"));
}

TEST_F(XmlAttack, FiftyMegabyteDocumentsAreCutOffAtTheLimit) {
    const std::string filler(50u << 20, 'x');
    const std::string manifest = replaced(signedManifest(), "<summary>Short", "<summary>" + filler);
    expectManifestRefused(manifest);
    EXPECT_EQ(load_result(manifest), readError("the XML document is larger than 16777216 bytes"));
    expectRefusedEverywhere(package(
        kManifestXml, replaced(defaultTypes(), "</Types>", "<!--" + filler + "--></Types>")));
}

TEST_F(XmlAttack, InvalidUtf8IsRefusedInEveryDocument) {
    const std::string bad = "\xC3\x28\xFF";
    expectRefusedEverywhere(
        package(kManifestXml, replaced(defaultTypes(), "image/png", "image/p" + bad)));
    expectRefusedEverywhere(
        package(kManifestXml, "", replaced(defaultRels(), "rIcon", "rI" + bad)));
    const std::string manifest = replaced(signedManifest(), ">Short<", ">Sh" + bad + "<");
    expectManifestRefused(manifest);
    EXPECT_EQ(load_result(manifest),
              readError("line 1, column 57: invalid byte '(' at position 2 of a 2-byte sequence"));
}

// XML 1.1 admits control characters as references, which no XML 1.0 text
// holds: the seal's XML 1.0 text of such a manifest cannot be written.
TEST_F(XmlAttack, Xml11IsRefusedInEveryDocument) {
    const auto xml11 = [](const std::string& text) {
        return replaced(text, "version=\"1.0\"", "version=\"1.1\"");
    };
    expectRefusedEverywhere(package(kManifestXml, xml11(defaultTypes())));
    expectRefusedEverywhere(package(kManifestXml, "", xml11(defaultRels())));
    const std::string manifest = xml11(replaced(signedManifest(), ">Short<", ">Sh&#x1b;ort<"));
    expectManifestRefused(manifest);
    EXPECT_EQ(load_result(manifest), readError("the XML document is XML 1.1, not XML 1.0"));
}

// xsd:dateTime allows years the date types cannot hold. A direct caller
// of the serializer sees the date library's own error; the facade reports
// its internal error and lets nothing else escape.
TEST_F(XmlAttack, CreationTimesOutsideTheDateRangeNeverEscapeTheFacade) {
    for (const char* year : {"0223", "1399", "1969"}) {
        SCOPED_TRACE(year);
        const std::string manifest =
            replaced(signedManifest(), "<created>2024-", std::string("<created>") + year + "-");
        expectManifestRefused(manifest);
        EXPECT_EQ(load_result(manifest).rfind("out_of_range: ", 0), 0u);
    }
}

}  // namespace
}  // namespace tsapp::test
