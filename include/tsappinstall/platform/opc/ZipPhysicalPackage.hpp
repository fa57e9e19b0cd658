#pragma once

// A ZIP file as the container of a package, read with positioned reads on
// the descriptor its directory was checked on.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/platform/opc/IPhysicalPackage.hpp"

namespace opc::zippackage {

// Opens and checks the ZIP file in the constructor; throws opc::Exception
// when it is missing, unreadable, not a regular file (a FIFO, socket, device
// or folder is refused at once, never waited on), not a ZIP file, or built
// in a way only an attack needs. Opening reads the end records, the central directory and
// each entry's local header, never the entries' data, so its cost follows
// the entry count, not the file size.
//
// Refused, each with its own text:
//  - split archives, a central directory that does not end where the end
//    records begin (bytes put in front of the archive, such as a
//    self-extracting stub, are refused, not skipped);
//  - more than kMaxEntries entries, a central directory above
//    kMaxCentralDirectoryBytes, an entry count that does not match the
//    records present;
//  - item names holding a NUL; a local header whose name differs from the
//    central one, or that is missing;
//  - entries whose header and data overlap another entry's, or reach into
//    the central directory (the overlapping-entry "zip bomb");
//  - encrypted entries, and methods other than stored (0) and deflate (8);
//  - a stored entry whose two sizes differ, a deflated entry that claims to
//    expand more than deflate can (kMaxDeflateRatio).
// Tolerated with a warning (warnings()): bytes after the end record and its
// comment (padding, a signature block), when the record lies within the
// last 64 KiB + 22 bytes and the directory it describes passes every check
// above.
// ZIP64 sizes, offsets and counts are read where the 32-bit fields say so.
// Pinned entries (pinEntry) live in memory until close().
class TSAPP_API ZipPhysicalPackage : public opc::interfaces::IPhysicalPackage {
  public:
    static constexpr std::uint64_t kMaxEntries = 100000;
    static constexpr std::uint64_t kMaxCentralDirectoryBytes = 64u * 1024u * 1024u;
    static constexpr std::uint64_t kMaxDeflateRatio = 1032;  // deflate's own ceiling

    // `path` is a file path (converted to UTF-8 for the system). `readOnly`
    // must be true: packages are only read here (the writing side is
    // PackageWriter); false throws opc::Exception.
    ZipPhysicalPackage(const std::u16string& path, bool readOnly);
    // The same for a path as the system takes it.
    explicit ZipPhysicalPackage(const std::filesystem::path& path);
    // A package file that leaves out the items named in `leftOut` (ZIP
    // entry names): their local headers and bytes are not in it, nor read.
    // They are listed and take at least their name and stored size where
    // the directory places them; opening or pinning one throws.
    ZipPhysicalPackage(const std::filesystem::path& path, const std::set<std::string>& leftOut);
    ~ZipPhysicalPackage() override;
    ZipPhysicalPackage(const ZipPhysicalPackage&) = delete;
    ZipPhysicalPackage& operator=(const ZipPhysicalPackage&) = delete;

    const std::vector<opc::interfaces::PhysicalEntry>& getEntries() const override;
    std::unique_ptr<InputStream> openEntry(std::uint64_t index,
                                           std::vector<unsigned char>* lent = nullptr) override;
    std::unique_ptr<InputStream> openRawEntry(std::uint64_t index) override;
    void pinEntry(std::uint64_t index, std::uint64_t maxSize) override;
    void close() override;

    // What the file holds that was tolerated rather than refused, one line
    // each for people ("12 bytes follow the end of the ZIP archive and are
    // ignored"); empty for a file as a ZIP writer leaves it.
    const std::vector<std::string>& warnings() const { return warnings_; }
    // Whether `fd` is open on the very file this package reads (the same
    // device and inode): a reader that opened the path a second time can
    // tell that it was not replaced in between. False once closed.
    bool reads(int fd) const;

  private:
    struct Archive;
    const opc::interfaces::PhysicalEntry& entryAt(std::uint64_t index) const;

    std::vector<opc::interfaces::PhysicalEntry> entries_;
    std::vector<std::string> warnings_;
    std::unique_ptr<Archive> archive_;
};

}  // namespace opc::zippackage
