#include "tsappinstall/manifest/ManifestFault.hpp"

#include <boost/lexical_cast.hpp>

#include "manifest/ManifestFailure.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace tsappinstall {

FaultKind kindOf(ManifestFault fault) {
    switch (fault) {
        case ManifestFault::None:
            return FaultKind::Other;
        case ManifestFault::Unreadable:
            return FaultKind::CannotRead;
        case ManifestFault::MalformedXml:
            return FaultKind::MalformedXml;
        case ManifestFault::InvalidXml:
            return FaultKind::InvalidXml;
        case ManifestFault::BadFileCount:
            return FaultKind::WrongFileCount;
        case ManifestFault::BadSignature:
            return FaultKind::BadSignature;
    }
    return FaultKind::Other;  // a value outside the enum
}

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
