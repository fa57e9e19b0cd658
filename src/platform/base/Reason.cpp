#include <iterator>

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc {

const char* describe(Reason reason) {
    static const char* const kTexts[] = {"failed",
                                         "cannot be read",
                                         "not a ZIP file",
                                         "damaged entry",
                                         "not a valid package",
                                         "not well-formed XML",
                                         "does not match the schema",
                                         "bad part path",
                                         "cannot be written",
                                         "cancelled"};
    const auto index = static_cast<std::size_t>(reason);
    return index < std::size(kTexts) ? kTexts[index] : "failed";
}

}  // namespace opc
