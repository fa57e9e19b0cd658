#pragma once

// Why a manifest could not be read, for callers that act on the kind of
// failure (a checking tool's verdicts) rather than on the localized text.

#include <string>

#include "tsappinstall/Fault.hpp"
#include "tsappinstall/export.hpp"
#include "tsappinstall/manifest/AppManifest.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

class AppManifestSerializer;

namespace tsappinstall {

// The verdict of loadManifest: None, or one of the library's fault kinds,
// whose value each verdict shares (kindOf).
enum class ManifestFault : int {
    None = -1,
    // the stream failed before a document was read
    Unreadable = static_cast<int>(FaultKind::CannotRead),
    // not well-formed XML (or beyond the size and depth limits)
    MalformedXml = static_cast<int>(FaultKind::MalformedXml),
    // well-formed, but the schema refuses it
    InvalidXml = static_cast<int>(FaultKind::InvalidXml),
    // numFiles is not a decimal number in range
    BadFileCount = static_cast<int>(FaultKind::WrongFileCount),
    // the signature is missing or does not seal the content
    BadSignature = static_cast<int>(FaultKind::BadSeal),
};

// The fault kind of a verdict; Other for None, which is no fault.
inline FaultKind kindOf(ManifestFault fault) {
    return fault == ManifestFault::None ? FaultKind::Other : static_cast<FaultKind>(fault);
}

// A few words naming the kind ("not well-formed XML", "bad seal"),
// the fault kind's own; "good" for None.
TSAPP_API const char* describe(ManifestFault fault);

// Reads like serializer.load(stream, manifest), but reports the failures
// load raises as a kind instead of throwing; `text` receives the exact text
// load would have raised with (for BadFileCount, the conversion's text).
// Failures load passes on from elsewhere (time conversions, allocation)
// still throw.
TSAPP_API ManifestFault loadManifest(AppManifestSerializer& serializer, opc::InputStream& stream,
                                     AppManifest& manifest, std::string& text);

}  // namespace tsappinstall
