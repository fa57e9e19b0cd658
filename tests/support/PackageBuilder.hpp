#pragma once

// Packages and ZIP files built in code for the tests, including ones no
// conforming producer would write.

#include <zip.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"

namespace tsapp::test {

// The little-endian form of `value` in `bytes` bytes.
inline std::string le(std::uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
    return out;
}

// The bytes of the item `name` of the ZIP file at `path`, read through libzip.
inline std::string zip_item(const std::string& path, const std::string& name) {
    int error = 0;
    const std::unique_ptr<zip_t, decltype(&zip_discard)> archive(
        zip_open(path.c_str(), ZIP_RDONLY, &error), &zip_discard);
    zip_stat_t st;
    if (!archive || zip_stat(archive.get(), name.c_str(), 0, &st) != 0) return "(missing)";
    std::string bytes(st.size, '\0');
    zip_file_t* file = zip_fopen(archive.get(), name.c_str(), 0);
    const zip_int64_t n = zip_fread(file, bytes.data(), bytes.size());
    zip_fclose(file);
    return n == static_cast<zip_int64_t>(st.size) ? bytes : "(short)";
}

// Raw DEFLATE (no zlib header), as a ZIP entry stores it.
inline std::string raw_deflate(const std::string& bytes, int level = 6) {
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

struct ZipItem {
    std::string name;
    std::string data;
    bool deflate = true;
    // When set, `data` is deflated already and decodes to this many bytes
    // with this CRC-32: an item too large to hold decoded.
    struct Decoded {
        std::uint64_t size;
        std::uint32_t crc32;
    };
    std::optional<Decoded> decoded = std::nullopt;
};

// Writes the items in order, by hand (a deflated item that would not shrink
// is still deflated). With `zip64`, every size and offset in the headers is
// all ones with the real value in the ZIP64 extra field, and the end records
// include the ZIP64 pair.
inline void write_zip(const std::string& path, const std::vector<ZipItem>& items,
                      bool zip64 = false) {
    const auto sizes = [&](std::uint64_t packed, std::uint64_t size) {
        return zip64 ? le(0xFFFFFFFFFFFFFFFFull, 8) : le(packed, 4) + le(size, 4);
    };
    std::string file, directory;
    for (const ZipItem& item : items) {
        const std::uint64_t offset = file.size();
        const bool deflate = item.deflate || item.decoded;
        const std::string data = item.decoded || !deflate ? item.data : raw_deflate(item.data);
        const std::uint64_t size = item.decoded ? item.decoded->size : item.data.size();
        const auto crc = item.decoded ? item.decoded->crc32
                                      : crc32(0L, reinterpret_cast<const Bytef*>(item.data.data()),
                                              static_cast<uInt>(item.data.size()));
        const std::string head = le(zip64 ? 45 : 20, 2) + le(0, 2) + le(deflate ? 8 : 0, 2) +
                                 le(0, 4) + le(crc, 4) + sizes(data.size(), size) +
                                 le(item.name.size(), 2);
        const std::string extra = le(1, 2) + le(16, 2) + le(size, 8) + le(data.size(), 8);
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

// Raw deflate data for `chunks` MiB of zeros, made from two compressed
// chunks: after a full flush the encoder's output for the next MiB of zeros
// no longer depends on what came before, so that chunk repeats.
inline std::string zeros_bomb(int chunks) {
    z_stream stream{};
    deflateInit2(&stream, 9, Z_DEFLATED, -MAX_WBITS, 9, Z_RLE);
    std::vector<unsigned char> zeros(1 << 20, 0), out(1 << 16);
    const auto compressChunk = [&] {
        std::string bytes;
        stream.next_in = zeros.data();
        stream.avail_in = static_cast<uInt>(zeros.size());
        do {
            stream.next_out = out.data();
            stream.avail_out = static_cast<uInt>(out.size());
            deflate(&stream, Z_FULL_FLUSH);
            bytes.append(reinterpret_cast<char*>(out.data()), out.size() - stream.avail_out);
        } while (stream.avail_out == 0);
        return bytes;
    };
    std::string compressed = compressChunk();
    const std::string repeated = compressChunk();
    deflateEnd(&stream);
    for (int i = 1; i < chunks; ++i) compressed += repeated;
    return compressed + std::string("\x03\x00", 2);  // an empty final block
}

// The CRC-32 of `chunks` MiB of zeros.
inline std::uint32_t zeros_crc(int chunks) {
    const std::string mebibyte(1 << 20, '\0');
    const uLong one = crc32(0L, reinterpret_cast<const Bytef*>(mebibyte.data()), 1u << 20);
    uLong crc = 0;
    for (int i = 0; i < chunks; ++i) crc = crc32_combine(crc, one, 1 << 20);
    return static_cast<std::uint32_t>(crc);
}

inline constexpr const char* kRelationshipsContentType =
    "application/vnd.openxmlformats-package.relationships+xml";

// An OPC package: "[Content_Types].xml" with Default entries for rels, xml
// and png plus what is added, "_rels/.rels" from the relationships added,
// then the parts in the order added. Either XML part can be replaced by
// raw text or left out.
class PackageBuilder {
  public:
    PackageBuilder& part(const std::string& itemName, std::string data, bool deflate = true) {
        return parts_.push_back({itemName, std::move(data), deflate}), *this;
    }
    PackageBuilder& defaultType(const std::string& extension, const std::string& contentType) {
        return typeEntry("Default Extension", extension, contentType);
    }
    PackageBuilder& overrideType(const std::string& partName, const std::string& contentType) {
        return typeEntry("Override PartName", partName, contentType);
    }
    PackageBuilder& relationship(const std::string& id, const std::string& type,
                                 const std::string& target, const std::string& targetMode = "") {
        relationships_ +=
            "<Relationship Id=\"" + id + "\" Type=\"" + type + "\" Target=\"" + target + "\"";
        if (!targetMode.empty()) relationships_ += " TargetMode=\"" + targetMode + "\"";
        return relationships_ += "/>", *this;
    }
    // Raw texts for the two XML parts, or "(none)" to leave one out.
    PackageBuilder& contentTypesXml(std::string xml) { return typesXml_ = std::move(xml), *this; }
    PackageBuilder& relationshipsXml(std::string xml) { return relsXml_ = std::move(xml), *this; }
    PackageBuilder& withoutContentTypes() { return contentTypesXml("(none)"); }
    PackageBuilder& withoutRelationships() { return relationshipsXml("(none)"); }

    std::string contentTypesText() const {
        if (!typesXml_.empty()) return typesXml_;
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
               "<Default Extension=\"rels\" ContentType=\"" +
               std::string(kRelationshipsContentType) +
               "\"/><Default Extension=\"xml\" ContentType=\"application/xml\"/>"
               "<Default Extension=\"png\" ContentType=\"image/png\"/>" +
               types_ + "</Types>";
    }
    std::string relationshipsText() const {
        if (!relsXml_.empty()) return relsXml_;
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<Relationships "
               "xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">" +
               relationships_ + "</Relationships>";
    }
    std::vector<ZipItem> items() const {
        std::vector<ZipItem> items;
        if (typesXml_ != "(none)") items.push_back({"[Content_Types].xml", contentTypesText()});
        if (relsXml_ != "(none)") items.push_back({"_rels/.rels", relationshipsText()});
        items.insert(items.end(), parts_.begin(), parts_.end());
        return items;
    }
    void write(const std::string& path) const { write_zip(path, items()); }

  private:
    PackageBuilder& typeEntry(const std::string& key, const std::string& value,
                              const std::string& contentType) {
        return types_ += "<" + key + "=\"" + value + "\" ContentType=\"" + contentType + "\"/>",
               *this;
    }

    std::vector<ZipItem> parts_;
    std::string types_;
    std::string relationships_;
    std::string typesXml_;
    std::string relsXml_;
};

// Edits a written ZIP file in place: finds headers by item name and
// overwrites little-endian fields.
class ZipPatcher {
  public:
    explicit ZipPatcher(std::string path) : path_(std::move(path)), bytes_(read_file(path_)) {}

    std::size_t localHeader(const std::string& itemName) const {
        return find(0x04034b50, 26, 30, itemName);
    }
    std::size_t centralHeader(const std::string& itemName) const {
        return find(0x02014b50, 28, 46, itemName);
    }
    std::size_t endRecord() const { return bytes_.rfind(le(0x06054b50, 4)); }
    // Where the item's data begins, after its local header.
    std::size_t dataOffset(const std::string& itemName) const {
        const std::size_t local = localHeader(itemName);
        return local + 30 + get16(local + 26) + get16(local + 28);
    }

    std::uint16_t get16(std::size_t at) const {
        return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes_.at(at)) |
                                          (static_cast<unsigned char>(bytes_.at(at + 1)) << 8));
    }
    std::uint32_t get32(std::size_t at) const { return get16(at) | (get16(at + 2) * 0x10000u); }
    void put16(std::size_t at, std::uint16_t value) { bytes_.replace(at, 2, le(value, 2)); }
    void put32(std::size_t at, std::uint32_t value) { bytes_.replace(at, 4, le(value, 4)); }
    std::string& bytes() { return bytes_; }
    void save() const { write_file(path_, bytes_); }

  private:
    std::size_t find(std::uint32_t signature, std::size_t nameLengthAt, std::size_t nameAt,
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

    std::string path_;
    std::string bytes_;
};

}  // namespace tsapp::test
