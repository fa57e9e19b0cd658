#include "PackageHash.hpp"

#include <fcntl.h>

#include <cerrno>

#include "integrity/FileSha256.hpp"

namespace tsappinstall::store::detail {

PackageHash::PackageHash(std::filesystem::path file) : file_(std::move(file)) {
    const FileOps& ops = opc::detail::posixFileOps();
    fd_ = OpsFd(ops, ops.openat(AT_FDCWD, file_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const int openError = errno;
    thread_ = std::thread([this, openError] {
        try {
            if (!fd_) failed(file_.string() + " cannot be read", openError);
            const integrity::FileSha256 read =
                integrity::sha256OfFile(opc::detail::posixFileOps(), fd_.get(), &stop_);
            if (read.error) failed(file_.string() + " cannot be read", read.error);
            hex_ = read.hex;
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
