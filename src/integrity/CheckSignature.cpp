// The signature over the content and the signer's chain are checked
// apart, so that the report can tell "other bytes" from "other signer".
// The signature part is extracted with the package as a file that anyone
// may read as vouched for by the signer, so it may carry nothing the
// signer did not sign or need: no content of its own, no unsigned
// attributes, no revocation lists, no certificate off the signer's chain.

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "OpenSsl.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"

namespace tsappinstall::integrity {

using namespace detail;

namespace {

[[noreturn]] void refuseAnchors(const std::string& file, const std::string& cause) {
    throw IntegrityError({FaultKind::CannotRead, file, "cannot load trust anchors: " + cause},
                         "cannot load trust anchors from \"" + file + "\": " + cause);
}

// The system's reason comes first: OpenSSL's own text for a missing file
// is a chain of library codes rather than "No such file or directory".
void loadAnchors(X509_STORE* store, const std::string& file) {
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) refuseAnchors(file, std::strerror(EISDIR));
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> readable(std::fopen(file.c_str(), "rb"),
                                                                   &std::fclose);
    if (!readable) refuseAnchors(file, std::strerror(errno));
    if (X509_STORE_load_file(store, file.c_str()) != 1)
        refuseAnchors(file, opensslError("no PEM certificate in it"));
}

StorePtr trustStore(const std::vector<std::string>& anchors) {
    StorePtr store(X509_STORE_new());
    if (!store) throw IntegrityError(opensslError("out of memory"));
    for (const std::string& file : anchors) loadAnchors(store.get(), file);
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

std::string utcOf(const ASN1_TIME* time) {
    std::tm parts{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) return {};
    char text[32];
    return std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0 ? "" : text;
}

std::string keyFingerprintOf(X509* certificate) {
    unsigned char* der = nullptr;
    const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
    std::string hex;
    if (size > 0) {
        Sha256 hash;
        hash.update(der, static_cast<std::size_t>(size));
        hex = hash.finishHex();
    }
    OPENSSL_free(der);
    return hex;
}

SignerCertificate describeCertificate(X509* certificate) {
    SignerCertificate out;
    unsigned char* der = nullptr;
    const int size = i2d_X509(certificate, &der);
    if (size > 0) {
        Sha256 hash;
        hash.update(der, static_cast<std::size_t>(size));
        out.fingerprint = hash.finishHex();
    }
    OPENSSL_free(der);
    out.keyFingerprint = keyFingerprintOf(certificate);
    out.notBefore = utcOf(X509_get0_notBefore(certificate));
    out.notAfter = utcOf(X509_get0_notAfter(certificate));
    return out;
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

// The certificates from the signer's up to a trust anchor, as
// X509_verify_cert found them among those the signature carries and the
// anchors; or, when there is no such chain, why not.
struct Chain {
    CertsPtr certificates;
    std::string problem;
};

Chain chainOf(X509_STORE* store, X509* certificate, STACK_OF(X509) * carried) {
    const StoreContextPtr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store, certificate, carried) != 1 ||
        X509_STORE_CTX_set_default(context.get(), "smime_sign") != 1)
        return {nullptr, opensslError("cannot check the chain")};
    if (X509_verify_cert(context.get()) != 1)
        return {nullptr, X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()))};
    return {CertsPtr(X509_STORE_CTX_get1_chain(context.get())), {}};
}

// A carried certificate the chain does not use, or null.
X509* offChain(STACK_OF(X509) * carried, STACK_OF(X509) * chain) {
    for (int i = 0; i < sk_X509_num(carried); ++i) {
        X509* certificate = sk_X509_value(carried, i);
        bool used = false;
        for (int j = 0; j < sk_X509_num(chain) && !used; ++j)
            used = X509_cmp(certificate, sk_X509_value(chain, j)) == 0;
        if (!used) return certificate;
    }
    return nullptr;
}

// One DER element: its tag, class and contents.
struct Element {
    int tag = 0;
    int cls = 0;
    const unsigned char* contents = nullptr;
    long length = 0;
};

// The element at `at`, which then points past it; false at `end` or where
// no definite-length element begins.
bool nextElement(const unsigned char*& at, const unsigned char* end, Element& element) {
    if (at >= end) return false;
    const unsigned char* contents = at;
    const int info =
        ASN1_get_object(&contents, &element.length, &element.tag, &element.cls, end - at);
    if ((info & 0x80) != 0 || (info & 1) != 0) return false;  // an error; an indefinite length
    element.contents = contents;
    at = contents + element.length;
    return true;
}

// Which of the optional fields of the signed data are there beyond what
// OpenSSL lists: certificates other than X.509 ones (attribute and other
// formats) and revocation information of any kind. The structure has been
// parsed as CMS already; this looks only at the outline of its DER.
struct CarriedExtras {
    bool readable = false;
    bool otherCertificates = false;
    bool revocationInfo = false;
};

CarriedExtras extrasOf(const std::string& der) {
    CarriedExtras extras;
    const auto* at = reinterpret_cast<const unsigned char*>(der.data());
    const unsigned char* end = at + der.size();
    Element contentInfo, type, explicitContent, signedData, skipped, field;
    if (!nextElement(at, end, contentInfo)) return extras;
    at = contentInfo.contents, end = at + contentInfo.length;
    if (!nextElement(at, end, type) || !nextElement(at, end, explicitContent)) return extras;
    at = explicitContent.contents, end = at + explicitContent.length;
    if (!nextElement(at, end, signedData)) return extras;
    at = signedData.contents, end = at + signedData.length;
    for (int i = 0; i < 3; ++i)  // version, digest algorithms, content info
        if (!nextElement(at, end, skipped)) return extras;
    while (nextElement(at, end, field) && field.cls == V_ASN1_CONTEXT_SPECIFIC) {
        if (field.tag != 0) {
            extras.revocationInfo = true;
            continue;
        }
        const unsigned char* next = field.contents;
        for (Element certificate; nextElement(next, field.contents + field.length, certificate);)
            if (certificate.cls != V_ASN1_UNIVERSAL || certificate.tag != V_ASN1_SEQUENCE)
                extras.otherCertificates = true;
    }
    extras.readable = true;
    return extras;
}

// Why the signature carries something its signer did not sign, or empty.
std::string unsignedCargo(CMS_ContentInfo* cms, CMS_SignerInfo* signer, const std::string& der) {
    const CarriedExtras extras = extrasOf(der);
    if (!extras.readable) return "it is not DER";
    if (CMS_is_detached(cms) != 1) return "it carries content of its own; it must be detached";
    if (CMS_unsigned_get_attr_count(signer) > 0) return "it carries unsigned attributes";
    if (extras.revocationInfo) return "it carries revocation information";
    if (extras.otherCertificates) return "it carries certificates other than X.509 ones";
    return {};
}

Fault fault(FaultKind kind, const std::string& what) {
    return {kind, SIGNATURE_PART_NAME, opensslError(what)};
}

}  // namespace

void checkTrustAnchors(const std::vector<std::string>& trustAnchors) {
    trustStore(trustAnchors);
}

std::vector<AnchorCertificate> readTrustAnchors(const std::vector<std::string>& trustAnchors) {
    std::vector<AnchorCertificate> anchors;
    for (const std::string& file : trustAnchors) {
        trustStore({file});  // refuses what checkSignature would, in its words
        const BioPtr in(BIO_new_file(file.c_str(), "rb"));
        if (!in) refuseAnchors(file, opensslError("cannot be read"));
        while (const X509Ptr certificate{PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr)}) {
            const BioPtr out(BIO_new(BIO_s_mem()));
            if (!out || PEM_write_bio_X509(out.get(), certificate.get()) != 1)
                throw IntegrityError(opensslError("out of memory"));
            char* pem = nullptr;
            const long size = BIO_get_mem_data(out.get(), &pem);
            anchors.push_back({subjectOf(certificate.get()),
                               describeCertificate(certificate.get()).fingerprint,
                               std::string(pem, static_cast<std::size_t>(size))});
        }
        ERR_clear_error();  // the end of the file reads as a failure
    }
    return anchors;
}

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
    const std::string cargo = unsignedCargo(cms.get(), signer, signature);
    if (!cargo.empty()) {
        check.fault = {FaultKind::MalformedSignature, SIGNATURE_PART_NAME, cargo};
        return check;
    }
    X509* certificate = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, &certificate, nullptr, nullptr);
    check.signer = subjectOf(certificate);
    check.certificate = describeCertificate(certificate);
    const bool matches = EVP_PKEY_id(X509_get0_pubkey(certificate)) == EVP_PKEY_ED25519
                             ? ed25519Matches(signer, certificate, content)
                             : CMS_verify(cms.get(), nullptr, store.get(), memoryBio(content).get(),
                                          nullptr, CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1;
    if (!matches) {
        check.fault = fault(FaultKind::SignatureMismatch, "it does not sign this digest list");
        return check;
    }
    const CertsPtr carried(CMS_get1_certs(cms.get()));
    const Chain chain = chainOf(store.get(), certificate, carried.get());
    if (!chain.problem.empty()) {
        check.fault = {FaultKind::UntrustedSigner, SIGNATURE_PART_NAME,
                       "the signer is not trusted: " + chain.problem};
    } else if (X509* stranger = offChain(carried.get(), chain.certificates.get())) {
        check.fault = {
            FaultKind::MalformedSignature, SIGNATURE_PART_NAME,
            "it carries a certificate off the signer's chain (" + subjectOf(stranger) + ")"};
    }
    return check;
}

}  // namespace tsappinstall::integrity
