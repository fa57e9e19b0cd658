#pragma once

#include <cstdint>

#include "tsappinstall/platform/opc/IPhysicalPackage.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace opc::zippackage {

// The stored bytes of one entry, read with pread() straight from the
// package file at the data offset the directory check established. Whole
// package extraction reads every entry this way: it skips libzip's stdio
// layer and its per-entry setup, and the offsets it trusts are the ones
// already checked against overlap and the central directory.
class RawEntryStream : public InputStream {
  public:
    RawEntryStream(int fd, const opc::interfaces::PhysicalEntry& entry)
        : fd_(fd), next_(entry.dataOffset), left_(entry.compressedSize), name_(entry.name) {}

    std::size_t read(unsigned char* buffer, std::size_t size) override;

  private:
    int fd_;
    std::uint64_t next_;
    std::uint64_t left_;
    const std::string& name_;
};

}  // namespace opc::zippackage
