#pragma once

// Whether an app fits a host: the host's Tessal release, platform and
// installed products against the release range, platforms and required
// products the app's manifest names.

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"

struct AppManifest;

namespace tsappinstall::compat {

// What a host offers. A field left empty is not checked (an app's release
// range means nothing to a host whose release is unknown); nor are
// required products when no product is named.
struct HostProfile {
    std::string release;                          // "2026.2"
    std::string platform;                         // "linux-x86_64"
    std::map<std::string, std::string> products;  // identifier -> version
};

// Compares two versions field by field, fields separated by ".": fields of
// digits only compare as numbers of any length ("2025.10" > "2025.9", "01"
// == "1"); any other field compares as bytes and sorts after every numeric
// one; a missing field counts as "0" ("1.2" == "1.2.0"). <0, 0 or >0.
TSAPP_API int compareVersions(const std::string& a, const std::string& b);

// One line per reason `app` does not fit `host`, none when it fits:
// "needs Tessal release 2025.1 or later; this host runs 2024.3".
TSAPP_API std::vector<std::string> incompatibilities(const AppManifest& app,
                                                     const HostProfile& host);

// Reads a profile written as {"release": R, "platform": P, "products":
// {"ID": "VERSION", ...}} (every member optional). Throws
// tsappinstall::Error naming the file and what is wrong with it.
TSAPP_API HostProfile readHostProfile(const std::filesystem::path& file);

// The same JSON form, members in the order above, on one line.
TSAPP_API std::string toJson(const HostProfile& host);

}  // namespace tsappinstall::compat
