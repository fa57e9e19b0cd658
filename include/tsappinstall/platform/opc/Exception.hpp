#pragma once

#include <stdexcept>
#include <string>

#include "tsappinstall/export.hpp"

namespace opc {

// What kind of failure an opc::Exception reports, for callers that act on
// the kind rather than on the text. Stable: new kinds are added at the end.
enum class Reason : int {
    Other = 0,     // a misuse of the API or a failure that fits no kind below
    CannotRead,    // the file is missing or a read failed
    NotZip,        // the container is not a ZIP file this library accepts
    DamagedEntry,  // an entry's bytes disagree with its declared size or CRC-32
    NotPackage,    // a ZIP file that breaks the packaging rules
    MalformedXml,  // an XML part is not well-formed, too large or too deep
    InvalidXml,    // an XML document breaks its schema
    BadPath,       // a part name cannot become a file path below the folder
    CannotWrite,   // writing a file or folder failed
    Cancelled,     // the caller asked to stop; nothing was left changed
};

// A few words naming the kind, without the detail the exception's text
// gives: "not a ZIP file", "damaged entry".
TSAPP_API const char* describe(Reason reason);

// Every failure of the package layer: a container that is not a ZIP file, a
// package that breaks the packaging rules, a part that cannot be read.
class TSAPP_API Exception : public std::runtime_error {
  public:
    explicit Exception(const std::string& what) : Exception(Reason::Other, what) {}
    Exception(Reason reason, const std::string& what) : std::runtime_error(what), reason_(reason) {}

    Reason reason() const noexcept { return reason_; }

  private:
    Reason reason_;
};

}  // namespace opc
