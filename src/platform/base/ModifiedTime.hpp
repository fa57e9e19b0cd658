#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace opc::detail {

// A file's last data change, in nanoseconds since 1970.
inline std::int64_t modifiedNs(const struct stat& info) {
    return static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
}

}  // namespace opc::detail
