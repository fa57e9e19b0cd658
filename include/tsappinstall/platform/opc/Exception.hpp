#pragma once

#include <stdexcept>
#include <string>

#include "tsappinstall/export.hpp"

namespace opc {

// Every failure of the package layer: a container that is not a ZIP file, a
// package that breaks the packaging rules, a part that cannot be read.
class TSAPP_API Exception : public std::runtime_error {
  public:
    explicit Exception(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace opc
