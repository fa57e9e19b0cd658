#include "tsappinstall/manifest/ManifestFault.hpp"

#include <boost/lexical_cast.hpp>

#include "manifest/ManifestFailure.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace tsappinstall {

const char* describe(ManifestFault fault) {
    return fault == ManifestFault::None ? "good" : describe(kindOf(fault));
}

ManifestFault loadManifest(AppManifestSerializer& serializer, opc::InputStream& stream,
                           AppManifest& manifest, std::string& text) {
    try {
        serializer.read(stream, manifest);
        return ManifestFault::None;
    } catch (const detail::ManifestFailure& failure) {
        text = failure.what();
        return failure.fault();
    } catch (const boost::bad_lexical_cast& e) {
        text = e.what();
        return ManifestFault::BadFileCount;
    }
}

}  // namespace tsappinstall
