#include <gtest/gtest.h>

#include <xercesc/util/XMLUni.hpp>

#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

using namespace tsapp::test;

namespace {

const std::string kOpen =
    "<?xml version=\"1.0\"?>\n"
    "<appProperties xmlns=\"http://schemas.corvane.com/tessal/app/2012/appProperties\">";
const std::string kRequired =
    "<entryPoint>m</entryPoint><name>n</name><version>1</version>"
    "<createdByTESSALRelease>r</createdByTESSALRelease><GUID>g</GUID>";
const std::string kClose = "</appProperties>";

std::string manifest(const std::string& children) {
    return kOpen + children + kClose;
}

class ManifestSchema : public ::testing::Test {
  protected:
    std::string failure(const std::string& text) { return validationFailure(serializer, text); }
    bool valid(const std::string& text) { return failure(text).empty(); }

    AppManifestSerializer serializer;
};

}  // namespace

TEST_F(ManifestSchema, MinimalManifestIsValid) {
    EXPECT_EQ(failure(manifest(kRequired + "<supportedPlatforms/>")), "");
}

TEST_F(ManifestSchema, DocumentsTheSerializerBuildsAreValid) {
    ScopedTimeZone zone("UTC0");
    EXPECT_EQ(failure(serialized(serializer, fullRecord())), "");
}

TEST_F(ManifestSchema, ElementOrderAndRequiredElementsAreEnforced) {
    EXPECT_FALSE(valid(manifest(kRequired)));  // no supportedPlatforms
    EXPECT_FALSE(
        valid(manifest("<name>n</name><entryPoint>m</entryPoint><version>1</version>"
                       "<createdByTESSALRelease>r</createdByTESSALRelease><GUID>g</GUID>"
                       "<supportedPlatforms/>")));
    EXPECT_FALSE(valid(manifest(kRequired + "<supportedPlatforms/><summary>s</summary>")));
    EXPECT_FALSE(valid(
        manifest(kRequired + "<summary>a</summary><summary>b</summary><supportedPlatforms/>")));
    EXPECT_FALSE(valid(manifest(kRequired + "<supportedPlatforms/><unknown/>")));
}

TEST_F(ManifestSchema, EveryOptionalElementInItsPlaceIsValid) {
    EXPECT_EQ(failure(manifest(
                  kRequired +
                  "<summary/><description/><minTESSALVer/><maxTESSALVer/>"
                  "<author><name/><contact/><organization/></author>"
                  "<supportedPlatforms><platform/><platform>p</platform></supportedPlatforms>"
                  "<requiredProducts><product identifier='' name='' version=''/></requiredProducts>"
                  "<pathEntries><path/></pathEntries><numFiles>abc</numFiles>"
                  "<created>2024-01-01T00:00:00.5+02:00</created>"
                  "<appEntries><appFile>f</appFile></appEntries>")),
              "");
}

TEST_F(ManifestSchema, AuthorNeedsAllThreeChildren) {
    EXPECT_FALSE(
        valid(manifest(kRequired + "<author><name/><contact/></author><supportedPlatforms/>")));
}

TEST_F(ManifestSchema, ProductNeedsExactlyItsThreeAttributesAndNoContent) {
    const auto withProduct = [](const std::string& product) {
        return manifest(kRequired + "<supportedPlatforms/><requiredProducts>" + product +
                        "</requiredProducts>");
    };
    EXPECT_TRUE(valid(withProduct("<product identifier='i' name='n' version='v'/>")));
    EXPECT_FALSE(valid(withProduct("<product identifier='i' name='n'/>")));
    EXPECT_FALSE(valid(withProduct("<product name='n' version='v'/>")));
    EXPECT_FALSE(valid(withProduct("<product identifier='i' name='n' version='v' extra='x'/>")));
    EXPECT_FALSE(valid(withProduct("<product identifier='i' name='n' version='v'>text</product>")));
}

TEST_F(ManifestSchema, CreatedMustBeAnXsdDateTime) {
    const auto withCreated = [](const std::string& created) {
        return manifest(kRequired + "<supportedPlatforms/><created>" + created + "</created>");
    };
    EXPECT_TRUE(valid(withCreated("2024-03-05T06:07:08Z")));
    EXPECT_TRUE(valid(withCreated("1960-03-05T06:07:08")));
    EXPECT_FALSE(valid(withCreated("2024-03-05 06:07:08")));
    EXPECT_FALSE(valid(withCreated("yesterday")));
    EXPECT_FALSE(valid(withCreated("2024-02-30T00:00:00Z")));
    // What the builder writes for a record without a creation time.
    EXPECT_FALSE(valid(manifest(kRequired + "<supportedPlatforms/><created/>")));
}

TEST_F(ManifestSchema, RootOutsideTheNamespaceIsInvalid) {
    EXPECT_FALSE(valid("<appProperties>" + kRequired + "<supportedPlatforms/></appProperties>"));
    EXPECT_FALSE(valid("<appProperties xmlns='http://schemas.corvane.com/other'>" + kRequired +
                       "<supportedPlatforms/></appProperties>"));
}

TEST_F(ManifestSchema, PrefixedManifestIsValid) {
    EXPECT_TRUE(
        valid("<m:appProperties xmlns:m='http://schemas.corvane.com/tessal/app/2012/appProperties'>"
              "<m:entryPoint/><m:name/><m:version/><m:createdByTESSALRelease/><m:GUID/>"
              "<m:supportedPlatforms/></m:appProperties>"));
}

TEST_F(ManifestSchema, ConstructionLeavesNoErrorHandlerOnTheParser) {
    auto* parser = AppManifestSerializerTestPeer::parser(serializer);
    EXPECT_EQ(parser->getDomConfig()->getParameter(xercesc::XMLUni::fgDOMErrorHandler), nullptr);
    EXPECT_FALSE(valid("<broken"));
    EXPECT_TRUE(valid(manifest(kRequired + "<supportedPlatforms/>")));
}

TEST_F(ManifestSchema, DoctypeIsRefused) {
    EXPECT_FALSE(valid("<!DOCTYPE appProperties [<!ENTITY e 'x'>]>" +
                       manifest(kRequired + "<supportedPlatforms/>")));
}

// A schemaLocation hint must never replace or extend the compiled grammar:
// a permissive local schema does not make an invalid manifest valid, and a
// strict one does not make a valid manifest invalid.
TEST_F(ManifestSchema, SchemaLocationHintsAreIgnored) {
    TempDir dir;
    const std::string ns = "http://schemas.corvane.com/tessal/app/2012/appProperties";
    write_file(dir.file("open.xsd"),
               "<xsd:schema xmlns:xsd='http://www.w3.org/2001/XMLSchema' targetNamespace='" + ns +
                   "'><xsd:element name='appProperties'><xsd:complexType><xsd:sequence>"
                   "<xsd:any processContents='skip' minOccurs='0' maxOccurs='unbounded'/>"
                   "</xsd:sequence></xsd:complexType></xsd:element></xsd:schema>");
    write_file(dir.file("strict.xsd"),
               "<xsd:schema xmlns:xsd='http://www.w3.org/2001/XMLSchema' targetNamespace='" + ns +
                   "'><xsd:element name='appProperties'><xsd:complexType><xsd:sequence>"
                   "<xsd:element name='never' type='xsd:string'/>"
                   "</xsd:sequence></xsd:complexType></xsd:element></xsd:schema>");
    write_file(dir.file("nonamespace.xsd"),
               "<xsd:schema xmlns:xsd='http://www.w3.org/2001/XMLSchema'><xsd:element "
               "name='appProperties'/>"
               "</xsd:schema>");
    const auto hinted = [&](const std::string& file, const std::string& children) {
        return "<appProperties xmlns='" + ns +
               "' xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' xsi:schemaLocation='" + ns +
               " file://" + dir.file(file) + "'>" + children + "</appProperties>";
    };
    EXPECT_FALSE(valid(hinted("open.xsd", "<anything/>")));
    EXPECT_TRUE(valid(hinted("strict.xsd", kRequired + "<supportedPlatforms/>")));
    EXPECT_FALSE(
        valid("<appProperties xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
              "xsi:noNamespaceSchemaLocation='file://" +
              dir.file("nonamespace.xsd") + "'/>"));
}

TEST(ManifestVocabulary, NamespaceSharesTheSchemaHostWithTheRelationshipTypes) {
    const std::string ns = fl::i18n::to_string(AppManifestSerializer::NAMESPACE);
    const std::string host = Corvane::addons::apps::SCHEMA_HOST_URI;
    EXPECT_EQ(ns, host + "/tessal/app/2012/appProperties");
    EXPECT_EQ(
        std::string(Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE).rfind(host + "/", 0),
        0u);
    const std::string schema = AppManifestSerializer::SCHEMA;
    EXPECT_NE(schema.find("targetNamespace=\"" + ns + "\""), std::string::npos);
    EXPECT_NE(schema.find(" xmlns=\"" + ns + "\""), std::string::npos);
    EXPECT_EQ(schema.rfind("<?xml version=\"1.0\" encoding=\"utf-8\" standalone=\"no\"?>", 0), 0u);
}
