#include "OpenSsl.hpp"

#include <openssl/err.h>

#include <climits>

#include "tsappinstall/integrity/Fault.hpp"

namespace tsappinstall::integrity::detail {

std::string opensslError(const std::string& what) {
    // The queue holds the whole chain of calls; its last entry is the
    // innermost cause, the most specific one.
    unsigned long code = 0;
    for (unsigned long next; (next = ERR_get_error()) != 0;) code = next;
    if (code == 0) return what;
    char reason[256];
    ERR_error_string_n(code, reason, sizeof reason);
    return what + " (" + reason + ")";
}

BioPtr memoryBio(const std::string& bytes) {
    if (bytes.size() > INT_MAX) throw IntegrityError("more than 2 GiB to sign or verify");
    BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    if (!bio) throw IntegrityError(opensslError("out of memory"));
    return bio;
}

}  // namespace tsappinstall::integrity::detail
