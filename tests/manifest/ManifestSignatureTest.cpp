#include <gtest/gtest.h>

#include <boost/algorithm/string/case_conv.hpp>

#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"

using namespace tsapp::test;

namespace {

// Computed once with sha1sum over the GUID followed by the golden texts of
// ManifestDocumentTest (empty record: empty key; full record in UTC+2).
const std::string kEmptyRecordSignature = "dac7c11644e8e94f54856645756f1f3caf15e464";
const std::string kFullRecordSignature = "f750a47571a9cacd0b28bdcf772de77c6d1e8173";

class ManifestSignature : public ::testing::Test {
  protected:
    ScopedTimeZone zone{"Etc/GMT-2"};
    AppManifestSerializer serializer;
};

}  // namespace

TEST_F(ManifestSignature, SignatureIsSha1OfGuidFollowedByTheCanonicalText) {
    const auto empty = build(serializer, AppManifest());
    EXPECT_EQ(serializer.signDocument("", empty.get()), kEmptyRecordSignature);
    const auto full = build(serializer, fullRecord());
    EXPECT_EQ(serializer.signDocument(kFullGuid, full.get()), kFullRecordSignature);
}

TEST_F(ManifestSignature, KeyIsPartOfTheDigestAndSigningRepeats) {
    const auto full = build(serializer, fullRecord());
    const std::string signature = serializer.signDocument(kFullGuid, full.get());
    EXPECT_EQ(signature.size(), 40u);
    EXPECT_EQ(serializer.signDocument(kFullGuid, full.get()), signature);
    EXPECT_NE(serializer.signDocument(kFullGuid + "x", full.get()), signature);
    EXPECT_NE(serializer.signDocument("", full.get()), signature);
}

TEST_F(ManifestSignature, VerifyAcceptsEitherCaseOfTheSameDigits) {
    const auto full = build(serializer, fullRecord());
    std::string mixed = kFullRecordSignature;
    for (std::size_t i = 0; i < mixed.size(); i += 2)
        mixed[i] = static_cast<char>(std::toupper(mixed[i]));
    EXPECT_TRUE(serializer.verifyDocument(kFullGuid, full.get(), kFullRecordSignature));
    EXPECT_TRUE(serializer.verifyDocument(kFullGuid, full.get(),
                                          boost::algorithm::to_upper_copy(kFullRecordSignature)));
    EXPECT_TRUE(serializer.verifyDocument(kFullGuid, full.get(), mixed));
}

TEST_F(ManifestSignature, VerifyRefusesWrongLengthOrDigitsOrKey) {
    const auto full = build(serializer, fullRecord());
    EXPECT_FALSE(serializer.verifyDocument(kFullGuid, full.get(), kFullRecordSignature + "0"));
    EXPECT_FALSE(
        serializer.verifyDocument(kFullGuid, full.get(), kFullRecordSignature.substr(0, 39)));
    EXPECT_FALSE(serializer.verifyDocument(kFullGuid, full.get(), ""));
    std::string flipped = kFullRecordSignature;
    flipped[39] = flipped[39] == '3' ? '4' : '3';
    EXPECT_FALSE(serializer.verifyDocument(kFullGuid, full.get(), flipped));
    EXPECT_FALSE(serializer.verifyDocument("", full.get(), kFullRecordSignature));
}

TEST_F(ManifestSignature, AnyChangeTheBuilderWritesBreaksTheSeal) {
    const auto sign = [&](const AppManifest& record) {
        const auto document = build(serializer, record);
        return serializer.signDocument(record.GUID, document.get());
    };
    const std::string original = sign(fullRecord());
    AppManifest changed = fullRecord();
    changed.summary = u"Short.";
    EXPECT_NE(sign(changed), original);
    changed = fullRecord();
    changed.requiredProducts.push_back(RequiredProduct());
    EXPECT_NE(sign(changed), original);
    // Fields the builder never writes leave the seal alone, as does a
    // fraction of a second that the UTC conversion drops.
    changed = fullRecord();
    changed.extraText1 = u"x";
    changed.created += boost::posix_time::milliseconds(500);
    EXPECT_EQ(sign(changed), original);
}
