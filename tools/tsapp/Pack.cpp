// tsapp pack: builds a sealed app package from a source folder, with its
// content digests and, when asked, the author's signature over them.
//
// The folder holds tsapp.json (the manifest fields, see the README), the
// icon and screenshot it names, and a folder of app files. The tool fills
// GUID, numFiles, appEntries and created, saves the manifest through the
// library's serializer, and writes the package with the package writer,
// which renames the finished file into place.

#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

namespace tsapp::tool {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using opc::zippackage::PackageWriter;

const std::set<std::string> kKnownKeys = {"entryPoint",
                                          "name",
                                          "version",
                                          "createdByTESSALRelease",
                                          "summary",
                                          "description",
                                          "minTESSALVer",
                                          "maxTESSALVer",
                                          "author",
                                          "supportedPlatforms",
                                          "requiredProducts",
                                          "pathEntries",
                                          "icon",
                                          "screenshot",
                                          "files"};

[[noreturn]] void bad(const std::string& what) {
    throw std::runtime_error(what);
}

json readDescription(const fs::path& file) {
    std::ifstream in(file);
    if (!in) bad("cannot read " + file.string());
    try {
        json description = json::parse(in);
        if (!description.is_object()) bad(file.string() + ": the top level must be an object");
        for (const auto& item : description.items())
            if (!kKnownKeys.count(item.key()))
                bad(file.string() + ": unknown field \"" + item.key() + "\"");
        return description;
    } catch (const json::exception& e) {
        bad(file.string() + ": " + e.what());
    }
}

std::u16string text(const json& object, const char* key) {
    if (!object.contains(key)) return {};
    if (!object[key].is_string()) bad(std::string("tsapp.json: \"") + key + "\" must be a string");
    return utf16(object[key].get<std::string>());
}

std::vector<std::u16string> texts(const json& object, const char* key) {
    std::vector<std::u16string> list;
    if (!object.contains(key)) return list;
    if (!object[key].is_array())
        bad(std::string("tsapp.json: \"") + key + "\" must be a list of strings");
    for (const auto& item : object[key]) {
        if (!item.is_string())
            bad(std::string("tsapp.json: \"") + key + "\" must be a list of strings");
        list.push_back(utf16(item.get<std::string>()));
    }
    return list;
}

std::string freshGuid() {
    std::random_device random;
    std::uniform_int_distribution<unsigned> byte(0, 255);
    unsigned char b[16];
    for (auto& value : b) value = static_cast<unsigned char>(byte(random));
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    static const char* hex = "0123456789abcdef";
    std::string guid;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) guid += '-';
        guid += hex[b[i] >> 4];
        guid += hex[b[i] & 15];
    }
    return guid;
}

// SOURCE_DATE_EPOCH makes two builds of the same folder byte-identical.
std::time_t buildTime() {
    if (const char* epoch = std::getenv("SOURCE_DATE_EPOCH"))
        return static_cast<std::time_t>(std::stoll(epoch));
    return std::time(nullptr);
}

std::string contentTypeFor(const fs::path& file) {
    static const std::pair<const char*, const char*> types[] = {{".png", "image/png"},
                                                                {".jpg", "image/jpeg"},
                                                                {".jpeg", "image/jpeg"},
                                                                {".svg", "image/svg+xml"},
                                                                {".js", "application/javascript"},
                                                                {".json", "application/json"},
                                                                {".txt", "text/plain"},
                                                                {".html", "text/html"},
                                                                {".css", "text/css"},
                                                                {".xml", "application/xml"}};
    const std::string extension = file.extension().string();
    for (const auto& [ext, type] : types)
        if (extension == ext) return type;
    return "application/octet-stream";
}

// Every regular file below `root`, as sorted relative UTF-8 paths.
std::vector<std::string> appFilesBelow(const fs::path& root) {
    if (!fs::is_directory(root)) bad(root.string() + " is not a folder");
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_symlink())
            bad(entry.path().string() + " is a symbolic link; app files must be regular files");
        if (entry.is_directory()) continue;
        if (!entry.is_regular_file()) bad(entry.path().string() + " is not a regular file");
        files.push_back(fs::relative(entry.path(), root).generic_string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

AppManifest manifestFrom(const json& d, const std::string& guid,
                         const std::vector<std::string>& files, std::time_t when) {
    AppManifest m;
    m.GUID = guid;
    m.entryPoint = text(d, "entryPoint");
    m.name = text(d, "name");
    m.version = text(d, "version");
    m.createdByTESSALRelease = text(d, "createdByTESSALRelease");
    m.summary = text(d, "summary");
    m.description = text(d, "description");
    m.minTESSALVer = text(d, "minTESSALVer");
    m.maxTESSALVer = text(d, "maxTESSALVer");
    if (d.contains("author")) {
        if (!d["author"].is_object()) bad("tsapp.json: \"author\" must be an object");
        m.authorName = text(d["author"], "name");
        m.authorContact = text(d["author"], "contact");
        m.authorOrganization = text(d["author"], "organization");
    }
    m.supportedPlatforms = texts(d, "supportedPlatforms");
    if (d.contains("requiredProducts")) {
        if (!d["requiredProducts"].is_array())
            bad("tsapp.json: \"requiredProducts\" must be a list");
        for (const auto& p : d["requiredProducts"]) {
            if (!p.is_object()) bad("tsapp.json: each required product must be an object");
            m.requiredProducts.push_back(
                {text(p, "identifier"), text(p, "name"), text(p, "version")});
        }
    }
    m.pathEntries = texts(d, "pathEntries");
    for (const auto& file : files) m.appEntries.push_back(utf16(file));
    m.numFiles = files.size();
    m.created = convertUTCToLocalTime(boost::posix_time::from_time_t(when));
    return m;
}

std::vector<unsigned char> savedManifest(const AppManifest& manifest) {
    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    AppManifestSerializer serializer;
    serializer.save(out, manifest);
    return bytes;
}

std::string requiredFile(const json& d, const char* key, const fs::path& source) {
    const std::u16string name = text(d, key);
    if (name.empty()) bad(std::string("tsapp.json: \"") + key + "\" is required");
    const fs::path file = source / utf8(name);
    if (!fs::is_regular_file(file)) bad(file.string() + " is not a file");
    return file.string();
}

}  // namespace

int runPack(const std::string& sourceFolder, const std::string& output,
            const std::string& givenGuid, const std::string& keyFile,
            const std::string& certificateFile) {
    // Read the key first: a wrong one should stop the tool before any work.
    std::optional<tsappinstall::integrity::Signer> signer;
    if (!keyFile.empty()) signer.emplace(keyFile, certificateFile);
    const fs::path source(sourceFolder);
    const json description = readDescription(source / "tsapp.json");
    const std::string icon = requiredFile(description, "icon", source);
    const std::string screenshot = requiredFile(description, "screenshot", source);
    const std::u16string filesFolder = text(description, "files");
    const fs::path filesRoot =
        source / (filesFolder.empty() ? std::string("files") : utf8(filesFolder));
    const std::vector<std::string> files = appFilesBelow(filesRoot);
    const std::time_t when = buildTime();
    const AppManifest manifest =
        manifestFrom(description, givenGuid.empty() ? freshGuid() : givenGuid, files, when);
    if (std::find(files.begin(), files.end(), utf8(manifest.entryPoint)) == files.end())
        bad("the entry point \"" + utf8(manifest.entryPoint) + "\" is not among the app files");

    using namespace Corvane::addons::apps;
    PackageWriter writer(output);
    writer.setModificationTime(when);
    const std::string manifestPart =
        writer.addPart("manifest.xml", "application/xml", savedManifest(manifest));
    const std::string iconPart =
        writer.addPartFromFile(fs::path(icon).filename().string(), contentTypeFor(icon), icon,
                               PackageWriter::Compression::Stored);
    const std::string shotPart =
        writer.addPartFromFile(fs::path(screenshot).filename().string(), contentTypeFor(screenshot),
                               screenshot, PackageWriter::Compression::Stored);
    for (const auto& file : files)
        writer.addPartFromFile("files/" + file, contentTypeFor(file), (filesRoot / file).string());
    writer.addRelationship("manifest", APP_PROPERTIES_RELATIONSHIP_TYPE, manifestPart);
    writer.addRelationship("icon", PRIMARY_ICON_RELATIONSHIP_TYPE, iconPart);
    writer.addRelationship("screenshot", PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, shotPart);
    writer.addDigests(signer ? &*signer : nullptr);
    writer.commit();
    return kGood;
}

}  // namespace tsapp::tool
