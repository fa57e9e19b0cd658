#include "tsappinstall/manifest/ManifestFault.hpp"

#include <boost/lexical_cast.hpp>

#include <iterator>

#include "manifest/ManifestFailure.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace tsappinstall {

const char* describe(ManifestFault fault) {
    static const char* const kTexts[] = {
        "good",           "cannot be read", "not well-formed XML", "does not match the schema",
        "bad file count", "bad signature"};
    const auto index = static_cast<std::size_t>(fault);
    return index < std::size(kTexts) ? kTexts[index] : "failed";
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
