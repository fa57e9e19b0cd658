#pragma once

#include <cstdint>
#include <vector>

#include "tsappinstall/platform/opc/IPhysicalPackage.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace opc::zippackage {

// The stored bytes of one entry, read with pread() straight from the
// package file at the data offset the directory check established: the
// offsets it trusts are the ones already checked against overlap and the
// central directory. Every reader of an entry's bytes starts here (or at
// the entry's pinned copy).
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

// The stored bytes of a pinned entry, from memory: the file is not read
// again, so a rewritten file cannot change them.
class PinnedEntryStream : public InputStream {
  public:
    explicit PinnedEntryStream(const std::vector<unsigned char>& stored) : stored_(stored) {}

    std::size_t read(unsigned char* buffer, std::size_t size) override;

  private:
    const std::vector<unsigned char>& stored_;
    std::size_t next_ = 0;
};

}  // namespace opc::zippackage
