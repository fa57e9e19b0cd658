#include <gtest/gtest.h>

#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"

using namespace tsapp::test;

namespace {

// The canonical texts are the signature's input: any change to how a record
// is built or written must show up here.
const std::string kEmptyRecordText =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n"
    "<appProperties xmlns=\"http://schemas.corvane.com/tessal/app/2012/appProperties\">\n"
    "\n"
    "  <entryPoint></entryPoint>\n"
    "\n"
    "  <name></name>\n"
    "\n"
    "  <version></version>\n"
    "\n"
    "  <createdByTESSALRelease></createdByTESSALRelease>\n"
    "\n"
    "  <GUID></GUID>\n"
    "\n"
    "  <supportedPlatforms/>\n"
    "\n"
    "  <requiredProducts/>\n"
    "\n"
    "  <numFiles>0</numFiles>\n"
    "\n"
    "  <created></created>\n"
    "\n"
    "</appProperties>\n";

const std::string kFullRecordText =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n"
    "<appProperties xmlns=\"http://schemas.corvane.com/tessal/app/2012/appProperties\">\n"
    "\n"
    "  <entryPoint>main.js</entryPoint>\n"
    "\n"
    "  <name>Sample &amp; &lt;App&gt;</name>\n"
    "\n"
    "  <version>1.2.3</version>\n"
    "\n"
    "  <createdByTESSALRelease>14.1</createdByTESSALRelease>\n"
    "\n"
    "  <GUID>{3F2504E0-4F89-11D3-9A0C-0305E82C3301}</GUID>\n"
    "\n"
    "  <summary>Short</summary>\n"
    "\n"
    "  <description>Long \"text\"\n"
    "with line</description>\n"
    "\n"
    "  <minTESSALVer>13.0</minTESSALVer>\n"
    "\n"
    "  <maxTESSALVer>15.0</maxTESSALVer>\n"
    "\n"
    "  <author>\n"
    "    <name>Jane Doe</name>\n"
    "    <contact>jane@example.com</contact>\n"
    "    <organization>Ex\xc3\xa4mple GmbH</organization>\n"
    "  </author>\n"
    "\n"
    "  <supportedPlatforms>\n"
    "    <platform>win64</platform>\n"
    "    <platform>linux64</platform>\n"
    "  </supportedPlatforms>\n"
    "\n"
    "  <requiredProducts>\n"
    "    <product identifier=\"prod.a\" name=\"Product A\" version=\"1.0\"/>\n"
    "    <product identifier=\"prod.b\" name=\"B\" version=\"\"/>\n"
    "  </requiredProducts>\n"
    "\n"
    "  <pathEntries>\n"
    "    <path>lib</path>\n"
    "    <path>data</path>\n"
    "  </pathEntries>\n"
    "\n"
    "  <numFiles>42</numFiles>\n"
    "\n"
    "  <created>2024-03-05T06:07:08Z</created>\n"
    "\n"
    "  <appEntries>\n"
    "    <appFile>main.js</appFile>\n"
    "    <appFile>lib/util.js</appFile>\n"
    "  </appEntries>\n"
    "\n"
    "</appProperties>\n";

// The serialized text of a record that differs from the empty one by `edit`.
template <typename Edit>
std::string textOf(Edit edit) {
    AppManifestSerializer serializer;
    AppManifest record;
    edit(record);
    return serialized(serializer, record);
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(ManifestDocument, EmptyRecordGivesTheGoldenText) {
    AppManifestSerializer serializer;
    EXPECT_EQ(serialized(serializer, AppManifest()), kEmptyRecordText);
}

TEST(ManifestDocument, FullRecordGivesTheGoldenTextInUtcWholeSeconds) {
    ScopedTimeZone zone("Etc/GMT-2");
    AppManifestSerializer serializer;
    EXPECT_EQ(serialized(serializer, fullRecord()), kFullRecordText);
}

TEST(ManifestDocument, BuildingTwiceGivesTheSameText) {
    ScopedTimeZone zone("Etc/GMT-2");
    AppManifestSerializer serializer;
    EXPECT_EQ(serialized(serializer, fullRecord()), serialized(serializer, fullRecord()));
}

TEST(ManifestDocument, AuthorBlockStandsOrFallsWithTheName) {
    const std::string contactOnly = textOf([](AppManifest& m) {
        m.authorContact = u"c";
        m.authorOrganization = u"o";
    });
    EXPECT_FALSE(contains(contactOnly, "<author")) << contactOnly;

    const std::string nameOnly = textOf([](AppManifest& m) { m.authorName = u"n"; });
    EXPECT_TRUE(contains(nameOnly,
                         "  <author>\n    <name>n</name>\n    <contact></contact>\n    "
                         "<organization></organization>\n  </author>\n"))
        << nameOnly;
}

TEST(ManifestDocument, OnlyTheEmptyStringOmitsAnOptionalText) {
    const std::string blank = textOf([](AppManifest& m) {
        m.summary = u" ";
        m.maxTESSALVer = u"9";
    });
    EXPECT_TRUE(contains(blank, "<summary> </summary>"));
    EXPECT_TRUE(contains(blank, "<maxTESSALVer>9</maxTESSALVer>"));
    EXPECT_FALSE(contains(blank, "<description"));
    EXPECT_FALSE(contains(blank, "<minTESSALVer"));
}

TEST(ManifestDocument, ListEntriesAreWrittenEvenWhenEmpty) {
    const std::string text = textOf([](AppManifest& m) {
        m.supportedPlatforms = {u""};
        m.pathEntries = {u""};
        m.appEntries = {u"", u"x"};
        m.requiredProducts = {RequiredProduct()};
    });
    EXPECT_TRUE(contains(
        text, "  <supportedPlatforms>\n    <platform></platform>\n  </supportedPlatforms>\n"));
    EXPECT_TRUE(contains(text, "  <pathEntries>\n    <path></path>\n  </pathEntries>\n"));
    EXPECT_TRUE(contains(
        text,
        "  <appEntries>\n    <appFile></appFile>\n    <appFile>x</appFile>\n  </appEntries>\n"));
    EXPECT_TRUE(contains(text, "<product identifier=\"\" name=\"\" version=\"\"/>"));
}

TEST(ManifestDocument, NumFilesIsPlainDecimalUnderTheClassicLocale) {
    EXPECT_TRUE(contains(textOf([](AppManifest& m) { m.numFiles = 1234567; }),
                         "<numFiles>1234567</numFiles>"));
    EXPECT_TRUE(contains(textOf([](AppManifest& m) { m.numFiles = UINT64_MAX; }),
                         "<numFiles>18446744073709551615</numFiles>"));
}

TEST(ManifestDocument, NonAsciiGuidIsWrittenAsUtf8AndInvalidUtf8Raises) {
    EXPECT_TRUE(
        contains(textOf([](AppManifest& m) { m.GUID = "g\xc3\xa9"; }), "<GUID>g\xc3\xa9</GUID>"));
    AppManifestSerializer serializer;
    AppManifest bad;
    bad.GUID = "\xff";
    EXPECT_THROW(serializer.createDOMDocument(bad), std::runtime_error);
}

TEST(ManifestDocument, InfiniteCreationTimeFailsWithBoostsMessage) {
    AppManifestSerializer serializer;
    AppManifest record;
    record.created = boost::posix_time::ptime(boost::date_time::pos_infin);
    try {
        serializer.createDOMDocument(record);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "tm unable to handle +infinity date value");
    }
}

TEST(ManifestDocument, AppendChildElementHonoursOmitIfEmpty) {
    AppManifestSerializer serializer;
    const auto document = opc::model::XercesHelper::createDocument();
    const opc::model::XercesString ns(AppManifestSerializer::NAMESPACE);
    const opc::model::XercesString name(AppManifestSerializer::SUMMARY_ELEMENT);
    auto* root = opc::model::XercesHelper::appendElementNS(document.get(), ns, name);
    serializer.appendChildElement(root, ns, name, u"", true);
    EXPECT_EQ(root->getChildElementCount(), 0u);
    serializer.appendChildElement(root, ns, name, u"", false);
    serializer.appendChildElementList(root, ns, name, {});
    EXPECT_EQ(root->getChildElementCount(), 1u);
}
