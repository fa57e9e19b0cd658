#pragma once

// What can be wrong with a package's content digests or its author
// signature: the library's one fault type, with the part it concerns as
// its item.

#include <string>
#include <utility>

#include "tsappinstall/Fault.hpp"
#include "tsappinstall/export.hpp"

namespace tsappinstall::integrity {

using FaultKind = tsappinstall::FaultKind;
using Fault = tsappinstall::Fault;

// Bad input to the signing and verification calls themselves: an
// unreadable key, certificate or trust file, or a digest list that does
// not parse.
class TSAPP_API IntegrityError : public Error {
  public:
    explicit IntegrityError(const std::string& what, FaultKind kind = FaultKind::Other)
        : Error(kind, what) {}
    IntegrityError(Fault fault, const std::string& what) : Error(std::move(fault), what) {}
};

}  // namespace tsappinstall::integrity
