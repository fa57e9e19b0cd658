#pragma once

// The seal check of a manifest being read, kept apart from parsing.

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace manifest_seal {

// True when `signature` seals `rebuilt`, the canonical document of the
// record read, whose document stated the UTC creation time `created`: in
// its canonical text, in that text with empty elements written <x/> (as
// earlier releases sealed them), or, when the local creation time is
// ambiguous, in either with `created` itself as the creation time. May
// modify `rebuilt`.
bool sealMatches(AppManifestSerializer& serializer, xercesc::DOMDocument* rebuilt,
                 const AppManifest& manifest, const boost::posix_time::ptime& created,
                 const std::string& signature);

}  // namespace manifest_seal
