#pragma once

// How many threads a "jobs" setting asks for. Every setting of the library
// and of the tool reads 0 the same way: one thread per core.

#include <algorithm>
#include <thread>

namespace tsappinstall {

// `jobs`, or for 0 the number of cores (at least one where the system
// cannot tell).
inline unsigned jobsOrCores(unsigned jobs) {
    return jobs != 0 ? jobs : std::max(1u, std::thread::hardware_concurrency());
}

}  // namespace tsappinstall
