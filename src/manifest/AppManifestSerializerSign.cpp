// The manifest's seal: SHA-1 over the GUID followed by the canonical text.

#include <boost/algorithm/string/predicate.hpp>

#include <memory>
#include <sstream>

#include "manifest/SealCheck.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/platform/crypto/CryptoEngine.hpp"
#include "tsappinstall/platform/crypto/CryptoProvider.hpp"
#include "tsappinstall/platform/crypto/HexEncoding.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace {

namespace crypto = foundation::crypto;

std::string computeSignature(const std::string& key, const std::string& text) {
    const std::string input = key + text;
    const std::vector<unsigned char> bytes(input.begin(), input.end());
    const std::shared_ptr<crypto::interfaces::ICryptoProvider> provider =
        std::make_shared<crypto::openssl::CryptoProvider>();
    const crypto::CryptoEngine engine(provider);
    return fl::i18n::to_string(
        crypto::utils::hexEncode(engine.createSHA1DigestEngine().computeDigest(bytes)));
}

// Digits match in either case; length must match exactly.
bool matchSignature(const std::string& key, const std::string& text, const std::string& signature) {
    return boost::algorithm::iequals(signature, computeSignature(key, text));
}

}  // namespace

std::string AppManifestSerializer::signDocument(const std::string& key,
                                                const xercesc::DOMDocument* document) {
    std::ostringstream text;
    serializeDocument(text, document);
    return computeSignature(key, text.str());
}

namespace manifest_seal {
bool textSealed(const std::string& key, const std::string& text, const std::string& signature) {
    return matchSignature(key, text, signature);
}
}  // namespace manifest_seal

bool AppManifestSerializer::verifyDocument(const std::string& key,
                                           const xercesc::DOMDocument* document,
                                           const std::string& signature) {
    std::ostringstream text;
    serializeDocument(text, document);
    return matchSignature(key, text.str(), signature);
}
