// Reading a manifest into a record.

#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

namespace ids = tsapp_builtins::tsapp_builtins;

void AppManifestSerializer::load(opc::InputStream&, AppManifest&) {
    ids::raise(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
}

void AppManifestSerializer::load(const std::u16string&, AppManifest&) {
    ids::raise(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
}

std::u16string AppManifestSerializer::getElementValueByTagName(const xercesc::DOMElement*,
                                                               const opc::model::XercesString&) {
    ids::raise(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
}

std::vector<std::u16string> AppManifestSerializer::getElementValueListByTagName(
    const xercesc::DOMElement*, const opc::model::XercesString&) {
    ids::raise(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
}
