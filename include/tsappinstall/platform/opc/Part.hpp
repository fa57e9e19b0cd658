#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

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
    // A part stored in pieces (an interleaved part): `pieces` are their
    // entries in order, `joined` describes them as one entry (the sums of
    // their sizes, the CRC-32 of their bytes in turn).
    Part(opc::interfaces::IPhysicalPackage& container, PartName name, std::string contentType,
         std::vector<std::uint64_t> pieces, opc::interfaces::PhysicalEntry joined);
    ~Part();
    Part(Part&&) noexcept;
    Part& operator=(Part&&) noexcept;
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    const PartName& getPartName() const { return name_; }
    const std::string& getContentType() const { return contentType_; }
    // The ZIP entry holding the part: sizes, CRC-32, method, index; for a
    // part in pieces, the joined description (index and offsets are its
    // first piece's).
    const opc::interfaces::PhysicalEntry& getEntry() const;

    // A fresh stream over the part's bytes, from the first one, owned by the
    // part: it stays valid until the next call of getInputStream or
    // getRawInputStream or until the part is destroyed. Reading checks the
    // size and CRC-32 (see IPhysicalPackage::openEntry, also for `lent`),
    // of each piece in turn for a part in pieces.
    InputStream& getInputStream(std::vector<unsigned char>* lent = nullptr);
    // The stored (compressed) bytes, for copying the entry as it is. A part
    // in pieces has no one stored form: throws opc::Exception.
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
    std::vector<std::uint64_t> pieces_;      // empty for a part in one entry
    opc::interfaces::PhysicalEntry joined_;  // with pieces_ only
    std::unique_ptr<InputStream> stream_;
};

}  // namespace opc::model
