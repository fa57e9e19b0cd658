#pragma once

// Identifiers of the "tsapp_builtins:tsapp_builtins" catalog, and the two
// ways a failure is reported with one: raised as std::runtime_error, or
// printed to std::cerr.

#include <string>
#include <utility>

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsapp_builtins::tsapp_builtins {

inline constexpr const char* CATALOG_NAME = "tsapp_builtins:tsapp_builtins";

namespace detail {
// A null pointer is stored as an empty string; the text ends at the first
// zero unit.
inline resource_core::MessageArgument to_argument(const char* text) {
    return std::string(text != nullptr ? text : "");
}
inline resource_core::MessageArgument to_argument(const char16_t* text) {
    return std::u16string(text != nullptr ? text : u"");
}
inline resource_core::MessageArgument to_argument(const std::string& text) {
    return to_argument(text.c_str());
}
inline resource_core::MessageArgument to_argument(const std::u16string& text) {
    return to_argument(text.c_str());
}
}  // namespace detail

#define TSAPP_DECLARE_MESSAGE_ID_0(NAME)              \
    class NAME : public resource_core::BaseMsgID {    \
      public:                                         \
        NAME() : BaseMsgID(CATALOG_NAME, #NAME, 0) {} \
    }

#define TSAPP_DECLARE_MESSAGE_ID_1(NAME)                                  \
    class NAME : public resource_core::BaseMsgID {                        \
      public:                                                             \
        template <typename A0>                                            \
        explicit NAME(const A0& a0) : BaseMsgID(CATALOG_NAME, #NAME, 1) { \
            arguments[0] = detail::to_argument(a0);                       \
        }                                                                 \
    }

#define TSAPP_DECLARE_MESSAGE_ID_2(NAME)                                       \
    class NAME : public resource_core::BaseMsgID {                             \
      public:                                                                  \
        template <typename A0, typename A1>                                    \
        NAME(const A0& a0, const A1& a1) : BaseMsgID(CATALOG_NAME, #NAME, 2) { \
            arguments[0] = detail::to_argument(a0);                            \
            arguments[1] = detail::to_argument(a1);                            \
        }                                                                      \
    }

// Argument: description of the XML error (char const*).
TSAPP_DECLARE_MESSAGE_ID_1(TSAPP_BUILTINS_XML_READ_ERROR);
TSAPP_DECLARE_MESSAGE_ID_0(TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR);
TSAPP_DECLARE_MESSAGE_ID_0(TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION);
TSAPP_DECLARE_MESSAGE_ID_0(TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR);
// Argument: package path in UTF-8 (char const*).
TSAPP_DECLARE_MESSAGE_ID_1(TSAPP_BUILTINS_INVALID_PACKAGE_ERROR);
// Arguments: package path, destination folder (char16_t const*).
TSAPP_DECLARE_MESSAGE_ID_2(TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR);

#undef TSAPP_DECLARE_MESSAGE_ID_0
#undef TSAPP_DECLARE_MESSAGE_ID_1
#undef TSAPP_DECLARE_MESSAGE_ID_2

// The catalog text of the identifier, in UTF-8.
std::string message_text(const resource_core::BaseMsgID& id);

// Throws exactly std::runtime_error whose what() is the UTF-8 catalog text.
[[noreturn]] void raise(const resource_core::BaseMsgID& id);

// Writes the UTF-8 catalog text to std::cerr; with `endLine`, a newline
// follows and the stream is flushed.
void print(const resource_core::BaseMsgID& id, bool endLine);

}  // namespace tsapp_builtins::tsapp_builtins
