#pragma once

#include <memory>
#include <string>
#include <utility>

#include "tsappinstall/export.hpp"
#include "tsappinstall/platform/opc/IPhysicalPackage.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace opc::model {

// One part of an open package. It refers to its package's container, so it
// must not outlive the Package (nor the physical package) it came from.
class TSAPP_API Part {
  public:
    Part(opc::interfaces::IPhysicalPackage& container, PartName name, std::string contentType,
         std::uint64_t entryIndex);
    ~Part();
    Part(Part&&) noexcept;
    Part& operator=(Part&&) noexcept;
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    const PartName& getPartName() const { return name_; }
    const std::string& getContentType() const { return contentType_; }
    // The ZIP entry holding the part: sizes, CRC-32, method, index.
    const opc::interfaces::PhysicalEntry& getEntry() const;

    // A fresh stream over the part's bytes, from the first one, owned by the
    // part: it stays valid until the next call of getInputStream or
    // getRawInputStream or until the part is destroyed. Reading checks the
    // size and CRC-32 (see IPhysicalPackage::openEntry, also for `lent`).
    InputStream& getInputStream(std::vector<unsigned char>* lent = nullptr);
    // The stored (compressed) bytes, for copying the entry as it is.
    InputStream& getRawInputStream();
    // Keeps the part's stored bytes in memory from now on, so that every
    // later read, raw or decoded, yields the same bytes however the file
    // changes (see IPhysicalPackage::pinEntry; throws opc::Exception when
    // the part declares more than `maxSize` bytes).
    void pin(std::uint64_t maxSize);

  private:
    opc::interfaces::IPhysicalPackage* container_;
    PartName name_;
    std::string contentType_;
    std::uint64_t entryIndex_;
    std::unique_ptr<InputStream> stream_;
};

}  // namespace opc::model
