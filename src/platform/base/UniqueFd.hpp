#pragma once

#include <unistd.h>

#include <utility>

namespace opc::detail {

// Owns one POSIX file descriptor and closes it with `Close` when it goes
// out of scope.
template <class Close>
class BasicFd {
  public:
    BasicFd() = default;
    explicit BasicFd(int fd, Close close = Close()) : fd_(fd), close_(close) {}
    ~BasicFd() { reset(); }
    BasicFd(BasicFd&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)), close_(other.close_) {}
    BasicFd& operator=(BasicFd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
            close_ = other.close_;
        }
        return *this;
    }
    BasicFd(const BasicFd&) = delete;
    BasicFd& operator=(const BasicFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset() {
        if (fd_ >= 0) close_(fd_);
        fd_ = -1;
    }

  private:
    int fd_ = -1;
    Close close_{};
};

struct PosixClose {
    void operator()(int fd) const { ::close(fd); }
};

using UniqueFd = BasicFd<PosixClose>;

}  // namespace opc::detail
