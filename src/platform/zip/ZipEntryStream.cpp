#include "platform/zip/ZipEntryStream.hpp"

#include <zlib.h>

#include <algorithm>
#include <string>

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::zippackage {

ZipEntryStream::ZipEntryStream(zip_t* archive, const opc::interfaces::PhysicalEntry& entry)
    : file_(zip_fopen_index(archive, entry.index, 0)),
      entry_(entry),
      expected_(entry.size),
      crc_(crc32(0L, Z_NULL, 0)) {
    if (file_ == nullptr) {
        throw opc::Exception(
            opc::Reason::DamagedEntry,
            "cannot open the ZIP entry \"" + entry.name + "\": " + zip_strerror(archive));
    }
}

ZipEntryStream::~ZipEntryStream() {
    zip_fclose(file_);
}

void ZipEntryStream::fail(const std::string& why) const {
    throw opc::Exception(opc::Reason::DamagedEntry,
                         "cannot read the ZIP entry \"" + entry_.name + "\": " + why);
}

std::size_t ZipEntryStream::readSome(unsigned char* buffer, std::size_t size) {
    const zip_int64_t n = zip_fread(file_, buffer, size);
    if (n < 0) fail(zip_file_strerror(file_));
    return static_cast<std::size_t>(n);
}

void ZipEntryStream::checkComplete() {
    unsigned char probe;
    if (readSome(&probe, 1) != 0) fail("it holds more bytes than its declared size");
    if (crc_ != entry_.crc32) fail("its CRC-32 does not match (the data is damaged)");
    finished_ = true;
}

std::size_t ZipEntryStream::read(unsigned char* buffer, std::size_t size) {
    if (finished_ || size == 0) return 0;
    if (count_ == expected_) {
        checkComplete();
        return 0;
    }
    const std::size_t wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(size, expected_ - count_));
    const std::size_t n = readSome(buffer, wanted);
    if (n == 0) fail("it holds fewer bytes than its declared size");
    count_ += n;
    crc_ = crc32_z(crc_, buffer, n);
    if (count_ == expected_) checkComplete();
    return n;
}

}  // namespace opc::zippackage
