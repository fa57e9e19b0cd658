#include "platform/zip/RawEntryStream.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::zippackage {

std::size_t RawEntryStream::read(unsigned char* buffer, std::size_t size) {
    if (left_ < size) size = static_cast<std::size_t>(left_);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t got =
            ::pread(fd_, buffer + done, size - done, static_cast<off_t>(next_ + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0)
            throw Exception("cannot read the entry \"" + name_ + "\": " + std::strerror(errno));
        if (got == 0) throw Exception("the package file ends inside the entry \"" + name_ + "\"");
        done += static_cast<std::size_t>(got);
    }
    next_ += done;
    left_ -= done;
    return done;
}

}  // namespace opc::zippackage
