// The signature over the content and the signer's chain are checked
// apart, so that the report can tell "other bytes" from "other signer".
// The signature part is extracted with the package as a file that anyone
// may read as vouched for by the signer, so it may carry nothing the
// signer did not sign or need: no content of its own, no unsigned
// attributes, no revocation lists, no certificate off the signer's chain.

#include "CheckSignature.hpp"

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "Certificates.hpp"
#include "PackageIntegrity.hpp"
#include "platform/base/Ascii.hpp"
#include "tsappinstall/integrity/Digests.hpp"

namespace tsappinstall::integrity {

using namespace detail;

namespace {

[[noreturn]] void refuseAnchors(const std::string& file, const std::string& cause) {
    throw IntegrityError({FaultKind::CannotRead, file, "cannot load trust anchors: " + cause},
                         "cannot load trust anchors from \"" + file + "\": " + cause);
}

// The system's reason comes first: OpenSSL's own text for a missing file
// is a chain of library codes rather than "No such file or directory".
// The file's certificates and revocation lists both go into the store.
void loadAnchors(X509_STORE* store, const std::string& file) {
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) refuseAnchors(file, std::strerror(EISDIR));
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> readable(std::fopen(file.c_str(), "rb"),
                                                                   &std::fclose);
    if (!readable) refuseAnchors(file, std::strerror(errno));
    if (X509_STORE_load_file(store, file.c_str()) != 1)
        refuseAnchors(file, opensslError("no PEM certificate or revocation list in it"));
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

// Revocation is checked for every certificate on the chain whose issuer
// has a revocation list in the trust files, and for no other: OpenSSL's
// CRL_CHECK_ALL alone would refuse every chain with an issuer whose list
// was never given, and most trust files hold none. A list that is given
// binds: one that has expired or does not verify refuses the chain.
int skipIssuersWithoutList(int ok, X509_STORE_CTX* context) {
    if (ok != 0 || X509_STORE_CTX_get_error(context) != X509_V_ERR_UNABLE_TO_GET_CRL) return ok;
    X509* certificate = X509_STORE_CTX_get_current_cert(context);
    if (certificate == nullptr) return ok;
    const CrlsPtr lists(X509_STORE_CTX_get1_crls(context, X509_get_issuer_name(certificate)));
    ERR_clear_error();
    return sk_X509_CRL_num(lists.get()) > 0 ? 0 : 1;
}

// The certificates from the signer's up to a trust anchor, as
// X509_verify_cert found them among those the signature carries and the
// anchors; or, when there is no such chain, why not.
struct Chain {
    CertsPtr certificates;
    std::string problem;
};

// No purpose is set: OpenSSL's purposes know S/MIME and TLS, not code
// signing, and "smime_sign" would refuse every certificate limited to code
// signing, as commercial ones are. The signer's uses are this layer's own
// rule (Certificates.hpp), checked once the chain is.
Chain chainOf(X509_STORE* store, X509* certificate, STACK_OF(X509) * carried, ChainTime time) {
    const StoreContextPtr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store, certificate, carried) != 1)
        return {nullptr, opensslError("cannot check the chain")};
    unsigned long flags = X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;
    if (time == ChainTime::Any) flags |= X509_V_FLAG_NO_CHECK_TIME;
    X509_STORE_CTX_set_flags(context.get(), flags);
    X509_STORE_CTX_set_verify_cb(context.get(), skipIssuersWithoutList);
    if (X509_verify_cert(context.get()) != 1)
        return {nullptr, X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()))};
    return {CertsPtr(X509_STORE_CTX_get1_chain(context.get())), {}};
}

// Why the chain may not sign under this layer's rule, or empty: the
// signer's certificate first, then each above it.
std::string unfitChain(STACK_OF(X509) * chain) {
    const std::vector<std::string> own = signerProblems(sk_X509_value(chain, 0));
    if (!own.empty()) return own.front();
    for (int i = 1; i < sk_X509_num(chain); ++i) {
        std::string problem = issuerProblem(sk_X509_value(chain, i));
        if (!problem.empty()) return problem;
    }
    return {};
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

// The one signer of a DER CMS signature, with its certificate; or why
// there is none.
struct Parsed {
    CmsPtr cms;
    CMS_SignerInfo* signer = nullptr;
    X509* certificate = nullptr;
    std::string problem;
};

Parsed parseSigned(const std::string& signature) {
    Parsed parsed;
    const auto* der = reinterpret_cast<const unsigned char*>(signature.data());
    parsed.cms.reset(d2i_CMS_ContentInfo(nullptr, &der, static_cast<long>(signature.size())));
    STACK_OF(CMS_SignerInfo)* signers =
        parsed.cms ? CMS_get0_SignerInfos(parsed.cms.get()) : nullptr;
    if (der != reinterpret_cast<const unsigned char*>(signature.data()) + signature.size() ||
        sk_CMS_SignerInfo_num(signers) != 1) {
        parsed.problem = opensslError("not a DER CMS signature by one signer");
        return parsed;
    }
    if (CMS_set1_signers_certs(parsed.cms.get(), nullptr, 0) != 1) {
        parsed.problem = opensslError("it lacks the signer's certificate");
        return parsed;
    }
    parsed.signer = sk_CMS_SignerInfo_value(signers, 0);
    CMS_SignerInfo_get0_algs(parsed.signer, nullptr, &parsed.certificate, nullptr, nullptr);
    return parsed;
}

}  // namespace

namespace detail {

StorePtr trustStore(const std::vector<std::string>& anchors) {
    StorePtr store(X509_STORE_new());
    if (!store) throw IntegrityError(opensslError("out of memory"));
    for (const std::string& file : anchors) loadAnchors(store.get(), file);
    return store;
}

SignatureCheck checkSigned(const std::string& signature, const std::string& content,
                           X509_STORE* anchors, ChainTime time) {
    ERR_clear_error();
    SignatureCheck check;
    const Parsed parsed = parseSigned(signature);
    if (!parsed.problem.empty()) {
        check.fault = {FaultKind::MalformedSignature, SIGNATURE_PART_NAME, parsed.problem};
        return check;
    }
    const std::string cargo = unsignedCargo(parsed.cms.get(), parsed.signer, signature);
    if (!cargo.empty()) {
        check.fault = {FaultKind::MalformedSignature, SIGNATURE_PART_NAME, cargo};
        return check;
    }
    X509* certificate = parsed.certificate;
    check.signer = subjectOf(certificate);
    check.certificate = describeCertificate(certificate);
    const bool matches =
        EVP_PKEY_id(X509_get0_pubkey(certificate)) == EVP_PKEY_ED25519
            ? ed25519Matches(parsed.signer, certificate, content)
            : CMS_verify(parsed.cms.get(), nullptr, anchors, memoryBio(content).get(), nullptr,
                         CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1;
    if (!matches) {
        check.fault = fault(FaultKind::SignatureMismatch, "it does not sign this digest list");
        return check;
    }
    const CertsPtr carried(CMS_get1_certs(parsed.cms.get()));
    const Chain chain = chainOf(anchors, certificate, carried.get(), time);
    std::string unfit;
    if (!chain.problem.empty()) {
        check.fault = {FaultKind::UntrustedSigner, SIGNATURE_PART_NAME,
                       "the signer is not trusted: " + chain.problem};
    } else if (X509* stranger = offChain(carried.get(), chain.certificates.get())) {
        check.fault = {
            FaultKind::MalformedSignature, SIGNATURE_PART_NAME,
            "it carries a certificate off the signer's chain (" + subjectOf(stranger) + ")"};
    } else if (!(unfit = unfitChain(chain.certificates.get())).empty()) {
        check.fault = {FaultKind::UntrustedSigner, SIGNATURE_PART_NAME,
                       "the signer is not trusted: " + unfit};
    }
    return check;
}

}  // namespace detail

SignerCertificate signerCertificateOf(const std::string& signature) {
    ERR_clear_error();
    const Parsed parsed = parseSigned(signature);
    ERR_clear_error();
    return parsed.problem.empty() ? describeCertificate(parsed.certificate) : SignerCertificate{};
}

void checkTrustAnchors(const std::vector<std::string>& trustAnchors) {
    trustStore(trustAnchors);
}

namespace {

std::string pemOf(int (*write)(BIO*, void*), void* item) {
    const BioPtr out(BIO_new(BIO_s_mem()));
    if (!out || write(out.get(), item) != 1) throw IntegrityError(opensslError("out of memory"));
    char* pem = nullptr;
    const long size = BIO_get_mem_data(out.get(), &pem);
    return std::string(pem, static_cast<std::size_t>(size));
}

int writeCertificate(BIO* out, void* item) {
    return PEM_write_bio_X509(out, static_cast<X509*>(item));
}

int writeRevocationList(BIO* out, void* item) {
    return PEM_write_bio_X509_CRL(out, static_cast<X509_CRL*>(item));
}

std::string crlFingerprint(X509_CRL* crl) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_CRL_digest(crl, EVP_sha256(), digest, &length) != 1) return {};
    return opc::detail::lower_hex(digest, length);
}

BioPtr openTrustFile(const std::string& file) {
    BioPtr in(BIO_new_file(file.c_str(), "rb"));
    if (!in) refuseAnchors(file, opensslError("cannot be read"));
    return in;
}

// The certificates of one trust file, then its revocation lists: a copy
// made of them trusts and revokes exactly what the file does.
void readTrustFile(const std::string& file, std::vector<AnchorCertificate>& anchors) {
    trustStore({file});  // refuses what checkSignature would, in its words
    const BioPtr certificates = openTrustFile(file);
    while (
        const X509Ptr certificate{PEM_read_bio_X509(certificates.get(), nullptr, nullptr, nullptr)})
        anchors.push_back({subjectOf(certificate.get()),
                           describeCertificate(certificate.get()).fingerprint,
                           pemOf(writeCertificate, certificate.get())});
    const BioPtr lists = openTrustFile(file);
    while (const CrlPtr crl{PEM_read_bio_X509_CRL(lists.get(), nullptr, nullptr, nullptr)}) {
        const std::string issuer = detail::nameText(X509_CRL_get_issuer(crl.get()));
        anchors.push_back({"revocation list of " + issuer, crlFingerprint(crl.get()),
                           pemOf(writeRevocationList, crl.get())});
    }
    ERR_clear_error();  // the end of the file reads as a failure
}

}  // namespace

std::vector<AnchorCertificate> readTrustAnchors(const std::vector<std::string>& trustAnchors) {
    std::vector<AnchorCertificate> anchors;
    for (const std::string& file : trustAnchors) readTrustFile(file, anchors);
    return anchors;
}

SignatureCheck checkSignature(const std::string& signature, const std::string& content,
                              const std::vector<std::string>& trustAnchors) {
    return checkSigned(signature, content, trustStore(trustAnchors).get(), ChainTime::Now);
}

}  // namespace tsappinstall::integrity
