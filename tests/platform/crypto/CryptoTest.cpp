#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tsappinstall/platform/crypto/CryptoEngine.hpp"
#include "tsappinstall/platform/crypto/CryptoProvider.hpp"
#include "tsappinstall/platform/crypto/Exception.hpp"
#include "tsappinstall/platform/crypto/HexEncoding.hpp"

namespace crypto = foundation::crypto;

namespace {

std::u16string sha1Hex(const std::string& text) {
    const crypto::CryptoEngine engine(std::make_shared<crypto::openssl::CryptoProvider>());
    const std::vector<unsigned char> digest = engine.createSHA1DigestEngine().computeDigest(
        std::vector<unsigned char>(text.begin(), text.end()));
    EXPECT_EQ(digest.size(), crypto::utils::SHA1DigestAlgorithm::digestSize);
    return crypto::utils::hexEncode(digest);
}

}  // namespace

TEST(Crypto, Sha1MatchesKnownDigests) {
    EXPECT_EQ(sha1Hex(""), u"da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(sha1Hex("abc"), u"a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha1Hex(std::string("a\0b", 3)), u"4a3dec2d1f8245280855c42db0ee4239f917fdb8");
}

TEST(Crypto, HexEncodingIsLowerCaseTwoDigitsPerByte) {
    EXPECT_EQ(crypto::utils::hexEncode({}), u"");
    EXPECT_EQ(crypto::utils::hexEncode({0x00, 0x0f, 0xa0, 0xff}), u"000fa0ff");
}

TEST(Crypto, UnknownAlgorithmAndMissingProviderRaise) {
    crypto::openssl::CryptoProvider provider;
    EXPECT_THROW(provider.computeDigest("NO-SUCH-DIGEST", {}), crypto::utils::Exception);
    EXPECT_THROW(crypto::CryptoEngine(nullptr), crypto::utils::Exception);
    static_assert(std::is_base_of_v<std::runtime_error, crypto::utils::Exception>);
}
