#include "tsappinstall/platform/crypto/HexEncoding.hpp"

namespace foundation::crypto::utils {

std::u16string hexEncode(const std::vector<unsigned char>& bytes) {
    static constexpr char16_t digits[] = u"0123456789abcdef";
    std::u16string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0x0f]);
    }
    return text;
}

}  // namespace foundation::crypto::utils
