#include "tsappinstall/pack/PackPlan.hpp"

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "IgnoreRules.hpp"
#include "images/Images.hpp"
#include "platform/base/Ascii.hpp"
#include "tsappinstall/Guid.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

namespace tsappinstall::pack {
namespace {

namespace fs = std::filesystem;
using images::Image;
using nlohmann::json;

std::string utf8(const std::u16string& text) {
    return fl::i18n::to_string(text);
}

std::u16string utf16(const std::string& text) {
    return fl::i18n::to_ustring(text);
}

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
    // Line breaks and tabs only where a text may run over several lines.
    std::u16string text(const json& object, const std::string& key, const std::string& field,
                        bool multiline = false) {
        if (!object.contains(key)) return {};
        if (!object[key].is_string()) {
            problem(field, "must be a string");
            return {};
        }
        const std::string value = object[key].get<std::string>();
        for (unsigned char c : value) {
            if ((c < 0x20 || c == 0x7F) && !(multiline && (c == '\t' || c == '\n' || c == '\r'))) {
                problem(field, "holds a control character");
                break;
            }
        }
        return utf16(value);
    }
    std::vector<std::u16string> texts(const json& object, const std::string& key) {
        std::vector<std::u16string> list;
        if (!object.contains(key)) return list;
        if (!object[key].is_array()) problem(key, "must be a list of strings");
        for (const auto& item : object[key]) {
            if (item.is_string()) {
                const json holder = {{"value", item}};
                list.push_back(text(holder, "value", key));
            } else {
                problem(key, "must be a list of strings");
            }
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

constexpr long long kFirstZipTime = 315532800;  // 1980-01-01T00:00:00Z
constexpr long long kLastZipTime = 4354819199;  // 2107-12-31T23:59:59Z

// The time must be one a ZIP entry holds (in UTC, 1980 to 2107); `field`
// names where it came from.
std::time_t zipTime(long long value, bool outOfRange, const std::string& shown,
                    const std::string& field, Checker& check) {
    if (value < kFirstZipTime) {
        check.problems.push_back(field + ": " + shown +
                                 " is before 1980-01-01, the earliest time a ZIP file holds");
        return 0;
    }
    if (outOfRange || value > kLastZipTime) {
        check.problems.push_back(field + ": " + shown +
                                 " is after 2107-12-31, the latest time a ZIP file holds");
        return 0;
    }
    return static_cast<std::time_t>(value);
}

// The request's time, else SOURCE_DATE_EPOCH's, else now.
std::time_t buildTime(const std::optional<std::time_t>& given, Checker& check) {
    if (given) return zipTime(*given, false, std::to_string(*given), "when", check);
    const char* epoch = std::getenv("SOURCE_DATE_EPOCH");
    if (!epoch) return std::time(nullptr);
    const std::string text = epoch;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(epoch, &end, 10);
    if (text.empty() || *end != '\0' || !std::isdigit(static_cast<unsigned char>(text.back()))) {
        check.problems.push_back("SOURCE_DATE_EPOCH: not a whole number of seconds: \"" + text +
                                 "\"");
        return 0;
    }
    return zipTime(value, errno == ERANGE, text, "SOURCE_DATE_EPOCH", check);
}

std::string freshGuid() {
    std::random_device random;
    std::uniform_int_distribution<unsigned> byte(0, 255);
    unsigned char b[16];
    for (auto& value : b) value = static_cast<unsigned char>(byte(random));
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    const std::string hex = opc::detail::lower_hex(b, sizeof b);
    return hex.substr(0, 8) + '-' + hex.substr(8, 4) + '-' + hex.substr(12, 4) + '-' +
           hex.substr(16, 4) + '-' + hex.substr(20);
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

// The image formats an icon or a screenshot may be in.
struct ImageFormat {
    Image image;
    const char* name;
    const char* contentType;
    std::vector<std::string> extensions;
};
const ImageFormat kImages[] = {{Image::Png, "PNG", "image/png", {".png"}},
                               {Image::Jpeg, "JPEG", "image/jpeg", {".jpg", ".jpeg"}},
                               {Image::Svg, "SVG", "image/svg+xml", {".svg"}}};

const ImageFormat* formatNamed(const fs::path& file) {
    const std::string extension = opc::detail::ascii_lower(file.extension().string());
    for (const ImageFormat& format : kImages)
        if (std::find(format.extensions.begin(), format.extensions.end(), extension) !=
            format.extensions.end())
            return &format;
    return nullptr;
}

const ImageFormat* formatOf(Image image) {
    for (const ImageFormat& format : kImages)
        if (format.image == image) return &format;
    return nullptr;
}

// The bytes to sniff: a PNG or JPEG is known by its first bytes; whether
// an SVG is kept takes all of them.
std::string imageBytes(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::string bytes(1024, '\0');
    in.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(in.gcount()));
    const Image head = images::sniff(bytes);
    if (head == Image::Png || head == Image::Jpeg) return bytes;
    bytes.append(std::istreambuf_iterator<char>(in), {});
    return bytes;
}

// The icon's or screenshot's content type, from its bytes, which must be
// the image its name's extension says, and no SVG a repository would leave
// out.
std::string imageContentType(const fs::path& file, const std::string& shown, const char* key,
                             Checker& check) {
    const ImageFormat* named = formatNamed(file);
    if (named == nullptr) {
        check.problem(key, shown + " must be a PNG, JPEG or SVG image (.png, .jpg, .jpeg, .svg)");
        return {};
    }
    const std::string bytes = imageBytes(file);
    const Image found = images::sniff(bytes);
    if (found == named->image) return named->contentType;
    if (found == Image::RefusedSvg && named->image == Image::Svg) {
        check.problem(key, shown + " is not an inert SVG image: " + images::svgRefusal(bytes));
        return {};
    }
    const ImageFormat* held = formatOf(found == Image::RefusedSvg ? Image::Svg : found);
    check.problem(key, shown + " is not a " + named->name + " image" +
                           (held ? std::string(": it holds a ") + held->name + " one" : ""));
    return {};
}

fs::path regularFile(const fs::path& source, const json& d, const char* key, Checker& check,
                     std::string& contentType) {
    const std::u16string name = check.text(d, key, key);
    if (name.empty()) return {};
    const fs::path file = inside(source, name, key, check);
    if (file.empty()) return {};
    if (!fs::is_regular_file(fs::symlink_status(source / utf8(name)))) {
        check.problem(key, utf8(name) + " is not a regular file");
        return {};
    }
    contentType = imageContentType(file, utf8(name), key, check);
    return file;
}

// Why an app file's name cannot be a part name; empty when it can.
std::string whyNotPartName(const std::string& name) {
    if (fl::i18n::shown(name) != name) return "it holds a control character or is not UTF-8";
    const std::string part = opc::model::PartName::forPath("files/" + name);
    std::string why = opc::model::PartName::whyInvalid(part);
    if (why.empty() && opc::extraction::isReservedPartName(part))
        why = "the extractor reserves names beginning with \".~tsapp\"";
    return why;
}

enum class Kind { File, Folder, EmptyFolder, Link, Other };

// What lies below `root`, in name order, without what the rules leave out
// (nor, as git does, anything inside a folder they leave out).
std::vector<std::pair<std::string, Kind>> walk(const fs::path& root, const IgnoreRules& rules) {
    std::vector<std::pair<std::string, Kind>> found;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        const fs::file_status status = it->symlink_status();
        const bool folder = fs::is_directory(status);
        // Lexically: relative() would follow a link to where it points,
        // and the file to name is the link itself.
        const std::string name = it->path().lexically_relative(root).generic_string();
        if (rules.ignores(name, folder)) {
            if (folder) it.disable_recursion_pending();
            continue;
        }
        const Kind kind = fs::is_symlink(status) ? Kind::Link
                          : folder ? (fs::is_empty(it->path()) ? Kind::EmptyFolder : Kind::Folder)
                          : fs::is_regular_file(status) ? Kind::File
                                                        : Kind::Other;
        found.emplace_back(name, kind);
    }
    std::sort(found.begin(), found.end());
    return found;
}

// Every regular file below `root` that the rules do not leave out, each one
// that can become a part name; an empty folder is noted, as it is not
// packed (a package holds files only).
std::vector<std::string> appFiles(const fs::path& root, const fs::path& shownRoot,
                                  const IgnoreRules& rules, Checker& check,
                                  std::vector<std::string>& warnings) {
    std::vector<std::string> files;
    if (!fs::is_directory(fs::symlink_status(root))) {
        check.problem("files", root.string() + " is not a folder");
        return files;
    }
    std::map<std::string, std::string> lowerNames;
    for (const auto& [name, kind] : walk(root, rules)) {
        const std::string shown = fl::i18n::shown(name);
        if (kind == Kind::Link) {
            check.problem("files", shown + " is a symbolic link");
        } else if (kind == Kind::EmptyFolder) {
            warnings.push_back((shownRoot / shown).string() +
                               ": warning: an empty folder is not packed");
        } else if (kind == Kind::Other) {
            check.problem("files", shown + " is not a regular file");
        } else if (kind == Kind::File) {
            const std::string why = whyNotPartName(name);
            if (!why.empty()) {
                check.problem("files", shown + " cannot be a part name: " + why);
                continue;
            }
            // Part names compare ignoring ASCII case.
            const auto [other, added] = lowerNames.emplace(opc::detail::ascii_lower(name), name);
            if (!added)
                check.problem("files", shown + " and " + fl::i18n::shown(other->second) +
                                           " would be one part: part names ignore case");
            files.push_back(name);
        }
    }
    return files;
}

// Empty, or spaces alone (ASCII, no-break and ideographic ones), which a
// list would show as nothing.
bool isBlank(std::string text) {
    for (const char* space : {"\xC2\xA0", "\xE3\x80\x80", " "})
        for (auto at = text.find(space); at != std::string::npos; at = text.find(space))
            text.erase(at, std::strlen(space));
    return text.empty();
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
    for (const auto& [key, field] : kTexts)
        m.*field = check.text(d, key, key,
                              field == &AppManifest::description || field == &AppManifest::summary);
    for (const char* key : {"name", "version"})
        if (d.contains(key) && d[key].is_string() && isBlank(d[key].get<std::string>()))
            check.problem(key, "must not be empty or blank");
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

// Keys given twice, which a JSON reader would otherwise take the last of.
json parseRejectingDuplicates(std::istream& in, Checker& check) {
    std::vector<std::set<std::string>> open;
    return json::parse(in, [&](int, json::parse_event_t event, json& parsed) {
        if (event == json::parse_event_t::object_start) {
            open.emplace_back();
        } else if (event == json::parse_event_t::object_end) {
            open.pop_back();
        } else if (event == json::parse_event_t::key &&
                   !open.back().insert(parsed.get<std::string>()).second) {
            check.problem(parsed.get<std::string>(), "given more than once");
        }
        return true;
    });
}

IgnoreRules ignoreRules(const fs::path& source, const std::vector<std::string>& excludes) {
    IgnoreRules rules;
    std::ifstream in(source / ".tsappignore", std::ios::binary);
    if (in) rules.addLines(std::string(std::istreambuf_iterator<char>(in), {}));
    for (const std::string& pattern : excludes) rules.add(pattern);
    return rules;
}

bool isInside(const fs::path& path, const fs::path& folder) {
    const fs::path full = fs::weakly_canonical(path);
    const fs::path root = fs::weakly_canonical(folder);
    return std::mismatch(root.begin(), root.end(), full.begin(), full.end()).first == root.end();
}

// NAME-VERSION.tsappinstall, anything but letters, digits and ".+-_" as "_".
std::string defaultOutput(const AppManifest& m) {
    std::string name = utf8(m.name) + "-" + utf8(m.version);
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) &&
            std::string(".+-_").find(c) == std::string::npos)
            c = '_';
    return name + ".tsappinstall";
}

// The part names that must stay distinct, compared as part names are.
void checkDistinctParts(const PackPlan& plan, Checker& check) {
    if (plan.icon.empty() || plan.screenshot.empty()) return;
    if (opc::detail::ascii_iequals(plan.icon.filename().string(),
                                   plan.screenshot.filename().string()))
        check.problem("screenshot", plan.screenshot.filename().string() +
                                        " would be the same part as the icon " +
                                        plan.icon.filename().string());
    // [Content_Types].xml, the relationships, the manifest, icon and
    // screenshot, the digest list, its signature and key rotation proofs.
    constexpr std::size_t kOwnEntries = 8;
    const std::size_t most = opc::zippackage::ZipPhysicalPackage::kMaxEntries - kOwnEntries;
    if (plan.files.size() > most)
        check.problem("files", std::to_string(plan.files.size()) +
                                   " app files; a package holds at most " + std::to_string(most));
}

void planSource(const PackRequest& request, const json& d, Checker& check, PackPlan& plan) {
    const fs::path& source = request.source;
    for (const auto& item : d.items())
        if (!kFields.count(item.key())) check.problem(item.key(), "unknown field");
    for (const char* key : kRequired)
        if (!d.contains(key)) check.problem(key, "is required");
    fillManifest(d, check, plan.manifest);
    plan.icon = regularFile(source, d, "icon", check, plan.iconType);
    plan.screenshot = regularFile(source, d, "screenshot", check, plan.screenshotType);
    const std::u16string folder = check.text(d, "files", "files");
    const std::u16string filesName = folder.empty() ? u"files" : folder;
    plan.filesRoot = inside(source, filesName, "files", check);
    if (!plan.filesRoot.empty())
        plan.files = appFiles(plan.filesRoot, source / utf8(filesName),
                              ignoreRules(source, request.excludes), check, plan.warnings);
    const std::string entryPoint = utf8(plan.manifest.entryPoint);
    if (d.contains("entryPoint") &&
        std::find(plan.files.begin(), plan.files.end(), entryPoint) == plan.files.end())
        check.problem("entryPoint", entryPoint + " is not among the app files");
    checkDistinctParts(plan, check);
}

// What the package adds to tsapp.json's fields, where it goes, and the
// sizes of what it will hold.
void completePlan(const PackRequest& request, Checker& check, PackPlan& plan) {
    AppManifest& m = plan.manifest;
    plan.when = buildTime(request.when, check);
    // The tool takes only a GUID; a host may hand on anything.
    if (!request.guid.empty() && !isGuid(request.guid))
        check.problems.push_back("guid: not 8-4-4-4-12 hex digits: " + request.guid);
    m.GUID = request.guid.empty() ? freshGuid() : request.guid;
    for (const auto& file : plan.files) m.appEntries.push_back(utf16(file));
    m.numFiles = plan.files.size();
    m.created = convertUTCToLocalTime(boost::posix_time::from_time_t(plan.when));

    plan.output = request.output.empty() ? defaultOutput(m) : request.output;
    if (!plan.filesRoot.empty() && isInside(plan.output, plan.filesRoot))
        check.problems.push_back(plan.output +
                                 ": lies inside the app files folder, so the next pack would "
                                 "pack it");
    std::error_code ignored;
    for (const fs::path& image : {plan.icon, plan.screenshot})
        plan.sizes.push_back(image.empty() ? 0 : fs::file_size(image, ignored));
    for (const auto& file : plan.files)
        plan.sizes.push_back(fs::file_size(plan.filesRoot / file, ignored));
}

}  // namespace

std::vector<std::string> planPack(const PackRequest& request, PackPlan& plan) {
    Checker check;
    json d;
    std::ifstream in(request.source / "tsapp.json");
    if (!in) return {std::string("tsapp.json: cannot be read: ") + std::strerror(errno)};
    try {
        d = parseRejectingDuplicates(in, check);
    } catch (const json::parse_error& e) {
        return {"tsapp.json: not JSON (at byte " + std::to_string(e.byte) + ")"};
    }
    if (!d.is_object()) return {"tsapp.json: the top level must be an object"};
    planSource(request, d, check, plan);
    completePlan(request, check, plan);
    return check.problems;
}

}  // namespace tsappinstall::pack
