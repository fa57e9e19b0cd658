#include <gtest/gtest.h>

#include <functional>

#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"

using namespace tsapp::test;

namespace {

// The canonical texts are the signature's input: any change to how a record
// is built or written must show up here.
std::string golden(const char* name) {
    return read_file(std::string(TSAPP_TEST_FIXTURES "/manifest/") + name);
}

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
    EXPECT_EQ(serialized(serializer, AppManifest()), golden("empty-record.xml"));
    EXPECT_EQ(serialized(serializer, fullRecord()), golden("full-record.xml"));
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
        {[](AppManifest& m) { m.authorContact = u"c", m.authorOrganization = u"o"; },
         "<name></name>", "<author"},
        {[](AppManifest& m) { m.authorName = u"n"; },
         "  <author>\n    <name>n</name>\n    <contact></contact>\n    "
         "<organization></organization>\n  </author>\n",
         ""},
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
         "  <appEntries>\n    <appFile></appFile>\n    <appFile>x</appFile>\n  </appEntries>\n",
         ""},
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
