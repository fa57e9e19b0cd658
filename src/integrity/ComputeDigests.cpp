#include "PackageItems.hpp"
#include "tsappinstall/integrity/Digests.hpp"

namespace tsappinstall::integrity {

std::vector<DigestEntry> computeDigests(opc::model::Package& package) {
    std::vector<DigestEntry> digests;
    Sha256 hash;
    std::vector<unsigned char> buffer(1 << 16);
    detail::forEachItem(package, detail::integrityParts(package),
                        [&](const std::string& item, opc::InputStream& in) {
                            for (std::size_t n; (n = in.read(buffer.data(), buffer.size())) > 0;)
                                hash.update(buffer.data(), n);
                            digests.push_back({item, hash.finishHex()});
                        });
    return digests;
}

}  // namespace tsappinstall::integrity
