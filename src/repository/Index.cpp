#include "tsappinstall/repository/Index.hpp"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <nlohmann/json.hpp>
#include <set>

#include "IndexJson.hpp"
#include "platform/base/Ascii.hpp"
#include "tsappinstall/manifest/AppManifest.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/timeconv/UtcText.hpp"

namespace tsappinstall::repository {
namespace {

[[noreturn]] void refuse(const std::string& why) {
    throw Error(FaultKind::BadIndex, why);
}

Json products(const std::vector<Product>& list) {
    Json out = Json::array();
    for (const Product& p : list)
        out.push_back({{"identifier", p.identifier}, {"name", p.name}, {"version", p.version}});
    return out;
}

}  // namespace

Json entryJson(const PackageEntry& e) {
    Json out = {{"file", e.file},
                {"size", e.size},
                {"sha256", e.sha256},
                {"guid", e.guid},
                {"name", e.name},
                {"version", e.version},
                {"summary", e.summary},
                {"description", e.description},
                {"author",
                 {{"name", e.authorName},
                  {"contact", e.authorContact},
                  {"organization", e.authorOrganization}}},
                {"release", {{"min", e.minRelease}, {"max", e.maxRelease}}},
                {"platforms", e.platforms},
                {"requiredProducts", products(e.requiredProducts)}};
    if (!e.signer.empty())
        out["signer"] = {{"subject", e.signer}, {"fingerprint", e.signerFingerprint}};
    if (!e.signerKey.empty()) out["signer"]["key"] = e.signerKey;
    if (!e.icon.empty()) out["icon"] = e.icon;
    if (!e.screenshot.empty()) out["screenshot"] = e.screenshot;
    if (!e.digestList.empty())
        out["digests"] = {{"item", e.digestList}, {"sha256", e.digestListSha256}};
    return out;
}

namespace {

// Typed reads that name the member a hostile index got wrong.
const Json& member(const Json& object, const char* name, Json::value_t type, bool optional,
                   const Json& missing) {
    const auto found = object.find(name);
    if (found == object.end()) {
        if (optional) return missing;
        refuse(std::string("the member \"") + name + "\" is missing");
    }
    const bool numberOk =
        type == Json::value_t::number_unsigned && found->type() == Json::value_t::number_unsigned;
    if (!numberOk && found->type() != type)
        refuse(std::string("the member \"") + name + "\" has the wrong type");
    return *found;
}

std::string text(const Json& object, const char* name, bool optional = false) {
    static const Json empty = "";
    return member(object, name, Json::value_t::string, optional, empty).get<std::string>();
}

std::uint64_t number(const Json& object, const char* name) {
    static const Json zero = 0u;
    return member(object, name, Json::value_t::number_unsigned, false, zero).get<std::uint64_t>();
}

const Json& object(const Json& parent, const char* name, bool optional = false) {
    static const Json empty = Json::object();
    return member(parent, name, Json::value_t::object, optional, empty);
}

std::vector<std::string> texts(const Json& parent, const char* name) {
    static const Json none = Json::array();
    std::vector<std::string> out;
    for (const Json& item : member(parent, name, Json::value_t::array, false, none)) {
        if (!item.is_string()) refuse(std::string("\"") + name + "\" lists a non-text");
        out.push_back(item.get<std::string>());
    }
    return out;
}

bool isHex64(const std::string& s) {
    return s.size() == 64 && std::all_of(s.begin(), s.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

void checkFileName(const std::string& file) {
    if (!isPlainFileName(file))
        refuse("the file name \"" + file + "\" is not a plain package name");
}

void checkImagePath(const std::string& path) {
    if (path.empty()) return;
    const std::string prefix = std::string(IMAGES_FOLDER) + "/";
    const auto dot = path.rfind('.');
    const bool good =
        path.compare(0, prefix.size(), prefix) == 0 && dot != std::string::npos &&
        isHex64(path.substr(prefix.size(), dot - prefix.size())) &&
        (path.substr(dot) == ".png" || path.substr(dot) == ".jpg" || path.substr(dot) == ".svg");
    if (!good) refuse("the image path \"" + path + "\" is not one of the repository's images");
}

}  // namespace

PackageEntry readEntry(const Json& item) {
    if (!item.is_object()) refuse("a package entry is not an object");
    PackageEntry e;
    e.file = text(item, "file");
    checkFileName(e.file);
    e.size = number(item, "size");
    e.sha256 = text(item, "sha256");
    if (!isHex64(e.sha256)) refuse("the SHA-256 of " + e.file + " is not 64 hex digits");
    e.guid = text(item, "guid");
    e.name = text(item, "name");
    e.version = text(item, "version");
    e.summary = text(item, "summary", true);
    e.description = text(item, "description", true);
    const Json& author = object(item, "author", true);
    e.authorName = text(author, "name", true);
    e.authorContact = text(author, "contact", true);
    e.authorOrganization = text(author, "organization", true);
    const Json& release = object(item, "release", true);
    e.minRelease = text(release, "min", true);
    e.maxRelease = text(release, "max", true);
    e.platforms = texts(item, "platforms");
    static const Json none = Json::array();
    for (const Json& p : member(item, "requiredProducts", Json::value_t::array, true, none)) {
        if (!p.is_object()) refuse("a required product of " + e.file + " is not an object");
        e.requiredProducts.push_back(
            {text(p, "identifier"), text(p, "name", true), text(p, "version", true)});
    }
    const Json& signer = object(item, "signer", true);
    e.signer = text(signer, "subject", true);
    e.signerFingerprint = text(signer, "fingerprint", true);
    e.signerKey = text(signer, "key", true);
    if (!e.signerKey.empty() && !isHex64(e.signerKey))
        refuse("the signer's key of " + e.file + " is not 64 hex digits");
    e.icon = text(item, "icon", true);
    e.screenshot = text(item, "screenshot", true);
    checkImagePath(e.icon);
    checkImagePath(e.screenshot);
    const Json& digests = object(item, "digests", true);
    e.digestList = text(digests, "item", true);
    e.digestListSha256 = text(digests, "sha256", true);
    if (e.digestList.empty() != e.digestListSha256.empty() ||
        (!e.digestListSha256.empty() && !isHex64(e.digestListSha256)))
        refuse("the digest list of " + e.file + " is not pinned by an item and 64 hex digits");
    return e;
}

namespace {

std::int64_t time(const Json& object, const char* name) {
    const auto value = parseUtc(text(object, name));
    if (!value) refuse(std::string("\"") + name + "\" is not a UTC time");
    return *value;
}

// The manifest fields the store's compatibility check reads.
AppManifest manifestOf(const PackageEntry& entry) {
    using fl::i18n::to_ustring;
    AppManifest app;
    app.minTESSALVer = to_ustring(entry.minRelease);
    app.maxTESSALVer = to_ustring(entry.maxRelease);
    for (const auto& platform : entry.platforms)
        app.supportedPlatforms.push_back(to_ustring(platform));
    for (const Product& product : entry.requiredProducts)
        app.requiredProducts.push_back({to_ustring(product.identifier), to_ustring(product.name),
                                        to_ustring(product.version)});
    return app;
}

bool containsFolded(const std::string& haystack, const std::string& needle) {
    return fl::i18n::folded(haystack).find(fl::i18n::folded(needle)) != std::string::npos;
}

}  // namespace

bool isPlainFileName(const std::string& file) {
    const std::string suffix = ".tsappinstall";
    return file.size() > suffix.size() && file.front() != '.' &&
           file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0 &&
           std::all_of(file.begin(), file.end(), [](char c) {
               return opc::detail::is_ascii_alnum(static_cast<unsigned char>(c)) || c == '.' ||
                      c == '-' || c == '_' || c == '+' || c == '~';
           });
}

std::string signatureFileOf(std::uint64_t version) {
    return std::string(INDEX_SIGNATURES_FOLDER) + "/" + std::to_string(version) + ".p7s";
}

bool isRepositoryId(const std::string& id) {
    const auto allowed = [](char c) {
        return opc::detail::is_ascii_alnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' ||
               c == '_';
    };
    return !id.empty() && id.size() <= 64 &&
           opc::detail::is_ascii_alnum(static_cast<unsigned char>(id.front())) &&
           std::all_of(id.begin(), id.end(), allowed);
}

std::string formatIndex(const Index& index) {
    Json packages = Json::array();
    for (const PackageEntry& e : index.packages) packages.push_back(entryJson(e));
    Json out = {{"schema", index.schema}};
    if (!index.repository.empty()) out["repository"] = index.repository;
    out["version"] = index.version;
    out["generated"] = formatUtc(index.generated);
    out["expires"] = formatUtc(index.expires);
    out["packages"] = packages;
    if (!index.revokedKeys.empty()) out["revokedKeys"] = index.revokedKeys;
    return out.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

Index parseIndex(const std::string& textIn) {
    if (textIn.size() > MAX_INDEX_BYTES)
        refuse("the index is larger than " + std::to_string(MAX_INDEX_BYTES) + " bytes");
    Json root;
    try {
        root = Json::parse(textIn);
    } catch (const Json::exception& e) {
        refuse(std::string("the index is not JSON: ") + e.what());
    }
    if (!root.is_object()) refuse("the index is not a JSON object");
    Index index;
    static const Json zero = 0u;
    const Json& schema = member(root, "schema", Json::value_t::number_unsigned, false, zero);
    if (schema.get<std::uint64_t>() != INDEX_SCHEMA)
        refuse("unknown schema version " + schema.dump());
    index.repository = text(root, "repository", true);
    if (root.contains("repository") && !isRepositoryId(index.repository))
        refuse("the repository's identifier \"" + index.repository +
               "\" is not 1 to 64 letters, digits and .-_");
    index.version = number(root, "version");
    index.generated = time(root, "generated");
    index.expires = time(root, "expires");
    static const Json none = Json::array();
    for (const Json& key : member(root, "revokedKeys", Json::value_t::array, true, none)) {
        if (!key.is_string() || !isHex64(key.get<std::string>()))
            refuse("a revoked key is not 64 lower-case hex digits");
        index.revokedKeys.push_back(key.get<std::string>());
    }
    std::set<std::string> files, releases;
    for (const Json& item : member(root, "packages", Json::value_t::array, false, none)) {
        PackageEntry e = readEntry(item);
        if (!files.insert(e.file).second) refuse("the file " + e.file + " is listed twice");
        if (!releases.insert(opc::detail::ascii_lower(e.guid) + ' ' + e.version).second)
            refuse("version " + e.version + " of " + e.guid + " is listed twice");
        index.packages.push_back(std::move(e));
    }
    return index;
}

bool isCompatible(const PackageEntry& entry, const HostProfile& host) {
    return incompatibilities(entry, host).empty();
}

std::vector<std::string> incompatibilities(const PackageEntry& entry, const HostProfile& host) {
    return compat::incompatibilities(manifestOf(entry), host);
}

std::vector<const PackageEntry*> search(const Index& index, const std::string& text) {
    std::vector<const PackageEntry*> found;
    for (const PackageEntry& e : index.packages)
        if (containsFolded(e.name, text) || containsFolded(e.summary, text) ||
            containsFolded(e.authorName, text))
            found.push_back(&e);
    return found;
}

const PackageEntry* pickNewest(const Index& index, const std::string& nameOrGuid,
                               const HostProfile& host) {
    const std::string guid = opc::detail::ascii_lower(nameOrGuid);
    const PackageEntry* best = nullptr;
    for (const PackageEntry& e : index.packages) {
        if (opc::detail::ascii_lower(e.guid) != guid && e.name != nameOrGuid) continue;
        if (!isCompatible(e, host)) continue;
        if (!best || compareVersions(e.version, best->version) > 0) best = &e;
    }
    return best;
}

}  // namespace tsappinstall::repository
