#pragma once

#include <stdexcept>
#include <string>

#include "tsappinstall/export.hpp"

namespace foundation::crypto::utils {

// Every failure of the crypto layer; the text carries OpenSSL's own reason.
class TSAPP_API Exception : public std::runtime_error {
  public:
    explicit Exception(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace foundation::crypto::utils
