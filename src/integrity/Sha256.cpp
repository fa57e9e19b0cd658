#include <fcntl.h>
#include <openssl/evp.h>

#include <cerrno>
#include <vector>

#include "OpenSsl.hpp"
#include "integrity/FileSha256.hpp"
#include "platform/base/Ascii.hpp"
#include "tsappinstall/integrity/Digests.hpp"

namespace tsappinstall::integrity {

struct Sha256::Context {
    detail::MdContextPtr md{EVP_MD_CTX_new()};
    void start() {
        if (!md || EVP_DigestInit_ex(md.get(), EVP_sha256(), nullptr) != 1)
            throw IntegrityError(detail::opensslError("cannot start a SHA-256 digest"));
    }
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
    context_->start();
}

Sha256::~Sha256() = default;

void Sha256::update(const void* data, std::size_t size) {
    if (EVP_DigestUpdate(context_->md.get(), data, size) != 1)
        throw IntegrityError(detail::opensslError("SHA-256 failed"));
}

std::string Sha256::finishHex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(context_->md.get(), digest, &size) != 1)
        throw IntegrityError(detail::opensslError("SHA-256 failed"));
    std::string text = opc::detail::lower_hex(digest, size);
    context_->start();
    return text;
}

FileSha256 sha256OfFile(const opc::detail::FileOps& ops, int fd, const std::atomic<bool>* stop) {
    Sha256 sha;
    std::vector<unsigned char> buffer(1 << 17);
    FileSha256 file;
    for (;;) {
        if (stop && stop->load(std::memory_order_relaxed)) return {};
        const long n =
            ops.readAt(fd, buffer.data(), buffer.size(), static_cast<long long>(file.size));
        if (n < 0) return {{}, file.size, errno};
        sha.update(buffer.data(), static_cast<std::size_t>(n));
        file.size += static_cast<std::uint64_t>(n);
        if (static_cast<std::size_t>(n) < buffer.size()) break;
    }
    file.hex = sha.finishHex();
    return file;
}

std::string sha256OfFile(const std::filesystem::path& path) {
    const opc::detail::FileOps& ops = opc::detail::posixFileOps();
    const opc::detail::OpsFd fd(ops, ops.openat(AT_FDCWD, path.c_str(), O_RDONLY));
    if (!fd) throw Error(FaultKind::CannotRead, "cannot open " + path.string());
    const FileSha256 file = sha256OfFile(ops, fd.get());
    if (file.error) throw Error(FaultKind::CannotRead, "cannot read " + path.string());
    return file.hex;
}

}  // namespace tsappinstall::integrity
