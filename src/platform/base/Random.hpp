#pragma once

// Tokens nobody can guess ahead of time: a staging folder's stamp proves
// the folder ours, and a version's folder in the store is named where
// others may look, so a name known in advance could be taken first.

#include <cstddef>
#include <string>

namespace opc::detail {

// `bytes` random bytes from the kernel as lower-case hex, two digits a
// byte. Throws opc::Exception when the kernel has none to give.
std::string randomToken(std::size_t bytes = 8);

}  // namespace opc::detail
