#pragma once

#include <string>

#include "tsappinstall/export.hpp"

namespace opc::model {

// An owned, NUL-terminated UTF-16 text usable wherever Xerces-C wants an
// XMLCh* (XMLCh is char16_t in the Xerces-C build we use).
class TSAPP_API XercesString {
  public:
    XercesString() = default;
    explicit XercesString(const char16_t* text) : text_(text != nullptr ? text : u"") {}
    explicit XercesString(std::u16string text) : text_(std::move(text)) {}

    operator char16_t*() const { return const_cast<char16_t*>(text_.c_str()); }
    operator std::u16string() const { return text_; }
    const std::u16string& str() const { return text_; }

  private:
    std::u16string text_;
};

}  // namespace opc::model
