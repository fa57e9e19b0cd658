#include "tsappinstall/compat/Compatibility.hpp"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tsappinstall/Fault.hpp"
#include "tsappinstall/manifest/AppManifest.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsappinstall::compat {
namespace {

std::vector<std::string> fieldsOf(const std::string& version) {
    std::vector<std::string> fields;
    std::string::size_type start = 0;
    for (;;) {
        const auto dot = version.find('.', start);
        fields.push_back(version.substr(start, dot - start));
        if (dot == std::string::npos) return fields;
        start = dot + 1;
    }
}

bool numeric(const std::string& field) {
    return !field.empty() &&
           std::all_of(field.begin(), field.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int compareFields(const std::string& a, const std::string& b) {
    const bool an = numeric(a), bn = numeric(b);
    if (an != bn) return an ? -1 : 1;
    if (!an) return a.compare(b);
    // Numbers of any length: without leading zeros, the longer is larger.
    const auto as = std::min(a.find_first_not_of('0'), a.size());
    const auto bs = std::min(b.find_first_not_of('0'), b.size());
    const auto al = a.size() - as, bl = b.size() - bs;
    if (al != bl) return al < bl ? -1 : 1;
    return a.compare(as, al, b, bs, bl);
}

std::string utf8(const std::u16string& text) {
    return fl::i18n::to_string(text);
}

std::string joined(const std::vector<std::u16string>& items) {
    std::string text;
    for (const auto& item : items) text += (text.empty() ? "" : ", ") + utf8(item);
    return text;
}

void checkRelease(const AppManifest& app, const std::string& host,
                  std::vector<std::string>& reasons) {
    if (host.empty()) return;
    const std::string min = utf8(app.minTESSALVer), max = utf8(app.maxTESSALVer);
    if (!min.empty() && compareVersions(host, min) < 0)
        reasons.push_back("needs Tessal release " + min + " or later; this host runs " + host);
    if (!max.empty() && compareVersions(host, max) > 0)
        reasons.push_back("needs Tessal release " + max + " or earlier; this host runs " + host);
}

void checkPlatform(const AppManifest& app, const std::string& host,
                   std::vector<std::string>& reasons) {
    if (host.empty() || app.supportedPlatforms.empty()) return;
    for (const auto& platform : app.supportedPlatforms)
        if (utf8(platform) == host) return;
    reasons.push_back("runs on " + joined(app.supportedPlatforms) + ", not on " + host);
}

void checkProducts(const AppManifest& app, const HostProfile& host,
                   std::vector<std::string>& reasons) {
    if (host.products.empty()) return;
    for (const auto& product : app.requiredProducts) {
        const std::string id = utf8(product.identifier), wanted = utf8(product.version);
        const std::string named =
            id + (product.name.empty() ? "" : " (" + utf8(product.name) + ")");
        const auto found = host.products.find(id);
        if (found == host.products.end())
            reasons.push_back("needs product " + named + (wanted.empty() ? "" : " " + wanted) +
                              "; this host does not have it");
        else if (!wanted.empty() && compareVersions(found->second, wanted) < 0)
            reasons.push_back("needs product " + named + " " + wanted +
                              " or later; this host has " + found->second);
    }
}

[[noreturn]] void badProfile(const std::filesystem::path& file, const std::string& why) {
    throw tsappinstall::Error(tsappinstall::Fault{FaultKind::Other, file.string(), why}, why);
}

}  // namespace

int compareVersions(const std::string& a, const std::string& b) {
    auto af = fieldsOf(a), bf = fieldsOf(b);
    const auto n = std::max(af.size(), bf.size());
    af.resize(n, "0");
    bf.resize(n, "0");
    for (std::size_t i = 0; i < n; ++i) {
        const int c = compareFields(af[i], bf[i]);
        if (c != 0) return c < 0 ? -1 : 1;
    }
    return 0;
}

std::vector<std::string> incompatibilities(const AppManifest& app, const HostProfile& host) {
    std::vector<std::string> reasons;
    checkRelease(app, host.release, reasons);
    checkPlatform(app, host.platform, reasons);
    checkProducts(app, host, reasons);
    return reasons;
}

HostProfile readHostProfile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) badProfile(file, "cannot be read");
    std::ostringstream text;
    text << in.rdbuf();
    const auto json = nlohmann::json::parse(text.str(), nullptr, false);
    if (json.is_discarded() || !json.is_object()) badProfile(file, "is not a JSON object");
    HostProfile host;
    for (const auto& [key, value] : json.items()) {
        if (key == "release" && value.is_string()) {
            host.release = value.get<std::string>();
        } else if (key == "platform" && value.is_string()) {
            host.platform = value.get<std::string>();
        } else if (key == "products" && value.is_object()) {
            for (const auto& [id, version] : value.items()) {
                if (!version.is_string()) badProfile(file, "products." + id + ": not a string");
                host.products[id] = version.get<std::string>();
            }
        } else {
            badProfile(file, key + ": unknown field or wrong type");
        }
    }
    return host;
}

std::string toJson(const HostProfile& host) {
    nlohmann::ordered_json json;
    json["release"] = host.release;
    json["platform"] = host.platform;
    json["products"] = nlohmann::ordered_json::object();
    for (const auto& [id, version] : host.products) json["products"][id] = version;
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace tsappinstall::compat
