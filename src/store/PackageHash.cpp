#include "PackageHash.hpp"

#include <fcntl.h>

#include <cerrno>

#include "StoreFiles.hpp"

namespace tsappinstall::store::detail {

PackageHash::PackageHash(std::filesystem::path file) : file_(std::move(file)) {
    thread_ = std::thread([this] {
        try {
            const FileOps& ops = opc::detail::posixFileOps();
            const OpsFd fd(ops, ops.openat(AT_FDCWD, file_.c_str(), O_RDONLY | O_CLOEXEC));
            if (!fd) failed(file_.string() + " cannot be read", errno);
            hex_ = sha256Of(ops, fd.get(), file_.string(), nullptr, &stop_);
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
