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

void write_zip(const std::string& path, const std::vector<ZipItem>& items, bool zip64) {
    const auto sizes = [&](std::uint64_t packed, std::uint64_t size) {
        return zip64 ? le(0xFFFFFFFFFFFFFFFFull, 8) : le(packed, 4) + le(size, 4);
    };
    std::string file, directory;
    for (const ZipItem& item : items) {
        const std::uint64_t offset = file.size();
        const std::string data = item.deflate ? raw_deflate(item.data) : item.data;
        const std::string head = le(zip64 ? 45 : 20, 2) + le(0, 2) + le(item.deflate ? 8 : 0, 2) +
                                 le(0, 4) + le(crc_of(item.data), 4) +
                                 sizes(data.size(), item.data.size()) + le(item.name.size(), 2);
        const std::string extra =
            le(1, 2) + le(16, 2) + le(item.data.size(), 8) + le(data.size(), 8);
        file += le(0x04034b50, 4) + head + le(zip64 ? extra.size() : 0, 2) + item.name +
                (zip64 ? extra : "") + data;
        const std::string central =
            zip64 ? le(1, 2) + le(24, 2) + extra.substr(4) + le(offset, 8) : "";
        directory += le(0x02014b50, 4) + le(45, 2) + head + le(central.size(), 2) + le(0, 6) +
                     le(0, 4) + (zip64 ? le(0xFFFFFFFF, 4) : le(offset, 4)) + item.name + central;
    }
    const std::uint64_t directoryOffset = file.size();
    file += directory;
    const std::uint64_t zip64End = file.size();
    if (zip64) {
        file += le(0x06064b50, 4) + le(44, 8) + le(45, 2) + le(45, 2) + le(0, 8) +
                le(items.size(), 8) + le(items.size(), 8) + le(directory.size(), 8) +
                le(directoryOffset, 8);
        file += le(0x07064b50, 4) + le(0, 4) + le(zip64End, 8) + le(1, 4);
    }
    const std::uint64_t count = zip64 ? 0xFFFF : items.size();
    file +=
        le(0x06054b50, 4) + le(0, 4) + le(count, 2) + le(count, 2) +
        (zip64 ? le(0xFFFFFFFFFFFFFFFFull, 8) : le(directory.size(), 4) + le(directoryOffset, 4)) +
        le(0, 2);
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

}  // namespace tsapp::test
