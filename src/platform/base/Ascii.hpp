#pragma once

// ASCII-only text helpers. Part names, extensions and language tags are
// compared and coded byte by byte; the locale must never take part.

#include <optional>
#include <string>

namespace opc::detail {

inline char ascii_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string ascii_lower(std::string text) {
    for (char& c : text) c = ascii_lower(c);
    return text;
}

inline bool ascii_iequals(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (ascii_lower(a[i]) != ascii_lower(b[i])) return false;
    return true;
}

inline bool is_ascii_alnum(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// The value of one hex digit, either case; -1 for any other character.
inline int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// "%XY" with upper-case digits, the form part names are written in.
inline void append_percent_encoded(std::string& out, unsigned char octet) {
    static const char* const kDigits = "0123456789ABCDEF";
    out += '%';
    out += kDigits[octet >> 4];
    out += kDigits[octet & 0x0F];
}

// The bytes as lower-case hex digits, two a byte.
inline std::string lower_hex(const unsigned char* bytes, std::size_t size) {
    static const char* const kDigits = "0123456789abcdef";
    std::string text;
    text.reserve(2 * size);
    for (std::size_t i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0x0F];
    }
    return text;
}

// The octet "%XY" at `text[at]` stands for, or -1 when it is not a complete
// escape.
inline int percent_decoded_octet(const std::string& text, std::size_t at) {
    if (at + 2 >= text.size()) return -1;
    const int high = hex_value(text[at + 1]);
    const int low = hex_value(text[at + 2]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

// `text` with every "%XY" replaced by the octet it stands for; none when an
// escape is cut short or not hex.
inline std::optional<std::string> percent_decoded(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        const int octet = percent_decoded_octet(text, i);
        if (octet < 0) return std::nullopt;
        out += static_cast<char>(octet);
        i += 2;
    }
    return out;
}

// Text safe inside XML or HTML, in an element or a quoted attribute.
// '&#39;' rather than '&apos;', which HTML 4 does not know.
inline std::string markup_escaped(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

}  // namespace opc::detail
