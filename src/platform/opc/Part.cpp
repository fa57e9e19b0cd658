#include "tsappinstall/platform/opc/Part.hpp"

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::model {

Part::Part(opc::interfaces::IPhysicalPackage& container, PartName name, std::string contentType,
           std::uint64_t entryIndex)
    : container_(&container),
      name_(std::move(name)),
      contentType_(std::move(contentType)),
      entryIndex_(entryIndex) {}

Part::~Part() = default;
Part::Part(Part&&) noexcept = default;
Part& Part::operator=(Part&&) noexcept = default;

const opc::interfaces::PhysicalEntry& Part::getEntry() const {
    return container_->getEntries().at(static_cast<std::size_t>(entryIndex_));
}

InputStream& Part::getInputStream(std::vector<unsigned char>* lent) {
    stream_.reset();  // one open stream per part at a time
    stream_ = container_->openEntry(entryIndex_, lent);
    return *stream_;
}

InputStream& Part::getRawInputStream() {
    stream_.reset();
    stream_ = container_->openRawEntry(entryIndex_);
    return *stream_;
}

void Part::pin(std::uint64_t maxSize) {
    container_->pinEntry(entryIndex_, maxSize);
}

}  // namespace opc::model
