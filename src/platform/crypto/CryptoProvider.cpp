// SHA-1 and friends over OpenSSL's EVP interface.

#include "tsappinstall/platform/crypto/CryptoProvider.hpp"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>

#include "tsappinstall/platform/crypto/Exception.hpp"

namespace foundation::crypto {

namespace interfaces {
ICryptoProvider::~ICryptoProvider() = default;
}  // namespace interfaces

namespace openssl {
namespace {

struct MdContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using MdContext = std::unique_ptr<EVP_MD_CTX, MdContextFree>;

[[noreturn]] void fail(const char* step) {
    std::string text = std::string("OpenSSL ") + step + " failed";
    if (const unsigned long code = ERR_get_error(); code != 0) {
        char reason[256];
        ERR_error_string_n(code, reason, sizeof reason);
        text += std::string(": ") + reason;
    }
    ERR_clear_error();
    throw utils::Exception(text);
}

}  // namespace

std::vector<unsigned char> CryptoProvider::computeDigest(
    const std::string& algorithm, const std::vector<unsigned char>& data) const {
    const EVP_MD* md = EVP_get_digestbyname(algorithm.c_str());
    if (md == nullptr) throw utils::Exception("unknown digest algorithm: " + algorithm);
    MdContext context(EVP_MD_CTX_new());
    if (!context) fail("EVP_MD_CTX_new");
    if (EVP_DigestInit_ex(context.get(), md, nullptr) != 1) fail("EVP_DigestInit_ex");
    if (EVP_DigestUpdate(context.get(), data.data(), data.size()) != 1) fail("EVP_DigestUpdate");
    std::vector<unsigned char> digest(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(context.get(), digest.data(), &size) != 1) fail("EVP_DigestFinal_ex");
    digest.resize(size);
    return digest;
}

}  // namespace openssl
}  // namespace foundation::crypto
