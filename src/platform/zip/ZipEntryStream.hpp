#pragma once

#include <zip.h>

#include <cstdint>

#include "tsappinstall/platform/opc/IPhysicalPackage.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace opc::zippackage {

// Streams one decoded ZIP entry through libzip and owns its zip_file_t. It
// counts the bytes and keeps a running CRC-32; the read that reaches the
// declared size also checks the CRC and that nothing follows, before it
// hands over its bytes.
class ZipEntryStream : public InputStream {
  public:
    ZipEntryStream(zip_t* archive, const opc::interfaces::PhysicalEntry& entry);
    ~ZipEntryStream() override;
    ZipEntryStream(const ZipEntryStream&) = delete;
    ZipEntryStream& operator=(const ZipEntryStream&) = delete;

    std::size_t read(unsigned char* buffer, std::size_t size) override;

  private:
    [[noreturn]] void fail(const std::string& why) const;
    std::size_t readSome(unsigned char* buffer, std::size_t size);
    void checkComplete();

    zip_file_t* file_;
    const opc::interfaces::PhysicalEntry& entry_;
    std::uint64_t expected_;
    std::uint64_t count_ = 0;
    unsigned long crc_;
    bool finished_ = false;
};

}  // namespace opc::zippackage
