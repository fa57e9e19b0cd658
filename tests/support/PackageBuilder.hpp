#pragma once

// Packages and ZIP files built in code for the tests, including ones no
// conforming producer would write.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"

namespace tsapp::test {

struct ZipItem {
    std::string name;
    std::string data;
    bool deflate = true;
};

// Writes the items in order, by hand (a deflated item that would not shrink
// is still deflated). With `zip64`, every size and offset in the headers is
// all ones with the real value in the ZIP64 extra field, and the end records
// include the ZIP64 pair.
void write_zip(const std::string& path, const std::vector<ZipItem>& items, bool zip64 = false);

// The bytes of the item `name` of the ZIP file at `path`, read through libzip.
std::string zip_item(const std::string& path, const std::string& name);

// Raw DEFLATE (no zlib header), as a ZIP entry stores it.
std::string raw_deflate(const std::string& bytes, int level = 6);

// The little-endian form of `value` in `bytes` bytes.
std::string le(std::uint64_t value, int bytes);

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
                                 const std::string& target, const std::string& targetMode = "");
    // Raw texts for the two XML parts, or "(none)" to leave one out.
    PackageBuilder& contentTypesXml(std::string xml) { return typesXml_ = std::move(xml), *this; }
    PackageBuilder& relationshipsXml(std::string xml) { return relsXml_ = std::move(xml), *this; }
    PackageBuilder& withoutContentTypes() { return contentTypesXml("(none)"); }
    PackageBuilder& withoutRelationships() { return relationshipsXml("(none)"); }

    std::string contentTypesText() const;
    std::string relationshipsText() const;
    std::vector<ZipItem> items() const;
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
    explicit ZipPatcher(std::string path);

    std::size_t localHeader(const std::string& itemName) const;
    std::size_t centralHeader(const std::string& itemName) const;
    std::size_t endRecord() const;

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
                     const std::string& itemName) const;

    std::string path_;
    std::string bytes_;
};

}  // namespace tsapp::test
