#include "tsappinstall/platform/crypto/CryptoEngine.hpp"

#include "tsappinstall/platform/crypto/Exception.hpp"

namespace foundation::crypto {

CryptoEngine::CryptoEngine(std::shared_ptr<interfaces::ICryptoProvider> provider)
    : provider_(std::move(provider)) {
    if (!provider_) throw utils::Exception("a crypto engine needs a provider");
}

DigestEngine<utils::SHA1DigestAlgorithm> CryptoEngine::createSHA1DigestEngine() const {
    return DigestEngine<utils::SHA1DigestAlgorithm>(provider_);
}

}  // namespace foundation::crypto
