#pragma once

#include <string>

#include "tsappinstall/Fault.hpp"
#include "tsappinstall/export.hpp"

namespace opc {

// What kind of failure an opc::Exception reports, for callers that act on
// the kind rather than on the text: the library's one list of kinds.
using Reason = tsappinstall::FaultKind;

// A few words naming the kind, without the detail the exception's text
// gives: "not a ZIP file", "damaged entry".
using tsappinstall::describe;

// Every failure of the package layer: a container that is not a ZIP file, a
// package that breaks the packaging rules, a part that cannot be read. A
// type of its own, so that callers can tell them from the other layers'.
class TSAPP_API Exception : public tsappinstall::Error {
  public:
    explicit Exception(const std::string& what) : Exception(Reason::Other, what) {}
    Exception(Reason reason, const std::string& what) : tsappinstall::Error(reason, what) {}

    Reason reason() const noexcept { return kind(); }
};

}  // namespace opc
