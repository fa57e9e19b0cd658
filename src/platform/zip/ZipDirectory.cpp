#include "platform/zip/ZipDirectory.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "platform/base/ReadAt.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::zippackage {
namespace {

using opc::interfaces::PhysicalEntry;

constexpr std::uint32_t kLocalHeaderSignature = 0x04034b50;
constexpr std::uint32_t kCentralHeaderSignature = 0x02014b50;
constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::uint32_t kZip64EndSignature = 0x06064b50;
constexpr std::uint32_t kZip64LocatorSignature = 0x07064b50;
constexpr std::size_t kLocalHeaderBytes = 30;
constexpr std::size_t kCentralHeaderBytes = 46;
constexpr std::size_t kEndBytes = 22;
constexpr std::size_t kZip64LocatorBytes = 20;
constexpr std::size_t kZip64EndBytes = 56;
constexpr std::uint16_t kZip64ExtraId = 0x0001;
constexpr std::uint16_t kFlagEncrypted = 0x0001;
constexpr std::uint16_t kFlagStrongEncryption = 0x0040;
constexpr std::uint16_t kFlagMaskedDirectory = 0x2000;

[[noreturn]] void refuse(const std::string& why) {
    throw opc::Exception(opc::Reason::NotZip, "not a usable ZIP file: " + why);
}

std::uint16_t le16(const unsigned char* p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}
std::uint32_t le32(const unsigned char* p) {
    return static_cast<std::uint32_t>(le16(p)) | (static_cast<std::uint32_t>(le16(p + 2)) << 16);
}
std::uint64_t le64(const unsigned char* p) {
    return static_cast<std::uint64_t>(le32(p)) | (static_cast<std::uint64_t>(le32(p + 4)) << 32);
}

class FileBytes {
  public:
    FileBytes(const ByteSource& source, std::uint64_t size) : source_(source), size_(size) {}
    std::uint64_t size() const { return size_; }

    std::vector<unsigned char> read(std::uint64_t offset, std::size_t count) const {
        if (offset > size_ || count > size_ - offset)
            refuse("a record lies beyond the end of the file");
        std::vector<unsigned char> bytes(count);
        source_(offset, bytes.data(), count);
        return bytes;
    }

  private:
    const ByteSource& source_;
    std::uint64_t size_;
};

struct EndRecord {
    std::uint64_t entryCount = 0;
    std::uint64_t directorySize = 0;
    std::uint64_t directoryOffset = 0;
    std::uint64_t start = 0;     // where the first end record begins
    std::uint64_t trailing = 0;  // bytes after the classic record and its comment
};

// Where the classic end record lies in `tail`, the file's last bytes, or
// npos: with `exact`, the one whose comment ends the file, otherwise the
// last one whose comment fits in it.
std::size_t find_end_record_in_tail(const std::vector<unsigned char>& tail, bool exact) {
    for (std::size_t i = tail.size() - kEndBytes + 1; i-- > 0;) {
        if (le32(&tail[i]) != kEndSignature) continue;
        const std::size_t recordEnd = i + kEndBytes + le16(&tail[i + 20]);
        if (exact ? recordEnd == tail.size() : recordEnd <= tail.size()) return i;
    }
    return std::string::npos;
}

std::vector<unsigned char> read_tail(const FileBytes& file, std::uint64_t tailSize) {
    return file.read(file.size() - tailSize, static_cast<std::size_t>(tailSize));
}

// The classic end record, found from the end. Most files carry no comment,
// so a short tail is tried before the longest one a comment allows. When no
// record ends the file, bytes were appended after it (padding, a signature
// block another tool adds): the last record in reach is taken, as readers
// that tolerate such bytes take it, and the directory it describes must then
// hold up to every check like any other.
EndRecord find_end_record(const FileBytes& file) {
    if (file.size() < kEndBytes) refuse("the file is too short to be a ZIP file");
    constexpr std::uint64_t kShortTail = kEndBytes + 256;
    const std::uint64_t longestTail = std::min<std::uint64_t>(file.size(), kEndBytes + 0xFFFF);
    std::vector<unsigned char> tail = read_tail(file, std::min(longestTail, kShortTail));
    std::size_t at = find_end_record_in_tail(tail, true);
    if (at == std::string::npos && tail.size() < longestTail) {
        tail = read_tail(file, longestTail);
        at = find_end_record_in_tail(tail, true);
    }
    EndRecord end;
    if (at == std::string::npos) {
        at = find_end_record_in_tail(tail, false);
        if (at == std::string::npos) refuse("no end of central directory record (not a ZIP file)");
        end.trailing = tail.size() - (at + kEndBytes + le16(&tail[at + 20]));
    }
    end.start = file.size() - tail.size() + at;
    return end;
}

void read_zip64_end(const FileBytes& file, std::uint64_t locatorAt, EndRecord& end) {
    const auto locator = file.read(locatorAt, kZip64LocatorBytes);
    if (le32(&locator[4]) != 0 || le32(&locator[16]) > 1)
        refuse("split archives are not supported");
    const std::uint64_t at = le64(&locator[8]);
    if (at > locatorAt || locatorAt - at < kZip64EndBytes)
        refuse("the ZIP64 end record is misplaced");
    const auto record = file.read(at, kZip64EndBytes);
    if (le32(&record[0]) != kZip64EndSignature) refuse("the ZIP64 end record is missing");
    if (le64(&record[4]) != locatorAt - at - 12) refuse("the ZIP64 end record has a wrong size");
    if (le32(&record[16]) != 0 || le32(&record[20]) != 0 ||
        le64(&record[24]) != le64(&record[32])) {
        refuse("split archives are not supported");
    }
    end.entryCount = le64(&record[32]);
    end.directorySize = le64(&record[40]);
    end.directoryOffset = le64(&record[48]);
    end.start = at;
}

// A directory that ends before the end record begins is what bytes put in
// front of the archive (a self-extracting stub) look like: every offset
// would be off by their count. Such files are refused rather than shifted.
void refuse_misplaced_directory(const EndRecord& end) {
    if (end.directorySize <= end.start && end.directoryOffset < end.start - end.directorySize) {
        refuse("the central directory ends " +
               std::to_string(end.start - end.directorySize - end.directoryOffset) +
               " bytes before the end record begins (bytes put in front of a ZIP file, such "
               "as a self-extracting stub, are not accepted)");
    }
    if (end.directoryOffset > end.start || end.start - end.directoryOffset != end.directorySize) {
        refuse("the central directory does not end where the end record begins");
    }
}

EndRecord read_end(const FileBytes& file, const ZipLimits& limits) {
    EndRecord end = find_end_record(file);
    const std::uint64_t at = end.start;
    const auto record = file.read(at, kEndBytes);
    if (le16(&record[4]) != 0 || le16(&record[6]) != 0 || le16(&record[8]) != le16(&record[10])) {
        refuse("split archives are not supported");
    }
    end.entryCount = le16(&record[10]);
    end.directorySize = le32(&record[12]);
    end.directoryOffset = le32(&record[16]);
    if (at >= kZip64LocatorBytes) {
        const auto probe = file.read(at - kZip64LocatorBytes, 4);
        if (le32(probe.data()) == kZip64LocatorSignature)
            read_zip64_end(file, at - kZip64LocatorBytes, end);
    }
    refuse_misplaced_directory(end);
    if (end.entryCount > limits.maxEntries) {
        refuse(std::to_string(end.entryCount) + " entries, more than the " +
               std::to_string(limits.maxEntries) + " accepted");
    }
    if (end.directorySize > limits.maxCentralDirectoryBytes)
        refuse("the central directory is too large");
    if (end.entryCount * kCentralHeaderBytes > end.directorySize) {
        refuse("the central directory is too small for its entry count");
    }
    return end;
}

std::string quoted(const std::string& name) {
    return "\"" + name + "\"";
}

// Replaces the 32-bit fields that hold 0xFFFFFFFF with the ZIP64 extra
// field's values, which come in this order and only for those fields.
void apply_zip64_extra(const unsigned char* extra, std::size_t length, PhysicalEntry& entry,
                       bool sizeMax, bool compressedMax, bool offsetMax) {
    if (!sizeMax && !compressedMax && !offsetMax) return;
    for (std::size_t pos = 0; pos + 4 <= length;) {
        const std::uint16_t id = le16(extra + pos);
        const std::size_t fieldLength = le16(extra + pos + 2);
        if (pos + 4 + fieldLength > length) break;
        if (id == kZip64ExtraId) {
            const unsigned char* value = extra + pos + 4;
            const std::size_t needed = 8u * (sizeMax + compressedMax + offsetMax);
            if (fieldLength < needed) break;
            if (sizeMax) {
                entry.size = le64(value);
                value += 8;
            }
            if (compressedMax) {
                entry.compressedSize = le64(value);
                value += 8;
            }
            if (offsetMax) entry.localHeaderOffset = le64(value);
            return;
        }
        pos += 4 + fieldLength;
    }
    refuse("the entry " + quoted(entry.name) + " lacks its ZIP64 sizes");
}

void check_method_and_sizes(const PhysicalEntry& entry, std::uint16_t flags,
                            const ZipLimits& limits) {
    if ((flags & (kFlagEncrypted | kFlagStrongEncryption | kFlagMaskedDirectory)) != 0) {
        refuse("the entry " + quoted(entry.name) + " is encrypted");
    }
    if (entry.compressionMethod == PhysicalEntry::kStored) {
        if (entry.size != entry.compressedSize) {
            refuse("the stored entry " + quoted(entry.name) + " declares two different sizes");
        }
    } else if (entry.compressionMethod == PhysicalEntry::kDeflated) {
        constexpr std::uint64_t kSlack = 64;
        if (entry.size > kSlack &&
            (entry.size - kSlack) / limits.maxDeflateRatio > entry.compressedSize) {
            refuse("the entry " + quoted(entry.name) + " claims a size deflate cannot reach");
        }
    } else {
        refuse("the entry " + quoted(entry.name) + " uses compression method " +
               std::to_string(entry.compressionMethod) + "; only stored and deflate are supported");
    }
}

PhysicalEntry read_central_header(const std::vector<unsigned char>& directory, std::size_t& pos,
                                  std::uint64_t index, const ZipLimits& limits) {
    if (directory.size() - pos < kCentralHeaderBytes ||
        le32(&directory[pos]) != kCentralHeaderSignature) {
        refuse("central directory record " + std::to_string(index) + " is missing or damaged");
    }
    const unsigned char* h = &directory[pos];
    const std::size_t nameLength = le16(h + 28);
    const std::size_t extraLength = le16(h + 30);
    const std::size_t commentLength = le16(h + 32);
    const std::size_t total = kCentralHeaderBytes + nameLength + extraLength + commentLength;
    if (directory.size() - pos < total)
        refuse("central directory record " + std::to_string(index) + " is cut off");

    PhysicalEntry entry;
    entry.index = index;
    entry.name.assign(reinterpret_cast<const char*>(h + kCentralHeaderBytes), nameLength);
    if (entry.name.find('\0') != std::string::npos) refuse("an item name holds a NUL character");
    if (entry.name.empty()) refuse("an item has an empty name");
    entry.compressionMethod = le16(h + 10);
    entry.dosTime = le16(h + 12);
    entry.dosDate = le16(h + 14);
    entry.crc32 = le32(h + 16);
    entry.compressedSize = le32(h + 20);
    entry.size = le32(h + 24);
    entry.localHeaderOffset = le32(h + 42);
    apply_zip64_extra(h + kCentralHeaderBytes + nameLength, extraLength, entry,
                      entry.size == 0xFFFFFFFFu, entry.compressedSize == 0xFFFFFFFFu,
                      entry.localHeaderOffset == 0xFFFFFFFFu);
    if (le16(h + 34) != 0) refuse("split archives are not supported");
    check_method_and_sizes(entry, le16(h + 8), limits);
    pos += total;
    return entry;
}

// The entries' local headers must lie before the central directory.
void check_header_places(const EndRecord& end, const std::vector<PhysicalEntry>& entries) {
    for (const PhysicalEntry& entry : entries) {
        const std::uint64_t headerBytes = kLocalHeaderBytes + entry.name.size();
        if (entry.localHeaderOffset > end.directoryOffset ||
            end.directoryOffset - entry.localHeaderOffset < headerBytes) {
            refuse("the local header of " + quoted(entry.name) +
                   " is not before the central directory");
        }
    }
}

// Checks the local header at `header` against the central record: same
// item name, method and encryption; notes where the data begins, which with
// the data must lie before the central directory.
void check_local_header(const unsigned char* header, std::uint64_t directoryOffset,
                        PhysicalEntry& entry) {
    if (le32(header) != kLocalHeaderSignature) {
        refuse("the local header of " + quoted(entry.name) + " is missing");
    }
    const std::size_t nameLength = le16(header + 26);
    if (nameLength != entry.name.size() ||
        std::memcmp(header + kLocalHeaderBytes, entry.name.data(), nameLength) != 0) {
        refuse("the local header of " + quoted(entry.name) + " names another item");
    }
    if (le16(header + 8) != entry.compressionMethod || (le16(header + 6) & kFlagEncrypted) != 0) {
        refuse("the local header of " + quoted(entry.name) +
               " disagrees with the central directory");
    }
    entry.dataOffset = entry.localHeaderOffset + kLocalHeaderBytes + nameLength + le16(header + 28);
    if (entry.dataOffset > directoryOffset ||
        directoryOffset - entry.dataOffset < entry.compressedSize) {
        refuse("the data of " + quoted(entry.name) + " reaches into the central directory");
    }
}

// Reads the local headers in file order. Headers closer than kGap to each
// other share one read, so a package of small parts costs a few reads while
// one of large parts reads no more than its headers.
void read_local_headers(const FileBytes& file, std::uint64_t directoryOffset,
                        const std::vector<PhysicalEntry*>& byOffset) {
    constexpr std::uint64_t kGap = 4096;
    constexpr std::uint64_t kMaxSpan = 1024 * 1024;
    for (std::size_t first = 0; first < byOffset.size();) {
        const std::uint64_t spanStart = byOffset[first]->localHeaderOffset;
        std::uint64_t spanEnd = spanStart + kLocalHeaderBytes + byOffset[first]->name.size();
        std::size_t last = first + 1;
        for (; last < byOffset.size(); ++last) {
            const PhysicalEntry& next = *byOffset[last];
            const std::uint64_t nextEnd =
                next.localHeaderOffset + kLocalHeaderBytes + next.name.size();
            if (next.localHeaderOffset > spanEnd + kGap || nextEnd - spanStart > kMaxSpan) break;
            spanEnd = std::max(spanEnd, nextEnd);
        }
        const auto span = file.read(spanStart, static_cast<std::size_t>(spanEnd - spanStart));
        for (std::size_t i = first; i < last; ++i) {
            check_local_header(&span[byOffset[i]->localHeaderOffset - spanStart], directoryOffset,
                               *byOffset[i]);
        }
        first = last;
    }
}

// Whether an entry's stored bytes end by `limit`. An entry whose local
// header was not read (dataOffset 0) takes at least its fixed header, its
// name and its stored bytes.
bool ends_by(const PhysicalEntry& entry, std::uint64_t limit) {
    const std::uint64_t start =
        entry.dataOffset != 0 ? entry.dataOffset
                              : entry.localHeaderOffset + kLocalHeaderBytes + entry.name.size();
    return start <= limit && limit - start >= entry.compressedSize;
}

void refuse_overlaps(const std::vector<PhysicalEntry*>& byOffset, std::uint64_t directoryOffset) {
    for (std::size_t i = 0; i < byOffset.size(); ++i) {
        const PhysicalEntry& entry = *byOffset[i];
        const bool last = i + 1 == byOffset.size();
        if (ends_by(entry, last ? directoryOffset : byOffset[i + 1]->localHeaderOffset)) continue;
        refuse(last ? "the data of " + quoted(entry.name) + " reaches into the central directory"
                    : "the entries " + quoted(entry.name) + " and " +
                          quoted(byOffset[i + 1]->name) + " overlap");
    }
}

std::vector<PhysicalEntry*> by_offset(std::vector<PhysicalEntry>& entries) {
    std::vector<PhysicalEntry*> sorted;
    sorted.reserve(entries.size());
    for (PhysicalEntry& entry : entries) sorted.push_back(&entry);
    std::sort(sorted.begin(), sorted.end(), [](const PhysicalEntry* a, const PhysicalEntry* b) {
        return a->localHeaderOffset < b->localHeaderOffset;
    });
    return sorted;
}

std::string trailing_bytes_warning(std::uint64_t count) {
    return std::to_string(count) + (count == 1 ? " byte follows" : " bytes follow") +
           " the end of the ZIP archive and " + (count == 1 ? "is" : "are") + " ignored";
}

ZipDirectory read_central_directory(const FileBytes& file, const ZipLimits& limits) {
    const EndRecord end = read_end(file, limits);
    const auto directory =
        file.read(end.directoryOffset, static_cast<std::size_t>(end.directorySize));
    std::vector<PhysicalEntry> entries;
    entries.reserve(static_cast<std::size_t>(end.entryCount));
    std::size_t pos = 0;
    for (std::uint64_t i = 0; i < end.entryCount; ++i) {
        entries.push_back(read_central_header(directory, pos, i, limits));
    }
    if (pos != directory.size())
        refuse("the central directory holds more than its entry count says");
    check_header_places(end, entries);
    ZipDirectory checked{std::move(entries), {}, end.directoryOffset, end.directorySize};
    if (end.trailing != 0) checked.warnings.push_back(trailing_bytes_warning(end.trailing));
    return checked;
}

}  // namespace

ZipDirectory readZipDirectory(int fd, std::uint64_t fileSize, const ZipLimits& limits,
                              const std::set<std::string>& leftOut) {
    const ByteSource source = [fd](std::uint64_t offset, unsigned char* into, std::size_t count) {
        const ssize_t n = opc::detail::read_at(fd, into, count, offset);
        if (n < 0)
            throw opc::Exception(opc::Reason::CannotRead,
                                 std::string("cannot read the file: ") + std::strerror(errno));
        if (static_cast<std::size_t>(n) < count) refuse("the file ended while it was being read");
    };
    const FileBytes file(source, fileSize);
    ZipDirectory checked = read_central_directory(file, limits);
    const std::vector<PhysicalEntry*> byOffset = by_offset(checked.entries);
    std::vector<PhysicalEntry*> held;
    held.reserve(byOffset.size());
    for (PhysicalEntry* entry : byOffset)
        if (leftOut.count(entry->name) == 0) held.push_back(entry);
    read_local_headers(file, checked.directoryOffset, held);
    refuse_overlaps(byOffset, checked.directoryOffset);
    return checked;
}

ZipDirectory readCentralDirectory(const ByteSource& source, std::uint64_t fileSize,
                                  const ZipLimits& limits) {
    ZipDirectory checked = read_central_directory(FileBytes(source, fileSize), limits);
    // Without the local headers, entries whose least extents overlap
    // cannot all be what the directory says.
    refuse_overlaps(by_offset(checked.entries), checked.directoryOffset);
    return checked;
}
}  // namespace opc::zippackage
