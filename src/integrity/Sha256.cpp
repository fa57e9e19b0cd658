#include <openssl/evp.h>

#include "OpenSsl.hpp"
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

}  // namespace tsappinstall::integrity
