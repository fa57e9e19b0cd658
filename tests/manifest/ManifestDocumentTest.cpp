#include <gtest/gtest.h>

#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"

using namespace tsapp::test;

namespace {

// The canonical texts are the signature's input: any change to how a record
// is built or written must show up here.
std::string golden(const char* name) {
    return read_file(std::string(TSAPP_TEST_FIXTURES "/manifest/") + name);
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
    AppManifest badGuid;
    badGuid.GUID = "\xff";  // not UTF-8
    EXPECT_THROW(serialized(serializer, badGuid), std::runtime_error);
}
