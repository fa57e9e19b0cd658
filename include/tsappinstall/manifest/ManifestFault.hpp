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

// The verdict of loadManifest: None, or one of the library's fault kinds
// (kindOf). Stable: new kinds are added at the end.
enum class ManifestFault : int {
    None = 0,
    Unreadable,    // the stream failed before a document was read
    MalformedXml,  // not well-formed XML (or beyond the size and depth limits)
    InvalidXml,    // well-formed, but the schema refuses it
    BadFileCount,  // numFiles is not a decimal number in range
    BadSignature,  // the signature is missing or does not seal the content
};

// The fault kind of a verdict: CannotRead, MalformedXml, InvalidXml,
// WrongFileCount, BadSignature; Other for None, which is no fault.
TSAPP_API FaultKind kindOf(ManifestFault fault);

// A few words naming the kind ("not well-formed XML", "bad signature"),
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
