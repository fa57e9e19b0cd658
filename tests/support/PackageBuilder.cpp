#include "support/PackageBuilder.hpp"

#include <zip.h>
#include <zlib.h>

#include <memory>
#include <stdexcept>

namespace tsapp::test {
namespace {

struct ZipDiscarder {
    void operator()(zip_t* archive) const { zip_discard(archive); }
};

std::uint32_t crc_of(const std::string& data) {
    return static_cast<std::uint32_t>(
        crc32(0L, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

}  // namespace

std::string le(std::uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
    return out;
}

std::string zip_item(const std::string& path, const std::string& name) {
    int error = 0;
    std::unique_ptr<zip_t, ZipDiscarder> archive(zip_open(path.c_str(), ZIP_RDONLY, &error));
    zip_stat_t st;
    if (!archive || zip_stat(archive.get(), name.c_str(), 0, &st) != 0) return "(missing)";
    std::string bytes(st.size, '\0');
    zip_file_t* file = zip_fopen(archive.get(), name.c_str(), 0);
    const zip_int64_t n = zip_fread(file, bytes.data(), bytes.size());
    zip_fclose(file);
    return n == static_cast<zip_int64_t>(st.size) ? bytes : "(short)";
}

std::string raw_deflate(const std::string& bytes, int level) {
    z_stream z{};
    if (deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("deflateInit2 failed");
    std::string out(deflateBound(&z, bytes.size()), '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    z.avail_in = static_cast<uInt>(bytes.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    const int status = deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    if (status != Z_STREAM_END) throw std::runtime_error("deflate failed");
    return out;
}

void write_zip(const std::string& path, const std::vector<ZipItem>& items) {
    int error = 0;
    std::unique_ptr<zip_t, ZipDiscarder> archive(
        zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error));
    if (!archive) throw std::runtime_error("zip_open failed for " + path);
    for (const ZipItem& item : items) {
        zip_source_t* source =
            zip_source_buffer(archive.get(), item.data.data(), item.data.size(), 0);
        const zip_int64_t index =
            zip_file_add(archive.get(), item.name.c_str(), source, ZIP_FL_ENC_RAW);
        if (index < 0) {
            zip_source_free(source);
            throw std::runtime_error("zip_file_add failed for " + item.name);
        }
        zip_set_file_compression(archive.get(), static_cast<zip_uint64_t>(index),
                                 item.deflate ? ZIP_CM_DEFLATE : ZIP_CM_STORE, 0);
        zip_file_set_mtime(archive.get(), static_cast<zip_uint64_t>(index), 1600000000, 0);
    }
    if (zip_close(archive.get()) != 0) throw std::runtime_error("zip_close failed for " + path);
    archive.release();
}

void write_zip64(const std::string& path, const std::vector<ZipItem>& items) {
    const std::string max32 = le(0xFFFFFFFFu, 4);
    std::string file;
    std::string directory;
    for (const ZipItem& item : items) {
        const std::uint64_t offset = file.size();
        const std::string crc = le(crc_of(item.data), 4);
        const std::string localExtra =
            le(1, 2) + le(16, 2) + le(item.data.size(), 8) + le(item.data.size(), 8);
        file += le(0x04034b50, 4) + le(45, 2) + le(0, 2) + le(0, 2) + le(0, 4) + crc + max32 +
                max32 + le(item.name.size(), 2) + le(localExtra.size(), 2) + item.name +
                localExtra + item.data;
        const std::string extra = le(1, 2) + le(24, 2) + le(item.data.size(), 8) +
                                  le(item.data.size(), 8) + le(offset, 8);
        directory += le(0x02014b50, 4) + le(45, 2) + le(45, 2) + le(0, 2) + le(0, 2) + le(0, 4) +
                     crc + max32 + max32 + le(item.name.size(), 2) + le(extra.size(), 2) +
                     le(0, 2) + le(0, 2) + le(0, 2) + le(0, 4) + max32 + item.name + extra;
    }
    const std::uint64_t directoryOffset = file.size();
    file += directory;
    const std::uint64_t zip64End = file.size();
    file += le(0x06064b50, 4) + le(44, 8) + le(45, 2) + le(45, 2) + le(0, 4) + le(0, 4) +
            le(items.size(), 8) + le(items.size(), 8) + le(directory.size(), 8) +
            le(directoryOffset, 8);
    file += le(0x07064b50, 4) + le(0, 4) + le(zip64End, 8) + le(1, 4);
    file += le(0x06054b50, 4) + le(0, 2) + le(0, 2) + le(0xFFFF, 2) + le(0xFFFF, 2) + max32 +
            max32 + le(0, 2);
    write_file(path, file);
}

PackageBuilder& PackageBuilder::relationship(const std::string& id, const std::string& type,
                                             const std::string& target,
                                             const std::string& targetMode) {
    relationships_ +=
        "<Relationship Id=\"" + id + "\" Type=\"" + type + "\" Target=\"" + target + "\"";
    if (!targetMode.empty()) relationships_ += " TargetMode=\"" + targetMode + "\"";
    relationships_ += "/>";
    return *this;
}

std::string PackageBuilder::contentTypesText() const {
    if (!typesXml_.empty()) return typesXml_;
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
           "<Default Extension=\"rels\" ContentType=\"" +
           std::string(kRelationshipsContentType) +
           "\"/><Default Extension=\"xml\" ContentType=\"application/xml\"/>"
           "<Default Extension=\"png\" ContentType=\"image/png\"/>" +
           types_ + "</Types>";
}

std::string PackageBuilder::relationshipsText() const {
    if (!relsXml_.empty()) return relsXml_;
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<Relationships "
           "xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">" +
           relationships_ + "</Relationships>";
}

std::vector<ZipItem> PackageBuilder::items() const {
    std::vector<ZipItem> items;
    if (typesXml_ != "(none)") items.push_back({"[Content_Types].xml", contentTypesText(), true});
    if (relsXml_ != "(none)") items.push_back({"_rels/.rels", relationshipsText(), true});
    items.insert(items.end(), parts_.begin(), parts_.end());
    return items;
}

ZipPatcher::ZipPatcher(std::string path) : path_(std::move(path)), bytes_(read_file(path_)) {}

std::size_t ZipPatcher::find(std::uint32_t signature, std::size_t nameLengthAt, std::size_t nameAt,
                             const std::string& itemName) const {
    const std::string sig = le(signature, 4);
    for (std::size_t at = bytes_.find(sig); at != std::string::npos;
         at = bytes_.find(sig, at + 1)) {
        if (bytes_.compare(at + nameAt, itemName.size(), itemName) == 0 &&
            get16(at + nameLengthAt) == itemName.size()) {
            return at;
        }
    }
    throw std::runtime_error("no header for " + itemName);
}

std::size_t ZipPatcher::localHeader(const std::string& itemName) const {
    return find(0x04034b50, 26, 30, itemName);
}

std::size_t ZipPatcher::centralHeader(const std::string& itemName) const {
    return find(0x02014b50, 28, 46, itemName);
}

std::size_t ZipPatcher::endRecord() const {
    return bytes_.rfind(le(0x06054b50, 4));
}

void ZipPatcher::put16Both(const std::string& itemName, std::size_t centralAt, std::size_t localAt,
                           std::uint16_t value) {
    const std::size_t central = centralHeader(itemName);
    const std::size_t local = localHeader(itemName);
    put16(central + centralAt, value);
    put16(local + localAt, value);
}

}  // namespace tsapp::test
