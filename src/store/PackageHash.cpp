#include "PackageHash.hpp"

#include <fcntl.h>

#include <cerrno>

namespace tsappinstall::store::detail {

PackageHash::PackageHash(std::filesystem::path file) : file_(std::move(file)) {
    const FileOps& ops = opc::detail::posixFileOps();
    fd_ = OpsFd(ops, ops.openat(AT_FDCWD, file_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const int openError = errno;
    thread_ = std::thread([this, openError] {
        try {
            if (!fd_) failed(file_.string() + " cannot be read", openError);
            hex_ =
                sha256Of(opc::detail::posixFileOps(), fd_.get(), file_.string(), nullptr, &stop_);
        } catch (...) {
            error_ = std::current_exception();
        }
    });
}

PackageHash::~PackageHash() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

std::string PackageHash::get() {
    if (thread_.joinable()) thread_.join();
    if (error_) std::rethrow_exception(error_);
    return hex_;
}

}  // namespace tsappinstall::store::detail
