#pragma once

#include <memory>

#include "tsappinstall/platform/crypto/DigestEngine.hpp"

namespace foundation::crypto {

// Hands out engines for particular algorithms over one provider.
class TSAPP_API CryptoEngine {
  public:
    explicit CryptoEngine(std::shared_ptr<interfaces::ICryptoProvider> provider);

    DigestEngine<utils::SHA1DigestAlgorithm> createSHA1DigestEngine() const;

  private:
    std::shared_ptr<interfaces::ICryptoProvider> provider_;
};

}  // namespace foundation::crypto
