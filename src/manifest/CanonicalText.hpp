#pragma once

// The canonical text of a manifest record written straight from the
// record: what the writer makes of createDOMDocument's document, without
// building and walking a document of a few thousand nodes.

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <optional>
#include <string>

#include "tsappinstall/manifest/AppManifest.hpp"

namespace manifest_seal {

// The texts of the numFiles and created elements of a record.
std::u16string numFilesText(std::uint64_t count);
std::u16string createdText(const boost::posix_time::ptime& local);

// serializeDocument(createDOMDocument(manifest)) as the writer makes it:
// its pretty-printed layout and its escapes. Nullopt when a value holds a
// character outside tab, line feed, carriage return, printable ASCII and
// the XML characters from U+00A0 on: the document path decides those.
std::optional<std::string> canonicalText(const AppManifest& manifest);

}  // namespace manifest_seal
