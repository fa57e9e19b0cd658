#pragma once

#include <string>
#include <vector>

#include "tsappinstall/export.hpp"

namespace foundation::crypto::interfaces {

// The primitives a crypto back end supplies. Implementations hold no state
// between calls and may be used from several threads at once.
class TSAPP_API ICryptoProvider {
  public:
    virtual ~ICryptoProvider();

    // The digest of `data` with the algorithm of that name ("SHA1", ...).
    // Throws utils::Exception for an unknown algorithm or a failing back end.
    virtual std::vector<unsigned char> computeDigest(
        const std::string& algorithm, const std::vector<unsigned char>& data) const = 0;
};

}  // namespace foundation::crypto::interfaces
