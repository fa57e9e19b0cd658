#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <ctime>

#include "Certificates.hpp"
#include "OpenSsl.hpp"
#include "tsappinstall/integrity/Signature.hpp"

namespace tsappinstall::integrity {

using namespace detail;

struct Signer::Keys {
    KeyPtr key;
    X509Ptr certificate;
    CertsPtr chain{sk_X509_new_null()};
};

namespace {

BioPtr openFile(const std::string& path) {
    BioPtr bio(BIO_new_file(path.c_str(), "r"));
    if (!bio)
        throw IntegrityError(opensslError("cannot read \"" + path + "\""), FaultKind::CannotRead);
    return bio;
}

// The certificate in `pool` that issued `subject`, or null.
X509* issuerIn(STACK_OF(X509) * pool, X509* subject) {
    for (int i = 0; i < sk_X509_num(pool); ++i) {
        X509* candidate = sk_X509_value(pool, i);
        if (candidate != subject && X509_check_issued(candidate, subject) == X509_V_OK)
            return candidate;
    }
    return nullptr;
}

// The certificates of `pool` on the way from `certificate` up to a root, in
// that order. Verification refuses a signature carrying any other, so a
// file that bundles more still yields signatures that verify.
CertsPtr issuerPath(X509* certificate, STACK_OF(X509) * pool) {
    CertsPtr path(sk_X509_new_null());
    if (!path) throw IntegrityError("out of memory");
    X509* current = certificate;
    while (sk_X509_num(path.get()) < sk_X509_num(pool)) {
        if (X509_check_issued(current, current) == X509_V_OK) break;  // a root
        X509* issuer = issuerIn(pool, current);
        if (issuer == nullptr) break;
        if (sk_X509_push(path.get(), issuer) == 0) throw IntegrityError("out of memory");
        X509_up_ref(issuer);
        current = issuer;
    }
    return path;
}

}  // namespace

Signer::Signer(const std::string& keyFile, const std::string& certificateFile)
    : keys_(std::make_unique<Keys>()) {
    load(keyFile, certificateFile, nullptr);
}

Signer::Signer(const std::string& keyFile, const std::string& certificateFile,
               const std::string& passphrase)
    : keys_(std::make_unique<Keys>()) {
    load(keyFile, certificateFile, &passphrase);
}

// Without a passphrase OpenSSL asks the terminal for one when the key needs it.
void Signer::load(const std::string& keyFile, const std::string& certificateFile,
                  const std::string* passphrase) {
    ERR_clear_error();
    void* secret = passphrase ? const_cast<char*>(passphrase->c_str()) : nullptr;
    keys_->key.reset(PEM_read_bio_PrivateKey(openFile(keyFile).get(), nullptr, nullptr, secret));
    if (!keys_->key) throw IntegrityError(opensslError("no private key in \"" + keyFile + "\""));
    const BioPtr certs = openFile(certificateFile);
    keys_->certificate.reset(PEM_read_bio_X509(certs.get(), nullptr, nullptr, nullptr));
    if (!keys_->certificate)
        throw IntegrityError(opensslError("no certificate in \"" + certificateFile + "\""));
    while (X509Ptr extra{PEM_read_bio_X509(certs.get(), nullptr, nullptr, nullptr)}) {
        if (!keys_->chain || sk_X509_push(keys_->chain.get(), extra.get()) == 0)
            throw IntegrityError("out of memory");
        extra.release();
    }
    ERR_clear_error();  // the loop ends on a "no start line" error
    if (X509_check_private_key(keys_->certificate.get(), keys_->key.get()) != 1)
        throw IntegrityError(
            opensslError("the key in \"" + keyFile + "\" does not belong to the certificate"));
    keys_->chain = issuerPath(keys_->certificate.get(), keys_->chain.get());
}

Signer::~Signer() = default;

namespace {

std::string dayOf(const ASN1_TIME* time) {
    std::tm tm{};
    char text[16] = "?";
    if (ASN1_TIME_to_tm(time, &tm) == 1) std::strftime(text, sizeof text, "%Y-%m-%d", &tm);
    return text;
}

}  // namespace

std::vector<std::string> Signer::certificateProblems(std::time_t now) const {
    X509* certificate = keys_->certificate.get();
    std::vector<std::string> problems;
    if (X509_cmp_time(X509_get0_notBefore(certificate), &now) > 0)
        problems.push_back("the certificate is not valid before " +
                           dayOf(X509_get0_notBefore(certificate)));
    if (X509_cmp_time(X509_get0_notAfter(certificate), &now) < 0)
        problems.push_back("the certificate expired on " + dayOf(X509_get0_notAfter(certificate)));
    for (std::string& problem : signerProblems(certificate)) problems.push_back(std::move(problem));
    for (int i = 0; i < sk_X509_num(keys_->chain.get()); ++i) {
        std::string problem = issuerProblem(sk_X509_value(keys_->chain.get(), i));
        if (!problem.empty()) problems.push_back(std::move(problem));
    }
    return problems;
}

SignerCertificate Signer::certificate() const {
    return describeCertificate(keys_->certificate.get());
}

SignerCertificate readCertificate(const std::string& file) {
    ERR_clear_error();
    const X509Ptr certificate(PEM_read_bio_X509(openFile(file).get(), nullptr, nullptr, nullptr));
    if (!certificate)
        throw IntegrityError(opensslError("no certificate in \"" + file + "\""),
                             FaultKind::CannotRead);
    return describeCertificate(certificate.get());
}

namespace {

// OpenSSL's CMS code cannot sign with Ed25519 (it insists on a digest the
// algorithm refuses), so the signer information is made without signed
// attributes and the signature is filled in here: pure Ed25519 over the
// content itself, with SHA-512 named as the digest, as CMS defines it.
void signEd25519(CMS_ContentInfo* cms, X509* certificate, EVP_PKEY* key,
                 const std::string& content) {
    CMS_SignerInfo* signer =
        CMS_add1_signer(cms, certificate, key, EVP_sha512(), CMS_NOATTR | CMS_PARTIAL | CMS_BINARY);
    if (signer == nullptr) throw IntegrityError(opensslError("cannot add the signer"));
    const MdContextPtr md(EVP_MD_CTX_new());
    std::size_t size = 0;
    const auto* data = reinterpret_cast<const unsigned char*>(content.data());
    if (!md || EVP_DigestSignInit(md.get(), nullptr, nullptr, nullptr, key) != 1 ||
        EVP_DigestSign(md.get(), nullptr, &size, data, content.size()) != 1)
        throw IntegrityError(opensslError("cannot sign the digest list"));
    std::vector<unsigned char> signature(size);
    if (EVP_DigestSign(md.get(), signature.data(), &size, data, content.size()) != 1)
        throw IntegrityError(opensslError("cannot sign the digest list"));
    X509_ALGOR* algorithm = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, nullptr, &algorithm);
    if (X509_ALGOR_set0(algorithm, OBJ_nid2obj(NID_ED25519), V_ASN1_UNDEF, nullptr) != 1 ||
        ASN1_STRING_set(CMS_SignerInfo_get0_signature(signer), signature.data(),
                        static_cast<int>(size)) != 1)
        throw IntegrityError(opensslError("cannot store the signature"));
}

std::vector<unsigned char> encode(CMS_ContentInfo* cms) {
    const int size = i2d_CMS_ContentInfo(cms, nullptr);
    if (size <= 0) throw IntegrityError(opensslError("cannot encode the signature"));
    std::vector<unsigned char> der(static_cast<std::size_t>(size));
    unsigned char* out = der.data();
    i2d_CMS_ContentInfo(cms, &out);
    return der;
}

}  // namespace

std::vector<unsigned char> Signer::sign(const std::string& content) const {
    ERR_clear_error();
    X509* certificate = keys_->certificate.get();
    EVP_PKEY* key = keys_->key.get();
    // Binary: the bytes are signed as they are, without MIME line-end
    // conversion, so that `openssl cms -verify -binary` agrees.
    constexpr unsigned flags = CMS_DETACHED | CMS_BINARY | CMS_NOSMIMECAP;
    if (EVP_PKEY_id(key) == EVP_PKEY_ED25519) {
        const CmsPtr cms(
            CMS_sign(nullptr, nullptr, keys_->chain.get(), nullptr, flags | CMS_PARTIAL));
        if (!cms) throw IntegrityError(opensslError("cannot sign the digest list"));
        signEd25519(cms.get(), certificate, key, content);
        return encode(cms.get());
    }
    const CmsPtr cms(
        CMS_sign(certificate, key, keys_->chain.get(), memoryBio(content).get(), flags));
    if (!cms) throw IntegrityError(opensslError("cannot sign the digest list"));
    return encode(cms.get());
}

}  // namespace tsappinstall::integrity
