#pragma once

// Path helpers over UTF-16 paths.

#include <string>

#include "tsappinstall/export.hpp"

namespace fl::filesystem::detail {

// The native form of a path. With `absolute` true: the absolute, lexically
// normal form — a relative path is resolved against the current folder, and
// ".", ".." and repeated separators are removed ("/.." stays "/"). Nothing
// else of the file system is consulted: links are not resolved and the path
// need not exist. With `absolute` false the path is only normalized
// lexically and stays relative if it was. Throws std::invalid_argument for a
// path holding a NUL code unit, fl::i18n::ConversionError for invalid
// UTF-16, and std::system_error when the current folder cannot be read.
TSAPP_API std::u16string make_native_form(const std::u16string& path, bool absolute);

// The text after the last dot of the last path component, without the dot.
// Empty when there is none: no dot, a trailing dot, or a name whose only dot
// is its first character (".profile").
TSAPP_API std::u16string extract_extension(const std::u16string& path);

}  // namespace fl::filesystem::detail
