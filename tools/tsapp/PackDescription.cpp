#include "PackDescription.hpp"

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "Text.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

namespace tsapp::tool {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// Every key tsapp.json may hold at its top level.
const std::set<std::string> kFields = {"entryPoint",
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
const char* const kRequired[] = {"entryPoint", "name", "version", "icon", "screenshot"};
const char* const kAuthorKeys[] = {"name", "contact", "organization"};
const char* const kProductKeys[] = {"identifier", "name", "version"};

class Checker {
  public:
    std::vector<std::string> problems;

    void problem(const std::string& field, const std::string& what) {
        problems.push_back("tsapp.json: " + field + ": " + what);
    }
    std::u16string text(const json& object, const std::string& key, const std::string& field) {
        if (!object.contains(key)) return {};
        if (object[key].is_string()) return utf16(object[key].get<std::string>());
        problem(field, "must be a string");
        return {};
    }
    std::vector<std::u16string> texts(const json& object, const std::string& key) {
        std::vector<std::u16string> list;
        if (!object.contains(key)) return list;
        if (!object[key].is_array()) problem(key, "must be a list of strings");
        for (const auto& item : object[key]) {
            if (item.is_string())
                list.push_back(utf16(item.get<std::string>()));
            else
                problem(key, "must be a list of strings");
        }
        return list;
    }
    // Only the named keys, the required one present and not empty.
    bool object(const json& value, const std::string& field, const char* const* keys,
                std::size_t count) {
        if (!value.is_object()) {
            problem(field, "must be an object");
            return false;
        }
        for (const auto& item : value.items())
            if (std::find(keys, keys + count, item.key()) == keys + count)
                problem(field + "." + item.key(), "unknown field");
        if (text(value, keys[0], field + "." + keys[0]).empty())
            problem(field + "." + keys[0], "is required");
        return true;
    }
};

// SOURCE_DATE_EPOCH makes two builds of the same folder byte-identical.
std::time_t buildTime(Checker& check) {
    const char* epoch = std::getenv("SOURCE_DATE_EPOCH");
    if (!epoch) return std::time(nullptr);
    char* end = nullptr;
    const long long value = std::strtoll(epoch, &end, 10);
    if (*epoch == '\0' || *end != '\0' || value < 315532800)  // ZIP times begin in 1980
        check.problems.push_back("SOURCE_DATE_EPOCH: not a number of seconds since 1980: " +
                                 std::string(epoch));
    return static_cast<std::time_t>(value);
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

bool isGuid(const std::string& text) {
    if (text.size() != 36) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i])))
            return false;
    }
    return true;
}

// A path named in tsapp.json, which must stay inside the source folder;
// empty when it does not, so that nothing outside is ever read or walked.
fs::path inside(const fs::path& source, const std::u16string& name, const std::string& field,
                Checker& check) {
    const fs::path path = fs::weakly_canonical(source / utf8(name));
    const fs::path root = fs::weakly_canonical(source);
    const auto mismatch = std::mismatch(root.begin(), root.end(), path.begin(), path.end());
    if (fs::path(utf8(name)).is_absolute() || mismatch.first != root.end()) {
        check.problem(field, utf8(name) + " lies outside the source folder");
        return {};
    }
    return path;
}

fs::path regularFile(const fs::path& source, const json& d, const char* key, Checker& check) {
    const std::u16string name = check.text(d, key, key);
    if (name.empty()) return {};
    const fs::path file = inside(source, name, key, check);
    if (file.empty()) return {};
    if (!fs::is_regular_file(fs::symlink_status(source / utf8(name))))
        check.problem(key, utf8(name) + " is not a regular file");
    return file;
}

// Every regular file below `root`, each one that can become a part name.
std::vector<std::string> appFiles(const fs::path& root, Checker& check) {
    std::vector<std::string> files;
    if (!fs::is_directory(fs::symlink_status(root))) {
        check.problem("files", root.string() + " is not a folder");
        return files;
    }
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string name = fs::relative(entry.path(), root).generic_string();
        if (entry.is_symlink())
            check.problem("files", name + " is a symbolic link");
        else if (entry.is_directory())
            continue;
        else if (!entry.is_regular_file())
            check.problem("files", name + " is not a regular file");
        else {
            const std::string part = opc::model::PartName::forPath("files/" + name);
            std::string why = opc::model::PartName::whyInvalid(part);
            if (why.empty() && opc::extraction::isReservedPartName(part))
                why = "the extractor reserves names beginning with \".~tsapp\"";
            if (!why.empty()) check.problem("files", name + " cannot be a part name: " + why);
            files.push_back(name);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void fillManifest(const json& d, Checker& check, AppManifest& m) {
    using Text = std::u16string AppManifest::*;
    static const std::pair<const char*, Text> kTexts[] = {
        {"entryPoint", &AppManifest::entryPoint},
        {"name", &AppManifest::name},
        {"version", &AppManifest::version},
        {"createdByTESSALRelease", &AppManifest::createdByTESSALRelease},
        {"summary", &AppManifest::summary},
        {"description", &AppManifest::description},
        {"minTESSALVer", &AppManifest::minTESSALVer},
        {"maxTESSALVer", &AppManifest::maxTESSALVer}};
    for (const auto& [key, field] : kTexts) m.*field = check.text(d, key, key);
    if (d.contains("author") && check.object(d["author"], "author", kAuthorKeys, 3)) {
        m.authorName = check.text(d["author"], "name", "author.name");
        m.authorContact = check.text(d["author"], "contact", "author.contact");
        m.authorOrganization = check.text(d["author"], "organization", "author.organization");
    }
    m.supportedPlatforms = check.texts(d, "supportedPlatforms");
    m.pathEntries = check.texts(d, "pathEntries");
    if (!d.contains("requiredProducts")) return;
    if (!d["requiredProducts"].is_array())
        return check.problem("requiredProducts", "must be a list");
    for (std::size_t i = 0; i < d["requiredProducts"].size(); ++i) {
        const json& p = d["requiredProducts"][i];
        const std::string field = "requiredProducts[" + std::to_string(i) + "]";
        if (!check.object(p, field, kProductKeys, 3)) continue;
        m.requiredProducts.push_back({check.text(p, "identifier", field + ".identifier"),
                                      check.text(p, "name", field + ".name"),
                                      check.text(p, "version", field + ".version")});
    }
}

}  // namespace

std::vector<std::string> planPack(const fs::path& source, const std::string& guid, PackPlan& plan) {
    Checker check;
    json d;
    std::ifstream in(source / "tsapp.json");
    if (!in) return {"tsapp.json: cannot be read"};
    try {
        d = json::parse(in);
    } catch (const json::parse_error& e) {
        return {"tsapp.json: not JSON (at byte " + std::to_string(e.byte) + ")"};
    }
    if (!d.is_object()) return {"tsapp.json: the top level must be an object"};
    for (const auto& item : d.items())
        if (!kFields.count(item.key())) check.problem(item.key(), "unknown field");
    for (const char* key : kRequired)
        if (!d.contains(key)) check.problem(key, "is required");
    if (!guid.empty() && !isGuid(guid))
        check.problems.push_back("--guid: not 8-4-4-4-12 hex digits: " + guid);

    AppManifest& m = plan.manifest;
    fillManifest(d, check, m);
    plan.icon = regularFile(source, d, "icon", check);
    plan.screenshot = regularFile(source, d, "screenshot", check);
    const std::u16string folder = check.text(d, "files", "files");
    plan.filesRoot = inside(source, folder.empty() ? u"files" : folder, "files", check);
    if (!plan.filesRoot.empty()) plan.files = appFiles(plan.filesRoot, check);
    if (d.contains("entryPoint") &&
        std::find(plan.files.begin(), plan.files.end(), utf8(m.entryPoint)) == plan.files.end())
        check.problem("entryPoint", utf8(m.entryPoint) + " is not among the app files");
    plan.when = buildTime(check);

    m.GUID = guid.empty() ? freshGuid() : guid;
    for (const auto& file : plan.files) m.appEntries.push_back(utf16(file));
    m.numFiles = plan.files.size();
    m.created = convertUTCToLocalTime(boost::posix_time::from_time_t(plan.when));
    return check.problems;
}

}  // namespace tsapp::tool
