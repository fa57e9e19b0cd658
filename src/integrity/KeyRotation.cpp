#include "tsappinstall/integrity/KeyRotation.hpp"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>

#include "CheckSignature.hpp"
#include "OpenSsl.hpp"
#include "PackageIntegrity.hpp"

namespace tsappinstall::integrity {

using namespace detail;

namespace {

bool isKeyFingerprint(const std::string& text) {
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

std::string pemOf(const std::vector<unsigned char>& der) {
    const BioPtr out(BIO_new(BIO_s_mem()));
    if (!out || PEM_write_bio(out.get(), "CMS", "", der.data(), static_cast<long>(der.size())) <= 0)
        throw IntegrityError(opensslError("cannot write the proof"));
    char* text = nullptr;
    const long size = BIO_get_mem_data(out.get(), &text);
    return std::string(text, static_cast<std::size_t>(size));
}

struct OpensslFree {
    void operator()(void* memory) const { OPENSSL_free(memory); }
};

// The next PEM block's type and bytes; false at the end of the text.
// Throws IntegrityError for a block that does not decode.
bool nextBlock(BIO* in, std::string& type, std::string& der) {
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    const int read = PEM_read_bio(in, &name, &header, &data, &length);
    const std::unique_ptr<char, OpensslFree> ownedName(name), ownedHeader(header);
    const std::unique_ptr<unsigned char, OpensslFree> ownedData(data);
    if (read != 1) {
        const unsigned long error = ERR_peek_last_error();
        if (ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE) {
            ERR_clear_error();
            return false;
        }
        throw IntegrityError(opensslError("a PEM block does not decode"));
    }
    type = name;
    der.assign(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
    return true;
}

// Why one step failed, for the publisher to tell which proof is wrong.
std::string stepProblem(const std::string& from, const std::string& to, const Fault& fault) {
    if (fault.kind == FaultKind::SignatureMismatch)
        return "the key rotation proof by the key " + from + " does not hand over to the key " + to;
    return "the key rotation proof by the key " + from + ": " + fault.detail;
}

}  // namespace

std::string keyRotationStatement(const std::string& oldKey, const std::string& newKey) {
    return "tsapp-key-rotation 1\nold-key " + oldKey + "\nnew-key " + newKey + "\n";
}

std::string signKeyRotation(const Signer& oldSigner, const std::string& newKey) {
    if (!isKeyFingerprint(newKey))
        throw IntegrityError("not a key fingerprint (64 lower-case hex digits): " + newKey);
    const std::string oldKey = oldSigner.certificate().keyFingerprint;
    if (newKey == oldKey)
        throw IntegrityError(
            "the new certificate has the old key; a renewed certificate keeps its key and needs "
            "no proof");
    return pemOf(oldSigner.sign(keyRotationStatement(oldKey, newKey)));
}

std::vector<std::string> readKeyRotations(const std::string& pem) {
    if (pem.size() > MAX_KEY_ROTATIONS_BYTES)
        throw IntegrityError("key rotation proofs may take at most " +
                             std::to_string(MAX_KEY_ROTATIONS_BYTES) + " bytes");
    ERR_clear_error();
    const BioPtr in = memoryBio(pem);
    std::vector<std::string> proofs;
    for (std::string type, der; nextBlock(in.get(), type, der);) {
        if (type != "CMS") throw IntegrityError("a PEM block that is not CMS among the proofs");
        if (proofs.size() == MAX_KEY_ROTATIONS)
            throw IntegrityError("more than " + std::to_string(MAX_KEY_ROTATIONS) +
                                 " key rotation proofs");
        proofs.push_back(std::move(der));
    }
    if (proofs.empty()) throw IntegrityError("no key rotation proof (a PEM block of type CMS)");
    return proofs;
}

RotationCheck checkKeyRotation(const std::string& pem, const std::string& oldKey,
                               const std::string& newKey,
                               const std::vector<std::string>& trustAnchors) {
    const StorePtr anchors = trustStore(trustAnchors);
    RotationCheck check;
    std::vector<std::string> proofs;
    try {
        proofs = readKeyRotations(pem);
    } catch (const IntegrityError& e) {
        check.problem = std::string("the key rotation proofs cannot be read: ") + e.what();
        return check;
    }
    std::vector<std::string> signers;
    for (const std::string& proof : proofs)
        signers.push_back(signerCertificateOf(proof).keyFingerprint);
    const auto first = std::find(signers.begin(), signers.end(), oldKey);
    if (oldKey.empty() || first == signers.end()) {
        check.problem = "no key rotation proof is signed by the old key " + oldKey;
        return check;
    }
    for (auto i = static_cast<std::size_t>(first - signers.begin()); i < proofs.size(); ++i) {
        const std::string& from = signers[i];
        const std::string& to = i + 1 < proofs.size() ? signers[i + 1] : newKey;
        const SignatureCheck step =
            checkSigned(proofs[i], keyRotationStatement(from, to), anchors.get(), ChainTime::Any);
        if (step.fault) {
            check.handedOver.clear();
            check.problem = stepProblem(from, to, *step.fault);
            return check;
        }
        check.handedOver.push_back(from);
        if (to == newKey) break;
    }
    return check;
}

}  // namespace tsappinstall::integrity
