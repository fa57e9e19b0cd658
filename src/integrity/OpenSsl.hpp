#pragma once

// Owners for the OpenSSL handles this folder uses, and its error text.

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace tsappinstall::integrity::detail {

template <typename T, void (*Free)(T*)>
struct Freer {
    void operator()(T* handle) const { Free(handle); }
};
template <typename T, void (*Free)(T*)>
using Owner = std::unique_ptr<T, Freer<T, Free>>;

inline void freeBio(BIO* bio) {
    BIO_free(bio);
}
inline void freeCerts(STACK_OF(X509) * certs) {
    sk_X509_pop_free(certs, X509_free);
}
inline void freeCrls(STACK_OF(X509_CRL) * crls) {
    sk_X509_CRL_pop_free(crls, X509_CRL_free);
}

using BioPtr = Owner<BIO, freeBio>;
using X509Ptr = Owner<X509, X509_free>;
using CertsPtr = Owner<STACK_OF(X509), freeCerts>;
using CrlsPtr = Owner<STACK_OF(X509_CRL), freeCrls>;
using CrlPtr = Owner<X509_CRL, X509_CRL_free>;
using KeyPtr = Owner<EVP_PKEY, EVP_PKEY_free>;
using CmsPtr = Owner<CMS_ContentInfo, CMS_ContentInfo_free>;
using StorePtr = Owner<X509_STORE, X509_STORE_free>;
using StoreContextPtr = Owner<X509_STORE_CTX, X509_STORE_CTX_free>;
using MdContextPtr = Owner<EVP_MD_CTX, EVP_MD_CTX_free>;

// `what`, then OpenSSL's reason for the last failure; empties the queue.
std::string opensslError(const std::string& what);

// A read-only memory BIO over `bytes`, which must outlive it.
BioPtr memoryBio(const std::string& bytes);

}  // namespace tsappinstall::integrity::detail
