#pragma once

#include <string>
#include <vector>

#include "tsappinstall/export.hpp"

namespace foundation::crypto::utils {

// Two lower-case hexadecimal digits per byte, in byte order (the form
// sha1sum prints).
TSAPP_API std::u16string hexEncode(const std::vector<unsigned char>& bytes);

}  // namespace foundation::crypto::utils
