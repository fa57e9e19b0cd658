#include "Certificates.hpp"

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <ctime>

#include "OpenSsl.hpp"
#include "tsappinstall/integrity/Digests.hpp"

namespace tsappinstall::integrity::detail {
namespace {

std::string sha256Of(const unsigned char* der, int size) {
    if (size <= 0) return {};
    Sha256 hash;
    hash.update(der, static_cast<std::size_t>(size));
    return hash.finishHex();
}

std::string certificateFingerprint(X509* certificate) {
    unsigned char* der = nullptr;
    const int size = i2d_X509(certificate, &der);
    std::string hex = sha256Of(der, size);
    OPENSSL_free(der);
    return hex;
}

std::string keyFingerprint(X509* certificate) {
    unsigned char* der = nullptr;
    const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
    std::string hex = sha256Of(der, size);
    OPENSSL_free(der);
    return hex;
}

std::string utcOf(const ASN1_TIME* time) {
    std::tm parts{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) return {};
    char text[32];
    return std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0 ? "" : text;
}

// Whether the certificate's extended key usage, when it has one, allows
// code signing. One without the extension is not restricted.
bool usesAllowCodeSigning(X509* certificate) {
    if ((X509_get_extension_flags(certificate) & EXFLAG_XKUSAGE) == 0) return true;
    return (X509_get_extended_key_usage(certificate) & (XKU_CODE_SIGN | XKU_ANYEKU)) != 0;
}

// Why the key is not one signers may use, or empty.
std::string keyProblem(X509* certificate) {
    EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (key == nullptr) return "the certificate's key cannot be read";
    switch (EVP_PKEY_get_base_id(key)) {
        case EVP_PKEY_RSA:
        case EVP_PKEY_RSA_PSS: {
            const int bits = EVP_PKEY_get_bits(key);
            if (bits >= 2048) return {};
            return "the certificate's RSA key has " + std::to_string(bits) +
                   " bits; at least 2048 are needed";
        }
        case EVP_PKEY_EC: {
            char curve[64] = "";
            std::size_t length = 0;
            EVP_PKEY_get_group_name(key, curve, sizeof curve, &length);
            const int nid = OBJ_txt2nid(curve);
            if (nid == NID_X9_62_prime256v1 || nid == NID_secp384r1) return {};
            return std::string("the certificate's ECDSA key is on the curve ") +
                   (*curve ? curve : "?") + "; P-256 or P-384 are needed";
        }
        case EVP_PKEY_ED25519:
            return {};
        default: {
            const char* type = EVP_PKEY_get0_type_name(key);
            return std::string("the certificate's key is ") + (type ? type : "of an unknown type") +
                   "; RSA, ECDSA or Ed25519 are needed";
        }
    }
}

}  // namespace

SignerCertificate describeCertificate(X509* certificate) {
    SignerCertificate out;
    out.fingerprint = certificateFingerprint(certificate);
    out.keyFingerprint = keyFingerprint(certificate);
    out.notBefore = utcOf(X509_get0_notBefore(certificate));
    out.notAfter = utcOf(X509_get0_notAfter(certificate));
    return out;
}

std::string subjectOf(X509* certificate) {
    return nameText(X509_get_subject_name(certificate));
}

std::string nameText(const X509_NAME* name) {
    const BioPtr out(BIO_new(BIO_s_mem()));
    if (!out || X509_NAME_print_ex(out.get(), name, 0, XN_FLAG_RFC2253) < 0) return {};
    char* text = nullptr;
    const long size = BIO_get_mem_data(out.get(), &text);
    return std::string(text, static_cast<std::size_t>(size));
}

std::vector<std::string> signerProblems(X509* certificate) {
    std::vector<std::string> problems;
    const std::uint32_t flags = X509_get_extension_flags(certificate);
    if ((flags & EXFLAG_INVALID) != 0)
        problems.push_back("the certificate has an extension that cannot be read");
    if (!usesAllowCodeSigning(certificate))
        problems.push_back("the certificate's extended key usage does not include code signing");
    if ((flags & EXFLAG_KUSAGE) != 0 &&
        (X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) == 0)
        problems.push_back("the certificate's key usage does not include digital signatures");
    const std::string key = keyProblem(certificate);
    if (!key.empty()) problems.push_back(key);
    return problems;
}

std::string issuerProblem(X509* certificate) {
    if (usesAllowCodeSigning(certificate)) return {};
    return "the issuing certificate " + subjectOf(certificate) +
           " is restricted to uses other than code signing";
}

}  // namespace tsappinstall::integrity::detail
