#pragma once

#include <string>

#include "tsappinstall/Fault.hpp"
#include "tsappinstall/export.hpp"

namespace foundation::crypto::utils {

// Every failure of the crypto layer; the text carries OpenSSL's own reason.
// No kind of its own: callers only pass it on.
class TSAPP_API Exception : public tsappinstall::Error {
  public:
    explicit Exception(const std::string& what)
        : tsappinstall::Error(tsappinstall::FaultKind::Other, what) {}
};

}  // namespace foundation::crypto::utils
