#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc {

// A switch without a default: a kind added to the enum and not here is a
// compiler warning (an error in CI), not a silent "failed".
const char* describe(Reason reason) {
    switch (reason) {
        case Reason::Other:
            return "failed";
        case Reason::CannotRead:
            return "cannot be read";
        case Reason::NotZip:
            return "not a ZIP file";
        case Reason::DamagedEntry:
            return "damaged entry";
        case Reason::NotPackage:
            return "not a valid package";
        case Reason::MalformedXml:
            return "not well-formed XML";
        case Reason::InvalidXml:
            return "does not match the schema";
        case Reason::BadPath:
            return "bad part path";
        case Reason::CannotWrite:
            return "cannot be written";
        case Reason::Cancelled:
            return "cancelled";
    }
    return "failed";  // a value outside the enum
}

}  // namespace opc
