#include "platform/zip/ZipEntryStream.hpp"

#include <libdeflate.h>

#include <algorithm>
#include <string>
#include <utility>

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::zippackage {
namespace {

// Package XML parts and icons are small; a big part is read in pieces of
// this size, which keeps the pread calls few.
constexpr std::uint64_t kChunk = 64 * 1024;

}  // namespace

ZipEntryStream::ZipEntryStream(const opc::interfaces::PhysicalEntry& entry,
                               std::unique_ptr<InputStream> raw, std::vector<unsigned char>* lent)
    : entry_(entry), raw_(std::move(raw)) {
    if (entry.compressionMethod == opc::interfaces::PhysicalEntry::kDeflated) {
        std::vector<unsigned char>& chunk = lent ? *lent : own_;
        // A lent buffer only grows, so that every entry after the first
        // finds it ready.
        const auto wanted = static_cast<std::size_t>(
            std::min(std::max<std::uint64_t>(entry.compressedSize, 1), kChunk));
        if (chunk.size() < wanted) chunk.resize(lent ? kChunk : wanted);
        inflater_ = std::make_unique<detail::Inflater>(
            *raw_, entry.compressedSize, chunk.data(), chunk.size(),
            "cannot read the ZIP entry \"" + entry.name + "\": ");
    }
}

ZipEntryStream::~ZipEntryStream() = default;

void ZipEntryStream::fail(const std::string& why) const {
    throw opc::Exception(opc::Reason::DamagedEntry,
                         "cannot read the ZIP entry \"" + entry_.name + "\": " + why);
}

std::size_t ZipEntryStream::readSome(unsigned char* buffer, std::size_t size) {
    return inflater_ ? inflater_->read(buffer, size) : raw_->read(buffer, size);
}

void ZipEntryStream::checkComplete() {
    unsigned char probe;
    if (readSome(&probe, 1) != 0) fail("it holds more bytes than its declared size");
    if (inflater_) crc_ = inflater_->crc32();
    if (crc_ != entry_.crc32) fail("its CRC-32 does not match (the data is damaged)");
    finished_ = true;
}

std::size_t ZipEntryStream::read(unsigned char* buffer, std::size_t size) {
    if (finished_ || size == 0) return 0;
    if (count_ == entry_.size) {
        checkComplete();
        return 0;
    }
    const std::size_t wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(size, entry_.size - count_));
    const std::size_t n = readSome(buffer, wanted);
    if (n == 0) fail("it holds fewer bytes than its declared size");
    count_ += n;
    // The inflater keeps the CRC-32 of what it decodes while the bytes are
    // still in cache; a second pass here cost more than it did.
    if (!inflater_) crc_ = libdeflate_crc32(crc_, buffer, n);
    if (count_ == entry_.size) checkComplete();
    return n;
}

}  // namespace opc::zippackage
