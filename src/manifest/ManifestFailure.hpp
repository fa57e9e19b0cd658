#pragma once

#include <string>

#include "tsappinstall/Fault.hpp"
#include "tsappinstall/manifest/ManifestFault.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

namespace tsappinstall::detail {

// A failure of reading a manifest with its kind. It never reaches callers
// of AppManifestSerializer::load, which raise its text as a plain
// std::runtime_error.
class ManifestFailure : public Error {
  public:
    ManifestFailure(ManifestFault fault, const std::string& text)
        : Error(kindOf(fault), text), fault_(fault) {}
    ManifestFault fault() const { return fault_; }

  private:
    ManifestFault fault_;
};

// Built before the throw so that a failing catalog lookup leaves instead.
[[noreturn]] inline void fail(ManifestFault fault, const resource_core::BaseMsgID& id) {
    ManifestFailure failure(fault, tsapp_builtins::tsapp_builtins::message_text(id));
    throw failure;
}

}  // namespace tsappinstall::detail
