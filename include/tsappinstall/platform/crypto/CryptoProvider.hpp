#pragma once

#include "tsappinstall/platform/crypto/ICryptoProvider.hpp"

namespace foundation::crypto::openssl {

// Digests through OpenSSL's EVP interface. Each call owns its own context,
// so one provider serves any number of threads.
class TSAPP_API CryptoProvider : public interfaces::ICryptoProvider {
  public:
    CryptoProvider() = default;
    std::vector<unsigned char> computeDigest(const std::string& algorithm,
                                             const std::vector<unsigned char>& data) const override;
};

}  // namespace foundation::crypto::openssl
