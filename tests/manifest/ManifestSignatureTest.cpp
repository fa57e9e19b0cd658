#include <gtest/gtest.h>

#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"

using namespace tsapp::test;

// Computed once with sha1sum over the GUID followed by the golden texts of
// ManifestDocumentTest (empty record: empty key; full record in UTC+2).
const std::string kEmptyRecordSignature = "15d373f071794da14567ed72683ede715ff6cf2a";
const std::string kFullRecordSignature = "f750a47571a9cacd0b28bdcf772de77c6d1e8173";

TEST(ManifestSignature, SealIsSha1OfGuidAndCanonicalTextAndVerifyIgnoresCaseOnly) {
    ScopedTimeZone zone{"Etc/GMT-2"};
    AppManifestSerializer serializer;
    EXPECT_EQ(serializer.signDocument("", build(serializer, AppManifest()).get()),
              kEmptyRecordSignature);
    const auto full = build(serializer, fullRecord());
    EXPECT_EQ(serializer.signDocument(kFullGuid, full.get()), kFullRecordSignature);

    std::string upper = kFullRecordSignature, flipped = kFullRecordSignature;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    flipped[39] = flipped[39] == '3' ? '4' : '3';
    const std::pair<std::string, std::string> accepted[] = {{kFullGuid, kFullRecordSignature},
                                                            {kFullGuid, upper}};
    const std::pair<std::string, std::string> refused[] = {
        {kFullGuid, kFullRecordSignature + "0"},
        {kFullGuid, kFullRecordSignature.substr(0, 39)},
        {kFullGuid, ""},
        {kFullGuid, flipped},
        {"", kFullRecordSignature},
        {kFullGuid + "x", kFullRecordSignature}};
    for (const auto& [key, seal] : accepted)
        EXPECT_TRUE(serializer.verifyDocument(key, full.get(), seal)) << key << " " << seal;
    for (const auto& [key, seal] : refused)
        EXPECT_FALSE(serializer.verifyDocument(key, full.get(), seal)) << key << " " << seal;
}
