#include "platform/zip/RawEntryStream.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/base/ReadAt.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::zippackage {

std::size_t RawEntryStream::read(unsigned char* buffer, std::size_t size) {
    if (left_ < size) size = static_cast<std::size_t>(left_);
    const ssize_t got = opc::detail::read_at(fd_, buffer, size, next_);
    if (got < 0)
        throw Exception(Reason::CannotRead,
                        "cannot read the entry \"" + name_ + "\": " + std::strerror(errno));
    const auto done = static_cast<std::size_t>(got);
    if (done < size)
        throw Exception(Reason::DamagedEntry,
                        "the package file ends inside the entry \"" + name_ + "\"");
    next_ += done;
    left_ -= done;
    return done;
}

std::size_t PinnedEntryStream::read(unsigned char* buffer, std::size_t size) {
    const std::size_t done = std::min(size, stored_.size() - next_);
    if (done == 0) return 0;
    std::memcpy(buffer, stored_.data() + next_, done);
    next_ += done;
    return done;
}

}  // namespace opc::zippackage
