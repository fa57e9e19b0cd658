#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/zip/Inflater.hpp"
#include "tsappinstall/platform/opc/IPhysicalPackage.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace opc::zippackage {

// The decoded bytes of one ZIP entry, inflated here from its stored bytes
// (`raw`: read from the file, or pinned in memory). Counts the bytes and
// keeps a running CRC-32; the read that reaches the declared size also
// checks the CRC and that nothing follows, before it hands over its bytes.
class ZipEntryStream : public InputStream {
  public:
    // `lent`, when given, holds the stored bytes instead of a buffer of the
    // stream's own; it must outlive the stream.
    ZipEntryStream(const opc::interfaces::PhysicalEntry& entry, std::unique_ptr<InputStream> raw,
                   std::vector<unsigned char>* lent = nullptr);
    ~ZipEntryStream() override;
    ZipEntryStream(const ZipEntryStream&) = delete;
    ZipEntryStream& operator=(const ZipEntryStream&) = delete;

    std::size_t read(unsigned char* buffer, std::size_t size) override;

  private:
    [[noreturn]] void fail(const std::string& why) const;
    std::size_t readSome(unsigned char* buffer, std::size_t size);
    bool inflateWhole(unsigned char* buffer);
    void startInflater(InputStream& from, std::vector<unsigned char>& chunk);
    void checkComplete();
    bool deflated() const;

    const opc::interfaces::PhysicalEntry& entry_;
    std::unique_ptr<InputStream> raw_;
    std::vector<unsigned char>* stored_;          // compressed bytes: lent, or own_
    std::vector<unsigned char> own_, spare_;      // spare_: the chunk of a second try
    std::unique_ptr<InputStream> held_;           // the bytes a second try reads
    std::unique_ptr<detail::Inflater> inflater_;  // made on the first streaming read
    std::uint64_t count_ = 0;
    std::uint32_t crc_ = 0;
    bool lent_;
    bool whole_ = false;  // decoded in one call
    bool finished_ = false;
};

}  // namespace opc::zippackage
