// Writes the seed corpora with the library's own writers: app packages from
// PackageWriter, manifests from AppManifestSerializer::save, part names and
// relationship targets as the UTF-16LE bytes fuzz_names reads.
//
//   make_seeds <corpus folder>   (fills <folder>/package, /manifest, /names)

#include <zip.h>
#include <zlib.h>
#include <boost/date_time/posix_time/posix_time.hpp>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace {

namespace fs = std::filesystem;
using opc::zippackage::PackageWriter;
using namespace Corvane::addons::apps;

constexpr std::time_t kFixedTime = 1700000000;  // identical seeds on every run

std::vector<unsigned char> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

AppManifest fullRecord() {
    AppManifest m;
    m.GUID = "{3F2504E0-4F89-11D3-9A0C-0305E82C3301}";
    m.entryPoint = u"main.js";
    m.name = u"Sample & <App>";
    m.version = u"1.2.3";
    m.createdByTESSALRelease = u"14.1";
    m.summary = u"Short";
    m.description = u"Long \"text\"\nwith line";
    m.minTESSALVer = u"13.0";
    m.maxTESSALVer = u"15.0";
    m.authorName = u"Jane Doe";
    m.authorContact = u"jane@example.com";
    m.authorOrganization = u"Ex\u00e4mple GmbH";
    m.numFiles = 2;
    m.supportedPlatforms = {u"win64", u"linux64"};
    m.requiredProducts = {{u"prod.a", u"Product A", u"1.0"}};
    m.pathEntries = {u"lib"};
    m.appEntries = {u"main.js", u"lib/util.js"};
    m.created = boost::posix_time::from_time_t(kFixedTime);
    return m;
}

AppManifest minimalRecord() {
    AppManifest m;
    m.GUID = "g";
    m.entryPoint = u"a";
    m.name = u"n";
    m.version = u"1";
    m.numFiles = 0;
    m.created = boost::posix_time::from_time_t(kFixedTime);
    return m;
}

std::string manifestText(const AppManifest& record) {
    AppManifestSerializer serializer;
    std::vector<unsigned char> out;
    opc::ByteArrayOutAdaptor adaptor(out);
    serializer.save(adaptor, record);
    return std::string(out.begin(), out.end());
}

void writeFile(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void writeAppPackage(const fs::path& path, const AppManifest& record,
                     PackageWriter::Compression compression, bool withImages) {
    PackageWriter writer(path.string());
    writer.setModificationTime(kFixedTime);
    writer.addPart("manifest.xml", "application/xml", bytes(manifestText(record)), compression);
    writer.addRelationship("rManifest", APP_PROPERTIES_RELATIONSHIP_TYPE, "/manifest.xml");
    if (withImages) {
        writer.addPart("images/icon.png", "image/png", bytes("\x89PNG\r\n\x1a\n icon"),
                       PackageWriter::Compression::Stored);
        writer.addPart("images/shot.png", "image/png", bytes("\x89PNG\r\n\x1a\n shot"));
        writer.addRelationship("rIcon", PRIMARY_ICON_RELATIONSHIP_TYPE, "/images/icon.png");
        writer.addRelationship("rShot", PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, "/images/shot.png");
    }
    writer.addPart("main.js", "application/javascript", bytes("run();\n"), compression);
    writer.addPart("lib/util.js", "application/javascript", bytes("function run() {}\n"),
                   compression);
    writer.commit();
}

// The writer deflates its two XML parts. The fuzzing harness rewrites the
// CRCs of stored entries only, so a copy of `from` with every entry stored
// lets mutations reach the content-types and relationships parsers.
void copyAllStored(const fs::path& from, const fs::path& to) {
    using Archive = std::unique_ptr<zip_t, decltype(&zip_discard)>;
    using Entry = std::unique_ptr<zip_file_t, decltype(&zip_fclose)>;
    int error = 0;
    const Archive in(zip_open(from.c_str(), ZIP_RDONLY, &error), &zip_discard);
    Archive out(zip_open(to.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error), &zip_discard);
    if (!in || !out) throw std::runtime_error("cannot copy " + from.string());
    // libzip reads the buffers when the archive is closed.
    std::vector<std::string> contents(static_cast<std::size_t>(zip_get_num_entries(in.get(), 0)));
    for (zip_uint64_t i = 0; i < contents.size(); ++i) {
        zip_stat_t stat;
        zip_stat_index(in.get(), i, 0, &stat);
        contents[i].resize(stat.size);
        const Entry file(zip_fopen_index(in.get(), i, 0), &zip_fclose);
        if (!file || zip_fread(file.get(), contents[i].data(), stat.size) !=
                         static_cast<zip_int64_t>(stat.size)) {
            throw std::runtime_error("cannot read " + std::string(stat.name));
        }
        zip_source_t* source = zip_source_buffer(out.get(), contents[i].data(), stat.size, 0);
        const zip_int64_t added = zip_file_add(out.get(), stat.name, source, ZIP_FL_ENC_UTF_8);
        if (added < 0) {
            zip_source_free(source);
            throw std::runtime_error("cannot add " + std::string(stat.name));
        }
        zip_set_file_compression(out.get(), static_cast<zip_uint64_t>(added), ZIP_CM_STORE, 0);
        zip_file_set_mtime(out.get(), static_cast<zip_uint64_t>(added), kFixedTime, 0);
    }
    if (zip_close(out.get()) != 0) throw std::runtime_error("cannot write " + to.string());
    out.release();  // closed
}

void writePackages(const fs::path& folder) {
    using C = PackageWriter::Compression;
    writeAppPackage(folder / "app-deflate.tsappinstall", fullRecord(), C::Deflate, true);
    writeAppPackage(folder / "app-stored.tsappinstall", minimalRecord(), C::Stored, true);
    writeAppPackage(folder / "app-no-images.tsappinstall", minimalRecord(), C::Stored, false);
    copyAllStored(folder / "app-stored.tsappinstall", folder / "app-all-stored.tsappinstall");

    PackageWriter odd((folder / "odd-names.tsappinstall").string());
    odd.setModificationTime(kFixedTime);
    odd.addPart("b\xC3\xBCro/a b.txt", "text/plain", bytes("spaced"), C::Stored);
    odd.addPart("deep/er/still/x.bin", "application/octet-stream", bytes(std::string(3, '\0')));
    odd.addRelationship("r1", "urn:other", "/deep/er/still/x.bin");
    odd.commit();
}

// Hostile ZIP layouts no writer produces, built byte by byte: every entry
// stored, at fixed times, so that the seeds never change.
std::string le(std::uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
    return out;
}

struct RawEntry {
    std::string name;
    std::string data;
    std::uint32_t crc = 0;  // the entry's real CRC-32 unless a seed spoils it
    std::uint64_t offset = 0;
};

RawEntry rawEntry(const std::string& name, const std::string& data) {
    const auto* bytes = reinterpret_cast<const Bytef*>(data.data());
    return {name, data, static_cast<std::uint32_t>(crc32(0, bytes, data.size())), 0};
}

std::string localHeader(const RawEntry& e, bool descriptor) {
    const std::uint64_t size = descriptor ? 0 : e.data.size();
    return le(0x04034b50, 4) + le(20, 2) + le(descriptor ? 8 : 0, 2) + le(0, 2) + le(0, 2) +
           le(0x21, 2) + le(descriptor ? 0 : e.crc, 4) + le(size, 4) + le(size, 4) +
           le(e.name.size(), 2) + le(0, 2) + e.name;
}

// Sizes and offset in a ZIP64 extra field cut to `zip64Extra` bytes (0: none).
std::string centralHeader(const RawEntry& e, bool descriptor, int zip64Extra) {
    const std::uint64_t big = 0xFFFFFFFF;
    const std::string extra =
        zip64Extra ? le(1, 2) + le(zip64Extra, 2) +
                         (le(e.data.size(), 8) + le(e.data.size(), 8) + le(e.offset, 8))
                             .substr(0, static_cast<std::size_t>(zip64Extra))
                   : "";
    return le(0x02014b50, 4) + le(45, 2) + le(zip64Extra ? 45 : 20, 2) + le(descriptor ? 8 : 0, 2) +
           le(0, 2) + le(0, 2) + le(0x21, 2) + le(e.crc, 4) +
           le(zip64Extra ? big : e.data.size(), 4) + le(zip64Extra ? big : e.data.size(), 4) +
           le(e.name.size(), 2) + le(extra.size(), 2) + le(0, 2) + le(0, 2) + le(0, 2) + le(0, 4) +
           le(zip64Extra ? big : e.offset, 4) + e.name + extra;
}

struct Layout {
    bool descriptor = false;  // sizes and CRC after the data
    int zip64Extra = 0;
    bool zip64End = false;         // ZIP64 end record and locator
    std::int64_t locatorSkew = 0;  // added to the locator's offset
};

// `hidden` entries are only in the central directory, at their own offsets.
std::string rawZip(std::vector<RawEntry> entries, const Layout& layout,
                   const std::vector<RawEntry>& hidden = {}) {
    std::string out;
    for (auto& e : entries) {
        e.offset = out.size();
        out += localHeader(e, layout.descriptor) + e.data;
        if (layout.descriptor)
            out += le(0x08074b50, 4) + le(e.crc, 4) + le(e.data.size(), 4) + le(e.data.size(), 4);
    }
    const std::uint64_t directory = out.size();
    for (const auto& e : entries) out += centralHeader(e, layout.descriptor, layout.zip64Extra);
    for (const auto& e : hidden) out += centralHeader(e, false, 0);
    entries.insert(entries.end(), hidden.begin(), hidden.end());
    const std::uint64_t directorySize = out.size() - directory;
    if (layout.zip64End) {
        const std::uint64_t record = out.size();
        out += le(0x06064b50, 4) + le(44, 8) + le(45, 2) + le(45, 2) + le(0, 4) + le(0, 4) +
               le(entries.size(), 8) + le(entries.size(), 8) + le(directorySize, 8) +
               le(directory, 8);
        out +=
            le(0x07064b50, 4) + le(0, 4) +
            le(static_cast<std::uint64_t>(static_cast<std::int64_t>(record) + layout.locatorSkew),
               8) +
            le(1, 4);
    }
    const std::uint64_t count = layout.zip64End ? 0xFFFF : entries.size();
    out += le(0x06054b50, 4) + le(0, 4) + le(count, 2) + le(count, 2) +
           le(layout.zip64End ? 0xFFFFFFFF : directorySize, 4) +
           le(layout.zip64End ? 0xFFFFFFFF : directory, 4) + le(0, 2);
    return out;
}

// Layouts other producers write: bytes after the end record (after a
// comment too), a self-extracting stub in front, a part in pieces (and one
// with a gap), the relationships content type in other case.
void writeOddLayouts(const fs::path& folder, const std::vector<RawEntry>& base) {
    const std::string plain = rawZip(base, {});
    writeFile(folder / "zip-trailing-bytes", plain + std::string(64, '\0') + "SIGNATURE");
    writeFile(folder / "zip-comment-then-trailing",
              plain.substr(0, plain.size() - 2) + le(4, 2) + "note" + "SIGNATURE");
    writeFile(folder / "zip-prepended-stub", std::string("MZ\x90\0stub", 8) + plain);
    writeFile(folder / "opc-pieces",
              rawZip({base[0], rawEntry("doc.txt/[1].LAST.piece", "second half"),
                      rawEntry("doc.txt/[0].piece", "first half, "), base[2]},
                     {}));
    writeFile(folder / "opc-pieces-gap", rawZip({base[0], rawEntry("doc.txt/[0].piece", "first"),
                                                 rawEntry("doc.txt/[2].last.piece", "third")},
                                                {}));
    const std::string types =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Types xmlns=\"http://schemas.openxmlformats."
        "org/package/2006/content-types\"><Default Extension=\"txt\" ContentType=\"text/"
        "plain\"/><Default Extension=\"RELS\" ContentType=\"Application/"
        "VND.openxmlformats-package.relationships+XML\"/></Types>";
    const std::string rels =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Relationships xmlns=\"http://"
        "schemas.openxmlformats.org/package/2006/relationships\"><Relationship Id=\"r1\" "
        "Type=\"urn:a\" Target=\"/a.txt\"/></Relationships>";
    writeFile(folder / "opc-rels-type-case", rawZip({rawEntry("[Content_Types].xml", types),
                                                     rawEntry("_rels/.rels", rels), base[1]},
                                                    {}));
}

void writeHostileZips(const fs::path& folder) {
    const std::string types =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Types xmlns=\"http://schemas.openxmlformats."
        "org/package/2006/content-types\"><Default Extension=\"txt\" ContentType=\"text/"
        "plain\"/></Types>";
    const std::vector<RawEntry> base = {rawEntry("[Content_Types].xml", types),
                                        rawEntry("a.txt", "first part"),
                                        rawEntry("lib/b.txt", "second part")};
    writeFile(folder / "zip-descriptors", rawZip(base, {true}));
    writeFile(folder / "zip64-records", rawZip(base, {false, 24, true}));
    writeFile(folder / "zip64-short-extra", rawZip(base, {false, 12, true}));
    writeFile(folder / "zip64-bad-locator", rawZip(base, {false, 24, true, -7}));
    auto wrongCrc = base;
    wrongCrc[2].crc ^= 0x00010000;
    writeFile(folder / "zip-wrong-crc", rawZip(wrongCrc, {}));
    // b.txt's local header and data sit inside a.txt's data: the two
    // entries overlap, as in overlap bombs.
    RawEntry inner = rawEntry("lib/b.txt", "overlapping");
    const RawEntry outer = rawEntry("a.txt", localHeader(inner, false) + inner.data);
    inner.offset =
        localHeader(base[0], false).size() + base[0].data.size() + localHeader(outer, false).size();
    const std::string bytes = rawZip({base[0], outer}, {}, {inner});
    writeFile(folder / "zip-overlapping", bytes);
    writeOddLayouts(folder, base);
}

void writeManifests(const fs::path& folder) {
    writeFile(folder / "full.xml", manifestText(fullRecord()));
    writeFile(folder / "minimal.xml", manifestText(minimalRecord()));
    AppManifest noCreated = minimalRecord();
    noCreated.created = boost::posix_time::ptime();  // written as <created/>
    writeFile(folder / "no-created.xml", manifestText(noCreated));
    // The same record declared XML 1.1, which the reader refuses by name.
    std::string xml11 = manifestText(minimalRecord());
    xml11.replace(xml11.find("version=\"1.0\""), 15, "version=\"1.1\"");
    writeFile(folder / "xml-1.1.xml", xml11);
}

void writeNames(const fs::path& folder) {
    const char* names[] = {"/a.xml",
                           "/_rels/.rels",
                           "/lib/util.js",
                           "/b%C3%BCro/a%20b.txt",
                           "manifest.xml",
                           "./x/../images/icon.png",
                           "../../x",
                           "/a/%2e%2e/b",
                           "http://example.com/x",
                           "/[Content_Types].xml",
                           "a/b/c/d/e/f/g/h.i"};
    int index = 0;
    for (const char* name : names) {
        std::string utf16;
        for (const char* c = name; *c; ++c) utf16 += std::string{*c, '\0'};
        writeFile(folder / ("name-" + std::to_string(index++)), utf16);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: make_seeds <corpus folder>\n";
        return 2;
    }
    const fs::path root(argv[1]);
    for (const char* name : {"package", "manifest", "names"}) fs::create_directories(root / name);
    writePackages(root / "package");
    writeHostileZips(root / "package");
    writeManifests(root / "manifest");
    writeNames(root / "names");
    return 0;
}
