#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "tsappinstall/platform/crypto/ICryptoProvider.hpp"

namespace foundation::crypto {

namespace utils {
struct SHA1DigestAlgorithm {
    static constexpr const char* name = "SHA1";
    static constexpr std::size_t digestSize = 20;
};
}  // namespace utils

// Computes digests of one algorithm with the provider it shares.
template <typename Algorithm>
class DigestEngine {
  public:
    explicit DigestEngine(std::shared_ptr<interfaces::ICryptoProvider> provider)
        : provider_(std::move(provider)) {}

    std::vector<unsigned char> computeDigest(const std::vector<unsigned char>& data) const {
        return provider_->computeDigest(Algorithm::name, data);
    }

  private:
    std::shared_ptr<interfaces::ICryptoProvider> provider_;
};

}  // namespace foundation::crypto
