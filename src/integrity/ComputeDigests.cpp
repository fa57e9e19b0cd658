#include <algorithm>

#include "PackageIntegrity.hpp"
#include "PackageItems.hpp"
#include "tsappinstall/integrity/Digests.hpp"

namespace tsappinstall::integrity {
namespace {

// Hashes every item the list covers, as the one read pours it.
class HashSink : public opc::model::ItemSink {
  public:
    explicit HashSink(std::vector<opc::model::PartName> skipped) : skipped_(std::move(skipped)) {}

    bool begin(const std::string& item, opc::model::Part* part, std::size_t) override {
        item_ = item;
        return part == nullptr ||
               std::find(skipped_.begin(), skipped_.end(), part->getPartName()) == skipped_.end();
    }
    void update(const unsigned char* data, std::size_t size) override { hash_.update(data, size); }
    void end() override {
        if (item_.front() == '/')
            digests.parts.push_back({listedName(item_, 2), hash_.finishHex()});
        else
            digests.contentTypesSha256 = hash_.finishHex();
    }
    void fail(const opc::Exception& error) override { throw error; }

    DigestList digests;

  private:
    std::vector<opc::model::PartName> skipped_;
    std::string item_;
    Sha256 hash_;
};

}  // namespace

DigestList computeDigests(opc::model::Package& package) {
    HashSink sink(integrityParts(package));
    opc::model::readEveryItem(package, sink);
    return std::move(sink.digests);
}

}  // namespace tsappinstall::integrity
