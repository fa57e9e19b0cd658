// Writes the seed corpora with the library's own writers: app packages from
// PackageWriter, manifests from AppManifestSerializer::save, part names and
// relationship targets as the UTF-16LE bytes fuzz_names reads.
//
//   make_seeds <corpus folder>   (fills <folder>/package, /manifest, /names)

#include <zip.h>
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

void writeManifests(const fs::path& folder) {
    writeFile(folder / "full.xml", manifestText(fullRecord()));
    writeFile(folder / "minimal.xml", manifestText(minimalRecord()));
    AppManifest noCreated = minimalRecord();
    noCreated.created = boost::posix_time::ptime();  // written as <created/>
    writeFile(folder / "no-created.xml", manifestText(noCreated));
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
    writeManifests(root / "manifest");
    writeNames(root / "names");
    return 0;
}
