#pragma once

// What long-running commands share: a progress line on a terminal and the
// stop signals turned into a request to roll back.

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace tsapp::tool {

// Shows how far the work is on stderr once it has run for half a second,
// at most ten times a second, and clears the line at the end.
class ProgressLine {
  public:
    // "N of M MB, P of Q parts".
    void update(std::uint64_t bytes, std::uint64_t totalBytes, std::size_t parts,
                std::size_t totalParts);
    // "N of M MB DONE", for work counted in bytes alone: "packed".
    void update(std::uint64_t bytes, std::uint64_t totalBytes, const char* done);
    // For work that reports no counts: "WHAT: N s" until update() is called.
    void tick(const std::string& what);
    ~ProgressLine();

  private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_{};
    bool shown_ = false;
    bool counted_ = false;
    bool due();
    void showBytes(std::uint64_t bytes, std::uint64_t totalBytes, const char* after);
};

// The signal SIGINT, SIGTERM or SIGHUP that asked to stop; 0 for none.
extern volatile sig_atomic_t caughtSignal;

// The signals that stop the tool become a request to roll back. A write
// beyond `ulimit -f` then fails with EFBIG instead of killing the process
// before it could clean up.
void catchStopSignals();

}  // namespace tsapp::tool
