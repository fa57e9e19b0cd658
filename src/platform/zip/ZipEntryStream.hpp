#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/zip/Inflater.hpp"
#include "platform/zip/RawEntryStream.hpp"
#include "tsappinstall/platform/opc/IPhysicalPackage.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace opc::zippackage {

// The decoded bytes of one ZIP entry, read with pread() at the offsets the
// directory check established and inflated here. Counts the bytes and keeps
// a running CRC-32; the read that reaches the declared size also checks the
// CRC and that nothing follows, before it hands over its bytes.
class ZipEntryStream : public InputStream {
  public:
    ZipEntryStream(int fd, const opc::interfaces::PhysicalEntry& entry);
    ~ZipEntryStream() override;
    ZipEntryStream(const ZipEntryStream&) = delete;
    ZipEntryStream& operator=(const ZipEntryStream&) = delete;

    std::size_t read(unsigned char* buffer, std::size_t size) override;

  private:
    [[noreturn]] void fail(const std::string& why) const;
    std::size_t readSome(unsigned char* buffer, std::size_t size);
    void checkComplete();

    const opc::interfaces::PhysicalEntry& entry_;
    RawEntryStream raw_;
    std::vector<unsigned char> chunk_;            // compressed bytes, deflated entries only
    std::unique_ptr<detail::Inflater> inflater_;  // null for stored entries
    std::uint64_t count_ = 0;
    std::uint32_t crc_ = 0;
    bool finished_ = false;
};

}  // namespace opc::zippackage
