#pragma once

// Packages and ZIP files built in code for the tests, including ones no
// conforming producer would write.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tsapp::test {

struct ZipItem {
    std::string name;
    std::string data;
    bool deflate = true;
};

// Writes the items through libzip, in order (a deflated item that would
// not shrink is still deflated).
void write_zip(const std::string& path, const std::vector<ZipItem>& items);

// Writes the items stored, by hand, as a ZIP64 file: every size and offset
// in the headers is 0xFFFFFFFF with the real value in the ZIP64 extra
// field, and the end records include the ZIP64 pair.
void write_zip64(const std::string& path, const std::vector<ZipItem>& items);

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
    PackageBuilder& part(const std::string& itemName, std::string data, bool deflate = true);
    PackageBuilder& defaultType(const std::string& extension, const std::string& contentType);
    PackageBuilder& overrideType(const std::string& partName, const std::string& contentType);
    PackageBuilder& relationship(const std::string& id, const std::string& type,
                                 const std::string& target, const std::string& targetMode = "");
    PackageBuilder& contentTypesXml(std::string xml);
    PackageBuilder& relationshipsXml(std::string xml);
    PackageBuilder& withoutContentTypes();
    PackageBuilder& withoutRelationships();

    std::string contentTypesText() const;
    std::string relationshipsText() const;
    std::vector<ZipItem> items() const;
    void write(const std::string& path) const { write_zip(path, items()); }

  private:
    std::vector<ZipItem> parts_;
    std::vector<std::pair<std::string, std::string>> defaults_;
    std::vector<std::pair<std::string, std::string>> overrides_;
    std::string relationshipElements_;
    std::string contentTypesXml_;
    std::string relationshipsXml_;
    bool withContentTypes_ = true;
    bool withRelationships_ = true;
};

// Edits a written ZIP file in place: finds headers by item name and
// overwrites little-endian fields.
class ZipPatcher {
  public:
    explicit ZipPatcher(std::string path);

    std::size_t localHeader(const std::string& itemName) const;
    std::size_t centralHeader(const std::string& itemName) const;
    std::size_t endRecord() const;

    std::uint16_t get16(std::size_t at) const;
    std::uint32_t get32(std::size_t at) const;
    void put16(std::size_t at, std::uint16_t value);
    void put32(std::size_t at, std::uint32_t value);
    // Sets a field in the central header and, at `localAt`, in the local one.
    void put16Both(const std::string& itemName, std::size_t centralAt, std::size_t localAt,
                   std::uint16_t value);
    std::string& bytes() { return bytes_; }
    void save() const;

  private:
    std::size_t find(std::uint32_t signature, std::size_t nameLengthAt, std::size_t nameAt,
                     const std::string& itemName) const;

    std::string path_;
    std::string bytes_;
};

}  // namespace tsapp::test
