#include "platform/opc/ItemLoop.hpp"

#include <vector>

namespace opc::model {
namespace {

// Large enough that the calls cost nothing next to inflating.
constexpr std::size_t kPiece = 256u << 10;

class Loop {
  public:
    Loop(ItemSink& sink, const std::function<void()>& beforePiece)
        : sink_(sink), beforePiece_(beforePiece), buffer_(kPiece) {}

    // Only a failing read is the item's fault: what the sink throws, and a
    // cancellation, end the loop.
    void pour(const std::function<InputStream&(std::vector<unsigned char>* lent)>& open) {
        std::size_t size = 0;
        InputStream* in = nullptr;
        for (;;) {
            if (beforePiece_) beforePiece_();
            try {
                if (!in) in = &open(&stored_);
                size = in->read(buffer_.data(), buffer_.size());
            } catch (const Exception& e) {
                sink_.fail(e);
                return;
            }
            if (size == 0) break;
            sink_.update(buffer_.data(), size);
        }
        sink_.end();
    }

  private:
    ItemSink& sink_;
    const std::function<void()>& beforePiece_;
    std::vector<unsigned char> buffer_, stored_;
};

}  // namespace

void readEveryItem(Package& package, ItemSink& sink, const std::function<void()>& beforePiece) {
    Loop loop(sink, beforePiece);
    const auto& types = package.getContentTypesEntry();
    if (sink.begin(types.name, nullptr)) {
        std::unique_ptr<InputStream> stream;
        loop.pour([&](std::vector<unsigned char>* lent) -> InputStream& {
            stream = package.getPhysicalPackage().openEntry(types.index, lent);
            return *stream;
        });
    }
    for (const PartName& name : package.getPartNames()) {
        // Destroyed with this round, and its stream and inflater with it.
        Part part = package.getPart(name);
        if (!sink.begin(name.ascii(), &part)) continue;
        loop.pour([&](std::vector<unsigned char>* lent) -> InputStream& {
            return part.getInputStream(lent);
        });
    }
}

}  // namespace opc::model
