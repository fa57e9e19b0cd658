#pragma once

// The seal check of a manifest being read, kept apart from parsing.

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace manifest_seal {

// True when `signature` seals the canonical document of `manifest`, the
// record read from a document that stated the UTC creation time
// `created`: in its canonical text, in that text with empty elements
// written <x/> (as earlier releases sealed them), or, when the local
// creation time is ambiguous, in either with `created` itself as the
// creation time.
bool sealMatches(AppManifestSerializer& serializer, const AppManifest& manifest,
                 const boost::posix_time::ptime& created, const std::string& signature);

// Whether `signature` is the seal of `text` under `key` (SHA-1 of the two,
// hex digits in either case).
bool textSealed(const std::string& key, const std::string& text, const std::string& signature);

}  // namespace manifest_seal
