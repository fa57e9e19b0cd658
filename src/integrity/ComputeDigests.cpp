#include "PackageItems.hpp"
#include "tsappinstall/integrity/Digests.hpp"

namespace tsappinstall::integrity {

DigestList computeDigests(opc::model::Package& package) {
    DigestList digests;
    Sha256 hash;
    std::vector<unsigned char> buffer(1 << 16);
    detail::forEachItem(package, detail::integrityParts(package),
                        [&](const std::string& item, opc::InputStream& in) {
                            for (std::size_t n; (n = in.read(buffer.data(), buffer.size())) > 0;)
                                hash.update(buffer.data(), n);
                            if (item.front() == '/')
                                digests.parts.push_back({listedName(item, 2), hash.finishHex()});
                            else
                                digests.contentTypesSha256 = hash.finishHex();
                        });
    return digests;
}

}  // namespace tsappinstall::integrity
