// Writing a record as a signed manifest.

#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

namespace ids = tsapp_builtins::tsapp_builtins;

void AppManifestSerializer::save(opc::OutputStream&, const AppManifest&) {
    ids::raise(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
}

void AppManifestSerializer::save(const std::u16string&, const AppManifest&) {
    ids::raise(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
}
