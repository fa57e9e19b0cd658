#include "platform/base/Random.hpp"

#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/base/Ascii.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {

std::string randomToken(std::size_t bytes) {
    std::vector<unsigned char> random(bytes);
    for (std::size_t got = 0; got < bytes;) {
        const ssize_t n = ::getrandom(random.data() + got, bytes - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw Exception(std::string("no random bytes: ") + std::strerror(errno));
        got += static_cast<std::size_t>(n);
    }
    return lower_hex(random.data(), bytes);
}

}  // namespace opc::detail
