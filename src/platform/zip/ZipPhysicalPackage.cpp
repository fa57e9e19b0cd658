#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
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

}  // namespace

// The descriptor the directory was checked on; every read uses it, so all
// of them see that file even if the path is replaced meanwhile.
struct ZipPhysicalPackage::Archive {
    UniqueFd checkedFd;
};

ZipPhysicalPackage::ZipPhysicalPackage(const std::u16string& path, bool readOnly) {
    if (!readOnly) throw opc::Exception("ZIP packages are only opened for reading");
    const std::string file = fl::i18n::to_string(path);
    // Without O_NONBLOCK a FIFO would block the open until a writer came;
    // only a regular file is read at all.
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st {};
    const bool opened = fd.get() >= 0 && ::fstat(fd.get(), &st) == 0;
    if (!opened && errno != ENXIO)  // a socket cannot be opened at all
        throw opc::Exception(opc::Reason::CannotRead,
                             "cannot open \"" + file + "\": " + std::strerror(errno));
    if (!opened || !S_ISREG(st.st_mode)) throw opc::Exception("not a regular file");
    entries_ = readZipDirectory(fd.get(), static_cast<std::uint64_t>(st.st_size),
                                {kMaxEntries, kMaxCentralDirectoryBytes, kMaxDeflateRatio});

    archive_ = std::make_unique<Archive>(Archive{std::move(fd)});
}

ZipPhysicalPackage::~ZipPhysicalPackage() = default;

const std::vector<PhysicalEntry>& ZipPhysicalPackage::getEntries() const {
    return entries_;
}

const PhysicalEntry& ZipPhysicalPackage::entryAt(std::uint64_t index) const {
    if (!archive_) throw opc::Exception("the ZIP package is closed");
    if (index >= entries_.size()) throw opc::Exception("no ZIP entry " + std::to_string(index));
    return entries_[static_cast<std::size_t>(index)];
}

std::unique_ptr<InputStream> ZipPhysicalPackage::openEntry(std::uint64_t index) {
    const PhysicalEntry& entry = entryAt(index);
    return std::make_unique<ZipEntryStream>(archive_->checkedFd.get(), entry);
}

std::unique_ptr<InputStream> ZipPhysicalPackage::openRawEntry(std::uint64_t index) {
    const PhysicalEntry& entry = entryAt(index);
    return std::make_unique<RawEntryStream>(archive_->checkedFd.get(), entry);
}

void ZipPhysicalPackage::close() {
    archive_.reset();
}

}  // namespace opc::zippackage
