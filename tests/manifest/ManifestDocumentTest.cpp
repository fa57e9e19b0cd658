#include <gtest/gtest.h>

#include <functional>

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
std::string textOf(const std::function<void(AppManifest&)>& edit) {
    AppManifestSerializer serializer;
    AppManifest record;
    edit(record);
    return serialized(serializer, record);
}

}  // namespace

// The seals were computed once with sha1sum over the GUID followed by the
// golden text (empty record: empty key; full record in UTC+2).
TEST(ManifestDocument, RecordsGiveTheGoldenTextsSealedOverGuidAndText) {
    ScopedTimeZone zone("Etc/GMT-2");
    AppManifestSerializer serializer;
    EXPECT_EQ(serialized(serializer, AppManifest()), kEmptyRecordText);
    EXPECT_EQ(serialized(serializer, fullRecord()), kFullRecordText);
    const std::string seal = "f750a47571a9cacd0b28bdcf772de77c6d1e8173";
    EXPECT_EQ(serializer.signDocument("", build(serializer, AppManifest()).get()),
              "dac7c11644e8e94f54856645756f1f3caf15e464");
    const auto full = build(serializer, fullRecord());
    EXPECT_EQ(serializer.signDocument(kFullGuid, full.get()), seal);

    std::string upper = seal, flipped = seal;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    flipped[39] = '4';
    EXPECT_TRUE(serializer.verifyDocument(kFullGuid, full.get(), seal));
    EXPECT_TRUE(serializer.verifyDocument(kFullGuid, full.get(), upper));
    for (const auto& [key, wrong] : {std::pair<std::string, std::string>{kFullGuid, seal + "0"},
                                     {kFullGuid, seal.substr(0, 39)},
                                     {kFullGuid, ""},
                                     {kFullGuid, flipped},
                                     {"", seal},
                                     {kFullGuid + "x", seal}}) {
        EXPECT_FALSE(serializer.verifyDocument(key, full.get(), wrong)) << key << " " << wrong;
    }
}

// How single fields shape the text: each edit of an empty record must
// produce `present` and must not produce `absent`.
TEST(ManifestDocument, FieldsShapeTheText) {
    struct Case {
        std::function<void(AppManifest&)> edit;
        std::string present;
        std::string absent;
    };
    const Case cases[] = {
        // The author block stands or falls with the name.
        {[](AppManifest& m) { m.authorContact = u"c", m.authorOrganization = u"o"; }, "<name></name>",
         "<author"},
        {[](AppManifest& m) { m.authorName = u"n"; },
         "  <author>\n    <name>n</name>\n    <contact></contact>\n    <organization></organization>\n  </author>\n", ""},
        // Only the empty string omits an optional text.
        {[](AppManifest& m) { m.summary = u" "; }, "<summary> </summary>", "<description"},
        {[](AppManifest& m) { m.maxTESSALVer = u"9"; }, "<maxTESSALVer>9</maxTESSALVer>",
         "<minTESSALVer"},
        // List entries are written even when empty.
        {[](AppManifest& m) { m.supportedPlatforms = {u""}; },
         "  <supportedPlatforms>\n    <platform></platform>\n  </supportedPlatforms>\n", ""},
        {[](AppManifest& m) { m.pathEntries = {u""}; },
         "  <pathEntries>\n    <path></path>\n  </pathEntries>\n", ""},
        {[](AppManifest& m) {
             m.appEntries = {u"", u"x"};
         },
         "  <appEntries>\n    <appFile></appFile>\n    <appFile>x</appFile>\n  </appEntries>\n", ""},
        {[](AppManifest& m) { m.requiredProducts = {RequiredProduct()}; },
         "<product identifier=\"\" name=\"\" version=\"\"/>", ""},
        // Plain decimal whatever the global locale.
        {[](AppManifest& m) { m.numFiles = UINT64_MAX; },
         "<numFiles>18446744073709551615</numFiles>", ""},
        {[](AppManifest& m) { m.GUID = "g\xc3\xa9"; }, "<GUID>g\xc3\xa9</GUID>", ""},
    };
    for (const Case& c : cases) {
        const std::string text = textOf(c.edit);
        EXPECT_NE(text.find(c.present), std::string::npos) << text;
        if (!c.absent.empty()) {
            EXPECT_EQ(text.find(c.absent), std::string::npos) << text;
        }
    }
    EXPECT_THROW(textOf([](AppManifest& m) { m.GUID = "\xff"; }), std::runtime_error);
}
