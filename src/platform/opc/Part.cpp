#include "tsappinstall/platform/opc/Part.hpp"

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::model {
namespace {

// The decoded bytes of a part's pieces, one after the other, each through
// its own checked stream, so a damaged piece fails as an entry does.
class PieceStream : public InputStream {
  public:
    PieceStream(opc::interfaces::IPhysicalPackage& container, std::vector<std::uint64_t> pieces,
                std::vector<unsigned char>* lent)
        : container_(container), pieces_(std::move(pieces)), lent_(lent) {}

    std::size_t read(unsigned char* buffer, std::size_t size) override {
        for (;;) {
            if (!piece_) {
                if (next_ == pieces_.size()) return 0;
                // The piece before is gone, so a lent buffer is free again.
                piece_ = container_.openEntry(pieces_[next_++], lent_);
            }
            const std::size_t n = piece_->read(buffer, size);
            if (n != 0 || size == 0) return n;
            piece_.reset();
        }
    }

  private:
    opc::interfaces::IPhysicalPackage& container_;
    const std::vector<std::uint64_t> pieces_;
    std::vector<unsigned char>* lent_;
    std::unique_ptr<InputStream> piece_;
    std::size_t next_ = 0;
};

}  // namespace

Part::Part(opc::interfaces::IPhysicalPackage& container, PartName name, std::string contentType,
           std::uint64_t entryIndex)
    : container_(&container),
      name_(std::move(name)),
      contentType_(std::move(contentType)),
      entryIndex_(entryIndex) {}

Part::Part(opc::interfaces::IPhysicalPackage& container, PartName name, std::string contentType,
           std::vector<std::uint64_t> pieces, opc::interfaces::PhysicalEntry joined)
    : container_(&container),
      name_(std::move(name)),
      contentType_(std::move(contentType)),
      entryIndex_(joined.index),
      pieces_(std::move(pieces)),
      joined_(std::move(joined)) {}

Part::~Part() = default;
Part::Part(Part&&) noexcept = default;
Part& Part::operator=(Part&&) noexcept = default;

const opc::interfaces::PhysicalEntry& Part::getEntry() const {
    if (!pieces_.empty()) return joined_;
    return container_->getEntries().at(static_cast<std::size_t>(entryIndex_));
}

InputStream& Part::getInputStream(std::vector<unsigned char>* lent) {
    stream_.reset();  // one open stream per part at a time
    if (!pieces_.empty())
        stream_ = std::make_unique<PieceStream>(*container_, pieces_, lent);
    else
        stream_ = container_->openEntry(entryIndex_, lent);
    return *stream_;
}

InputStream& Part::getRawInputStream() {
    stream_.reset();
    if (!pieces_.empty())
        throw opc::Exception("the part \"" + name_.ascii() +
                             "\" is stored in pieces and has no one stored form");
    stream_ = container_->openRawEntry(entryIndex_);
    return *stream_;
}

void Part::pin(std::uint64_t maxSize) {
    if (pieces_.empty()) return container_->pinEntry(entryIndex_, maxSize);
    if (joined_.size > maxSize)
        throw opc::Exception(
            opc::Reason::NotPackage,
            "the part \"" + name_.ascii() + "\" is too large to be held in memory (" +
                std::to_string(joined_.size) + " bytes; at most " + std::to_string(maxSize) + ")");
    for (std::uint64_t piece : pieces_) container_->pinEntry(piece, maxSize);
}

}  // namespace opc::model
