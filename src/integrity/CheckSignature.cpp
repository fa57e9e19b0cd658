// The signature over the content and the signer's chain are checked
// apart, so that the report can tell "other bytes" from "other signer".

#include <openssl/err.h>

#include "OpenSsl.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"

namespace tsappinstall::integrity {

using namespace detail;

namespace {

StorePtr trustStore(const std::vector<std::string>& anchors) {
    StorePtr store(X509_STORE_new());
    if (!store) throw IntegrityError(opensslError("out of memory"));
    for (const std::string& file : anchors) {
        if (X509_STORE_load_file(store.get(), file.c_str()) != 1)
            throw IntegrityError(opensslError("cannot load trust anchors from \"" + file + "\""));
    }
    return store;
}

std::string subjectOf(X509* certificate) {
    const BioPtr out(BIO_new(BIO_s_mem()));
    if (!out ||
        X509_NAME_print_ex(out.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253) < 0)
        return {};
    char* text = nullptr;
    const long size = BIO_get_mem_data(out.get(), &text);
    return std::string(text, static_cast<std::size_t>(size));
}

// See signEd25519: pure Ed25519 over the content, no signed attributes.
bool ed25519Matches(CMS_SignerInfo* signer, X509* certificate, const std::string& content) {
    if (CMS_signed_get_attr_count(signer) >= 0) return false;
    const ASN1_OCTET_STRING* signature = CMS_SignerInfo_get0_signature(signer);
    const MdContextPtr md(EVP_MD_CTX_new());
    return md &&
           EVP_DigestVerifyInit(md.get(), nullptr, nullptr, nullptr,
                                X509_get0_pubkey(certificate)) == 1 &&
           EVP_DigestVerify(md.get(), ASN1_STRING_get0_data(signature),
                            static_cast<std::size_t>(ASN1_STRING_length(signature)),
                            reinterpret_cast<const unsigned char*>(content.data()),
                            content.size()) == 1;
}

// Empty when the chain from `certificate` (through the certificates the
// signature carries) ends at a trust anchor; else why not.
std::string chainProblem(X509_STORE* store, X509* certificate, CMS_ContentInfo* cms) {
    const StoreContextPtr context(X509_STORE_CTX_new());
    const CertsPtr carried(CMS_get1_certs(cms));
    if (!context || X509_STORE_CTX_init(context.get(), store, certificate, carried.get()) != 1 ||
        X509_STORE_CTX_set_default(context.get(), "smime_sign") != 1)
        return opensslError("cannot check the chain");
    if (X509_verify_cert(context.get()) == 1) return {};
    return X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
}

Fault fault(FaultKind kind, const std::string& what) {
    return {kind, SIGNATURE_PART_NAME, opensslError(what)};
}

}  // namespace

SignatureCheck checkSignature(const std::string& signature, const std::string& content,
                              const std::vector<std::string>& trustAnchors) {
    const StorePtr store = trustStore(trustAnchors);
    ERR_clear_error();
    SignatureCheck check;
    const auto* der = reinterpret_cast<const unsigned char*>(signature.data());
    const CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &der, static_cast<long>(signature.size())));
    STACK_OF(CMS_SignerInfo)* signers = cms ? CMS_get0_SignerInfos(cms.get()) : nullptr;
    if (der != reinterpret_cast<const unsigned char*>(signature.data()) + signature.size() ||
        sk_CMS_SignerInfo_num(signers) != 1) {
        check.fault = fault(FaultKind::MalformedSignature, "not a DER CMS signature by one signer");
        return check;
    }
    if (CMS_set1_signers_certs(cms.get(), nullptr, 0) != 1) {
        check.fault = fault(FaultKind::MalformedSignature, "it lacks the signer's certificate");
        return check;
    }
    CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(signers, 0);
    X509* certificate = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, &certificate, nullptr, nullptr);
    check.signer = subjectOf(certificate);
    const bool matches = EVP_PKEY_id(X509_get0_pubkey(certificate)) == EVP_PKEY_ED25519
                             ? ed25519Matches(signer, certificate, content)
                             : CMS_verify(cms.get(), nullptr, store.get(), memoryBio(content).get(),
                                          nullptr, CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1;
    if (!matches) {
        check.fault = fault(FaultKind::SignatureMismatch, "it does not sign this digest list");
        return check;
    }
    const std::string problem = chainProblem(store.get(), certificate, cms.get());
    if (!problem.empty())
        check.fault = {FaultKind::UntrustedSigner, SIGNATURE_PART_NAME,
                       "the signer is not trusted: " + problem};
    return check;
}

}  // namespace tsappinstall::integrity
