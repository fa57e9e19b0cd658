#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

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

std::string zip_error_text(int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    std::string text = zip_error_strerror(&error);
    zip_error_fini(&error);
    return text;
}

// libzip reads the same central directory again; its view must be ours.
void check_libzip_agrees(zip_t* archive, const std::vector<PhysicalEntry>& entries) {
    if (zip_get_num_entries(archive, 0) != static_cast<zip_int64_t>(entries.size())) {
        throw opc::Exception(opc::Reason::NotZip,
                             "not a usable ZIP file: libzip counts its entries differently");
    }
    for (const PhysicalEntry& entry : entries) {
        zip_stat_t st;
        if (zip_stat_index(archive, entry.index, ZIP_FL_ENC_RAW, &st) != 0 || st.name == nullptr ||
            entry.name != st.name || st.size != entry.size ||
            st.comp_size != entry.compressedSize || st.crc != entry.crc32 ||
            st.comp_method != entry.compressionMethod) {
            throw opc::Exception(
                opc::Reason::NotZip,
                "not a usable ZIP file: libzip reads the entry \"" + entry.name + "\" differently");
        }
    }
}

}  // namespace

struct ZipPhysicalPackage::Archive {
    Archive(zip_t* za, UniqueFd fd) : handle(za), checkedFd(std::move(fd)) {}
    ~Archive() { zip_discard(handle); }
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;
    zip_t* handle;
    UniqueFd checkedFd;  // the descriptor the directory was checked on; raw reads use it
};

ZipPhysicalPackage::ZipPhysicalPackage(const std::u16string& path, bool readOnly) {
    if (!readOnly) throw opc::Exception("ZIP packages are only opened for reading");
    const std::string file = fl::i18n::to_string(path);
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        throw opc::Exception(opc::Reason::CannotRead,
                             "cannot open \"" + file + "\": " + std::strerror(errno));
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        throw opc::Exception(opc::Reason::CannotRead, "\"" + file + "\" is not a regular file");
    }
    entries_ = readZipDirectory(fd.get(), static_cast<std::uint64_t>(st.st_size),
                                {kMaxEntries, kMaxCentralDirectoryBytes, kMaxDeflateRatio});

    // libzip gets a duplicate of the descriptor we checked, so both read the
    // same file even if the path is replaced meanwhile.
    UniqueFd forLibzip(::fcntl(fd.get(), F_DUPFD_CLOEXEC, 0));
    if (forLibzip.get() < 0)
        throw opc::Exception(opc::Reason::CannotRead,
                             "cannot open \"" + file + "\": " + std::strerror(errno));
    int error = 0;
    zip_t* za = zip_fdopen(forLibzip.get(), 0, &error);
    if (za == nullptr)
        throw opc::Exception(
            opc::Reason::CannotRead,
            "cannot open \"" + file + "\" as a ZIP file: " + zip_error_text(error));
    forLibzip.release();  // zip_fdopen closed it and holds its own
    archive_ = std::make_unique<Archive>(za, std::move(fd));
    check_libzip_agrees(za, entries_);
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
    return std::make_unique<ZipEntryStream>(archive_->handle, entry);
}

std::unique_ptr<InputStream> ZipPhysicalPackage::openRawEntry(std::uint64_t index) {
    const PhysicalEntry& entry = entryAt(index);
    return std::make_unique<RawEntryStream>(archive_->checkedFd.get(), entry);
}

void ZipPhysicalPackage::close() {
    archive_.reset();
}

}  // namespace opc::zippackage
