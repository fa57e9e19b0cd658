#include "Progress.hpp"

#include <initializer_list>

namespace tsapp::tool {

bool ProgressLine::due() {
    const auto now = Clock::now();
    if (now - start_ < std::chrono::milliseconds(500) ||
        now - last_ < std::chrono::milliseconds(100))
        return false;
    last_ = now;
    shown_ = true;
    return true;
}

void ProgressLine::tick(const std::string& what) {
    if (counted_ || !due()) return;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start_);
    std::fprintf(stderr, "\r%s: %lld s", what.c_str(), static_cast<long long>(seconds.count()));
    std::fflush(stderr);
}

void ProgressLine::showBytes(std::uint64_t bytes, std::uint64_t totalBytes, const char* after) {
    std::fprintf(stderr, "\r%.1f of %.1f MB%s", bytes / 1048576.0, totalBytes / 1048576.0, after);
    std::fflush(stderr);
}

void ProgressLine::update(std::uint64_t bytes, std::uint64_t totalBytes, std::size_t parts,
                          std::size_t totalParts) {
    counted_ = true;
    if (!due()) return;
    char after[64];
    std::snprintf(after, sizeof after, ", %zu of %zu parts", parts, totalParts);
    showBytes(bytes, totalBytes, after);
}

void ProgressLine::update(std::uint64_t bytes, std::uint64_t totalBytes, const char* done) {
    counted_ = true;
    if (!due()) return;
    showBytes(bytes, totalBytes, (std::string(" ") + done).c_str());
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
