#pragma once

// Mutations of a package almost always break the CRC of the entry they
// touch, and a wrong CRC ends every read before the content is parsed.
// Rewriting the CRCs of stored entries lets the content's parsers see the
// mutated bytes.

#include <string>

namespace tsapp::fuzz {

// `bytes` with the CRC of every stored entry whose data lies inside the
// file recomputed, in its local header and in each central record pointing
// at that header. Everything else is left as it is.
std::string withStoredCrcsFixed(std::string bytes);

}  // namespace tsapp::fuzz
