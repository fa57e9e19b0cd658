#pragma once

// Text and time conversions of the package layer.

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>

#include "tsappinstall/export.hpp"

namespace opc {

// Widens 8-bit text to UTF-16. With `isUtf8` true the input is UTF-8 and a
// malformed sequence raises fl::i18n::ConversionError; with false every byte
// is taken as one ISO-8859-1 character, which never fails.
TSAPP_API std::u16string toString(const std::string& text, bool isUtf8);

// Narrows UTF-16 text that must be ASCII (a GUID, a decimal count, a hex
// signature). A code unit above 0x7F is never guessed at or replaced: it
// raises opc::Exception naming the unit and its position, so that no two
// different texts narrow to the same bytes.
TSAPP_API std::string toASCIIString(const std::u16string& text);

// The xsd:dateTime text of a UTC time: "YYYY-MM-DDThh:mm:ssZ", with a
// fraction ".f" to ".ffffff" (trailing zeros dropped) only when the time
// has one. not-a-date-time becomes the empty text; an infinite time raises
// opc::Exception.
TSAPP_API std::u16string convertTimeToString(const boost::posix_time::ptime& time);

// Reads any xsd:dateTime lexical form: optional fraction of any length (cut
// to microseconds), "Z", a "+hh:mm"/"-hh:mm" offset (the result is moved to
// UTC) or no zone at all (taken as UTC), "24:00:00" as the next day's
// midnight, and the surrounding XML white space that the type collapses.
// The empty (or all-blank) text gives not-a-date-time, the inverse of
// convertTimeToString. Anything else raises opc::Exception; a valid text
// outside the years 1400..9999 raises Boost's bad_year.
TSAPP_API boost::posix_time::ptime convertStringToTime(const std::u16string& text);

}  // namespace opc
