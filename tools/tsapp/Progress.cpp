#include "Progress.hpp"

#include <initializer_list>

namespace tsapp::tool {

void ProgressLine::update(std::uint64_t bytes, std::uint64_t totalBytes, std::size_t parts,
                          std::size_t totalParts) {
    const auto now = Clock::now();
    if (now - start_ < std::chrono::milliseconds(500) ||
        now - last_ < std::chrono::milliseconds(100))
        return;
    last_ = now;
    shown_ = true;
    std::fprintf(stderr, "\r%.1f of %.1f MB, %zu of %zu parts", bytes / 1048576.0,
                 totalBytes / 1048576.0, parts, totalParts);
    std::fflush(stderr);
}

ProgressLine::~ProgressLine() {
    if (shown_) std::fprintf(stderr, "\r\033[K");
}

volatile sig_atomic_t caughtSignal = 0;

namespace {

void noteSignal(int signal) {
    caughtSignal = signal;
}

}  // namespace

void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = noteSignal;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(signal, &action, nullptr);
    ::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace tsapp::tool
