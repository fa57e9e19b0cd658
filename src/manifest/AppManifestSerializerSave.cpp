// Writing a record as a signed manifest.

#include <fstream>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Conversions.hpp"

namespace ids = tsapp_builtins::tsapp_builtins;

// The seal covers the document before the signature attribute is set on it.
// Whatever fails, the caller sees one write error; nothing reaches the
// stream unless the whole text was produced.
void AppManifestSerializer::save(opc::OutputStream& stream, const AppManifest& manifest) {
    try {
        const opc::model::XercesPtr<xercesc::DOMDocument> document(createDOMDocument(manifest));
        const std::string signature = signDocument(manifest.GUID, document.get());
        document->getDocumentElement()->setAttribute(signatureAttribute_,
                                                     opc::toString(signature, true).c_str());
        opc::model::XercesHelper::writeDocumentToStream(writer_.get(), document.get(), stream);
    } catch (...) {
        ids::raise(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
    }
}

// A path that cannot be opened surfaces as the stream's write failure.
void AppManifestSerializer::save(const std::u16string& path, const AppManifest& manifest) {
    std::ofstream file(fl::i18n::to_string(path), std::ios::out);
    opc::StdOStreamAdaptor stream(file);
    save(stream, manifest);
}
