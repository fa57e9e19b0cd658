#pragma once

// An app's GUID as packages carry it and as the store and the packer take
// it from people: 8-4-4-4-12 hex digits, either case.

#include <string>

#include "tsappinstall/export.hpp"

namespace tsappinstall {

TSAPP_API bool isGuid(const std::string& text);

}  // namespace tsappinstall
