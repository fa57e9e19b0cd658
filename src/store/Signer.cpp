#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

#include "Unpack.hpp"
#include "platform/base/Ascii.hpp"

namespace tsappinstall::store::detail {
namespace {

struct FreeCms {
    void operator()(CMS_ContentInfo* cms) const { CMS_ContentInfo_free(cms); }
};
struct FreeCertificates {
    void operator()(STACK_OF(X509) * certificates) const {
        sk_X509_pop_free(certificates, X509_free);
    }
};

}  // namespace

std::string signerFingerprint(const std::string& der) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
    std::unique_ptr<CMS_ContentInfo, FreeCms> cms(
        d2i_CMS_ContentInfo(nullptr, &bytes, static_cast<long>(der.size())));
    if (!cms) return {};
    std::unique_ptr<STACK_OF(X509), FreeCertificates> certificates(CMS_get1_certs(cms.get()));
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms.get());
    if (!certificates || !signers || sk_CMS_SignerInfo_num(signers) != 1) return {};
    CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(signers, 0);
    for (int i = 0; i < sk_X509_num(certificates.get()); ++i) {
        X509* certificate = sk_X509_value(certificates.get(), i);
        if (CMS_SignerInfo_cert_cmp(signer, certificate) != 0) continue;
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (X509_digest(certificate, EVP_sha256(), digest, &length) != 1) return {};
        return opc::detail::lower_hex(digest, length);
    }
    return {};
}

}  // namespace tsappinstall::store::detail
