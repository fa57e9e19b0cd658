#include "platform/writer/ZipOutput.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/base/WriteAll.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::zippackage::detail {
namespace {

constexpr std::uint32_t kLocalHeaderSignature = 0x04034b50;
constexpr std::uint32_t kCentralHeaderSignature = 0x02014b50;
constexpr std::uint32_t kDescriptorSignature = 0x08074b50;
constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::uint32_t kZip64EndSignature = 0x06064b50;
constexpr std::uint32_t kZip64LocatorSignature = 0x07064b50;
constexpr std::uint16_t kZip64ExtraId = 0x0001;
constexpr std::uint16_t kFlagDescriptor = 0x0008;
constexpr std::uint16_t kFlagUtf8 = 0x0800;
constexpr std::uint16_t kVersion = 20;       // deflate
constexpr std::uint16_t kVersionZip64 = 45;  // ZIP64 fields
constexpr std::uint16_t kMadeByUnix = 3 << 8;
constexpr std::uint32_t kRegularFileMode = 0100644;
constexpr std::uint32_t kMax32 = 0xFFFFFFFFu;
// A source this large may need ZIP64 sizes: deflate can grow data a little.
constexpr std::uint64_t kZip64SizeHint = 0xFF000000u;
constexpr std::size_t kBufferBytes = 1 << 20;

class Bytes {
  public:
    Bytes& u16(std::uint32_t value) { return put(value, 2); }
    Bytes& u32(std::uint64_t value) { return put(value, 4); }
    Bytes& u64(std::uint64_t value) { return put(value, 8); }
    Bytes& text(const std::string& value) {
        bytes_.insert(bytes_.end(), value.begin(), value.end());
        return *this;
    }
    const std::vector<unsigned char>& bytes() const { return bytes_; }

  private:
    Bytes& put(std::uint64_t value, int count) {
        for (int i = 0; i < count; ++i)
            bytes_.push_back(static_cast<unsigned char>(value >> (8 * i)));
        return *this;
    }
    std::vector<unsigned char> bytes_;
};

std::uint32_t clamp32(std::uint64_t value) {
    return value >= kMax32 ? kMax32 : static_cast<std::uint32_t>(value);
}

}  // namespace

ZipOutput::ZipOutput(int fd, std::string path, std::time_t when) : fd_(fd), path_(std::move(path)) {
    std::tm utc{};
    gmtime_r(&when, &utc);
    // DOS times hold 1980 to 2107; the caller keeps `when` inside.
    const int year = std::min(std::max(utc.tm_year + 1900, 1980), 2107);
    dosDate_ =
        static_cast<std::uint16_t>(((year - 1980) << 9) | ((utc.tm_mon + 1) << 5) | utc.tm_mday);
    dosTime_ =
        static_cast<std::uint16_t>((utc.tm_hour << 11) | (utc.tm_min << 5) | (utc.tm_sec / 2));
    buffer_.reserve(kBufferBytes);
}

void ZipOutput::write(const void* data, std::size_t size) {
    sha_.update(data, size);
    offset_ += size;
    const auto* bytes = static_cast<const unsigned char*>(data);
    if (buffer_.size() + size <= kBufferBytes) {
        buffer_.insert(buffer_.end(), bytes, bytes + size);
        return;
    }
    flush();
    writeAll(bytes, size);  // large data goes out without a copy
}

void ZipOutput::flush() {
    writeAll(buffer_.data(), buffer_.size());
    buffer_.clear();
}

void ZipOutput::writeAll(const unsigned char* data, std::size_t size) {
    if (opc::detail::write_all(fd_, data, size) != 0)
        throw opc::Exception("cannot write the package \"" + path_ + "\": " + std::strerror(errno));
}

void ZipOutput::localHeader(const ZipEntryRecord& entry, bool zip64) {
    Bytes h;
    h.u32(kLocalHeaderSignature)
        .u16(zip64 ? kVersionZip64 : kVersion)
        .u16(kFlagUtf8 | (entry.descriptor ? kFlagDescriptor : 0))
        .u16(entry.deflated ? 8 : 0)
        .u16(dosTime_)
        .u16(dosDate_)
        .u32(entry.crc)
        .u32(zip64 ? kMax32 : entry.compressedSize)
        .u32(zip64 ? kMax32 : entry.size)
        .u16(static_cast<std::uint32_t>(entry.name.size()))
        .u16(zip64 ? 20 : 0)
        .text(entry.name);
    if (zip64) h.u16(kZip64ExtraId).u16(16).u64(entry.size).u64(entry.compressedSize);
    write(h.bytes().data(), h.bytes().size());
}

void ZipOutput::addEntry(const std::string& name, bool deflated, std::uint32_t crc,
                         std::uint64_t size, const unsigned char* data,
                         std::size_t compressedSize) {
    ZipEntryRecord entry{name, deflated, false, crc, compressedSize, size, offset_};
    localHeader(entry, size >= kMax32 || compressedSize >= kMax32);
    write(data, compressedSize);
    entries_.push_back(std::move(entry));
}

void ZipOutput::beginStreamedEntry(const std::string& name, bool deflated, std::uint64_t sizeHint) {
    ZipEntryRecord entry{name, deflated, true, 0, 0, 0, offset_};
    streamedZip64_ = sizeHint >= kZip64SizeHint;
    localHeader(entry, streamedZip64_);
    streamedFrom_ = offset_;
    entries_.push_back(std::move(entry));
}

void ZipOutput::writeStreamedData(const unsigned char* data, std::size_t size) {
    write(data, size);
}

void ZipOutput::endStreamedEntry(std::uint32_t crc, std::uint64_t size) {
    ZipEntryRecord& entry = entries_.back();
    entry.crc = crc;
    entry.size = size;
    entry.compressedSize = offset_ - streamedFrom_;
    Bytes d;
    d.u32(kDescriptorSignature).u32(crc);
    if (!streamedZip64_ && (entry.size >= kMax32 || entry.compressedSize >= kMax32))
        throw opc::Exception("the file for \"" + entry.name + "\" grew while it was packed");
    if (streamedZip64_)
        d.u64(entry.compressedSize).u64(entry.size);
    else
        d.u32(entry.compressedSize).u32(entry.size);
    write(d.bytes().data(), d.bytes().size());
}

// ZIP64 fields go into the extra field in this order, each only when its
// 32-bit field says so.
void ZipOutput::centralHeader(const ZipEntryRecord& entry) {
    Bytes extra;
    if (entry.size >= kMax32) extra.u64(entry.size);
    if (entry.compressedSize >= kMax32) extra.u64(entry.compressedSize);
    if (entry.offset >= kMax32) extra.u64(entry.offset);
    const auto extraBytes = static_cast<std::uint32_t>(extra.bytes().size());
    Bytes h;
    h.u32(kCentralHeaderSignature)
        .u16(kMadeByUnix | kVersionZip64)
        .u16(extraBytes != 0 ? kVersionZip64 : kVersion)
        .u16(kFlagUtf8 | (entry.descriptor ? kFlagDescriptor : 0))
        .u16(entry.deflated ? 8 : 0)
        .u16(dosTime_)
        .u16(dosDate_)
        .u32(entry.crc)
        .u32(clamp32(entry.compressedSize))
        .u32(clamp32(entry.size))
        .u16(static_cast<std::uint32_t>(entry.name.size()))
        .u16(extraBytes != 0 ? extraBytes + 4 : 0)
        .u16(0)  // comment
        .u16(0)  // disk
        .u16(0)  // internal attributes
        .u32(std::uint64_t{kRegularFileMode} << 16)
        .u32(clamp32(entry.offset))
        .text(entry.name);
    if (extraBytes != 0) h.u16(kZip64ExtraId).u16(extraBytes);
    write(h.bytes().data(), h.bytes().size());
    if (extraBytes != 0) write(extra.bytes().data(), extra.bytes().size());
}

void ZipOutput::endRecords(std::uint64_t directoryOffset, std::uint64_t directorySize) {
    const std::uint64_t count = entries_.size();
    const bool zip64 = count >= 0xFFFF || directoryOffset >= kMax32 || directorySize >= kMax32;
    Bytes e;
    if (zip64) {
        const std::uint64_t recordAt = offset_;
        e.u32(kZip64EndSignature)
            .u64(44)
            .u16(kMadeByUnix | kVersionZip64)
            .u16(kVersionZip64)
            .u32(0)
            .u32(0)
            .u64(count)
            .u64(count)
            .u64(directorySize)
            .u64(directoryOffset);
        e.u32(kZip64LocatorSignature).u32(0).u64(recordAt).u32(1);
    }
    const std::uint32_t count16 = count >= 0xFFFF ? 0xFFFF : static_cast<std::uint32_t>(count);
    e.u32(kEndSignature)
        .u16(0)
        .u16(0)
        .u16(count16)
        .u16(count16)
        .u32(clamp32(directorySize))
        .u32(clamp32(directoryOffset))
        .u16(0);
    write(e.bytes().data(), e.bytes().size());
}

std::string ZipOutput::finish() {
    const std::uint64_t directoryOffset = offset_;
    for (const ZipEntryRecord& entry : entries_) centralHeader(entry);
    endRecords(directoryOffset, offset_ - directoryOffset);
    flush();
    return sha_.finishHex();
}

}  // namespace opc::zippackage::detail
