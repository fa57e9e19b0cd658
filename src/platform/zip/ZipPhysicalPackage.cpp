#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <utility>

#include "platform/base/UniqueFd.hpp"
#include "platform/zip/RawEntryStream.hpp"
#include "platform/zip/ZipDirectory.hpp"
#include "platform/zip/ZipEntryStream.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::interfaces {
IPhysicalPackage::~IPhysicalPackage() = default;
}  // namespace opc::interfaces

namespace opc::zippackage {
namespace {

using opc::interfaces::PhysicalEntry;

using opc::detail::UniqueFd;

// A deflate encoder that cannot shrink the data stores it in blocks of
// 64 KiB with a few bytes of header each; fixed Huffman codes spend at most
// 9 bits a byte. What a deflated entry of `size` bytes may take, generously.
std::uint64_t storedCeiling(std::uint64_t size) {
    constexpr std::uint64_t kMost = UINT64_MAX / 2;
    return size > kMost ? UINT64_MAX : size + size / 8 + 1024;
}

// An entry whose local header was not read is left out of the file.
const PhysicalEntry& held(const PhysicalEntry& entry) {
    if (entry.dataOffset == 0)
        throw opc::Exception(opc::Reason::CannotRead,
                             "the item \"" + entry.name + "\" is left out of this file");
    return entry;
}

std::vector<unsigned char> readStored(int fd, const PhysicalEntry& entry) {
    std::vector<unsigned char> stored(static_cast<std::size_t>(entry.compressedSize));
    RawEntryStream raw(fd, entry);
    for (std::size_t done = 0; done < stored.size();)
        done += raw.read(stored.data() + done, stored.size() - done);
    return stored;
}

}  // namespace

// The descriptor the directory was checked on; every read uses it, so all
// of them see that file even if the path is replaced meanwhile. Pinned
// entries' stored bytes, by index, are not read from it again.
struct ZipPhysicalPackage::Archive {
    UniqueFd checkedFd;
    std::map<std::uint64_t, std::vector<unsigned char>> pinned;

    std::unique_ptr<InputStream> stored(const PhysicalEntry& entry) const {
        const auto found = pinned.find(entry.index);
        if (found != pinned.end()) return std::make_unique<PinnedEntryStream>(found->second);
        return std::make_unique<RawEntryStream>(checkedFd.get(), held(entry));
    }
};

ZipPhysicalPackage::ZipPhysicalPackage(const std::u16string& path, bool readOnly)
    : ZipPhysicalPackage(readOnly
                             ? std::filesystem::path(fl::i18n::to_string(path))
                             : throw opc::Exception("ZIP packages are only opened for reading")) {}

ZipPhysicalPackage::ZipPhysicalPackage(const std::filesystem::path& path)
    : ZipPhysicalPackage(path, {}) {}

ZipPhysicalPackage::ZipPhysicalPackage(const std::filesystem::path& path,
                                       const std::set<std::string>& leftOut) {
    const std::string& file = path.native();
    // Without O_NONBLOCK a FIFO would block the open until a writer came;
    // only a regular file is read at all.
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st {};
    const bool opened = fd.get() >= 0 && ::fstat(fd.get(), &st) == 0;
    if (!opened && errno != ENXIO)  // a socket cannot be opened at all
        throw opc::Exception(opc::Reason::CannotRead, "cannot open \"" + fl::i18n::shown(file) +
                                                          "\": " + std::strerror(errno));
    if (!opened || !S_ISREG(st.st_mode)) throw opc::Exception("not a regular file");
    ZipDirectory directory =
        readZipDirectory(fd.get(), static_cast<std::uint64_t>(st.st_size),
                         {kMaxEntries, kMaxCentralDirectoryBytes, kMaxDeflateRatio}, leftOut);
    entries_ = std::move(directory.entries);
    warnings_ = std::move(directory.warnings);

    archive_ = std::make_unique<Archive>(Archive{std::move(fd), {}});
}

ZipPhysicalPackage::~ZipPhysicalPackage() = default;

bool ZipPhysicalPackage::reads(int fd) const {
    struct stat mine {
    }, theirs{};
    return archive_ && ::fstat(archive_->checkedFd.get(), &mine) == 0 &&
           ::fstat(fd, &theirs) == 0 && mine.st_dev == theirs.st_dev &&
           mine.st_ino == theirs.st_ino;
}

const std::vector<PhysicalEntry>& ZipPhysicalPackage::getEntries() const {
    return entries_;
}

const PhysicalEntry& ZipPhysicalPackage::entryAt(std::uint64_t index) const {
    if (!archive_) throw opc::Exception("the ZIP package is closed");
    if (index >= entries_.size()) throw opc::Exception("no ZIP entry " + std::to_string(index));
    return entries_[static_cast<std::size_t>(index)];
}

std::unique_ptr<InputStream> ZipPhysicalPackage::openEntry(std::uint64_t index,
                                                           std::vector<unsigned char>* lent) {
    const PhysicalEntry& entry = entryAt(index);
    return std::make_unique<ZipEntryStream>(entry, archive_->stored(entry), lent);
}

std::unique_ptr<InputStream> ZipPhysicalPackage::openRawEntry(std::uint64_t index) {
    return archive_->stored(entryAt(index));
}

void ZipPhysicalPackage::pinEntry(std::uint64_t index, std::uint64_t maxSize) {
    const PhysicalEntry& entry = entryAt(index);
    if (archive_->pinned.count(index) != 0) return;
    if (entry.size > maxSize || entry.compressedSize > storedCeiling(maxSize))
        throw opc::Exception(opc::Reason::NotPackage,
                             "the item \"" + entry.name + "\" is too large to be held in memory (" +
                                 std::to_string(entry.size) + " bytes, " +
                                 std::to_string(entry.compressedSize) + " stored; at most " +
                                 std::to_string(maxSize) + ")");
    archive_->pinned.emplace(index, readStored(archive_->checkedFd.get(), held(entry)));
}

void ZipPhysicalPackage::close() {
    archive_.reset();
}

}  // namespace opc::zippackage
