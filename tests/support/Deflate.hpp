#pragma once

#include <string>

namespace tsapp::test {

// Raw DEFLATE (no zlib header), as a ZIP entry stores it.
std::string raw_deflate(const std::string& bytes, int level = 6);

// A reproducible mix of text-like and random-looking bytes.
std::string sample_bytes(std::size_t size, unsigned seed);

}  // namespace tsapp::test
