#pragma once

// tsapp.json and the source folder, read and checked completely before
// anything is written: every problem is collected, so an author fixes them
// all in one round.

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "tsappinstall/manifest/AppManifest.hpp"

namespace tsapp::tool {

struct PackRequest {
    std::filesystem::path source;
    std::string guid;                   // empty: a fresh one
    std::vector<std::string> excludes;  // after SRC/.tsappignore's rules
    std::string output;                 // empty: named after the app
};

struct PackPlan {
    AppManifest manifest;  // GUID, numFiles, appEntries and created filled in
    std::filesystem::path icon, screenshot, filesRoot;
    std::string iconType, screenshotType;  // content types, by the images' bytes
    std::vector<std::string> files;        // relative UTF-8 paths below filesRoot, sorted
    std::vector<std::uint64_t> sizes;      // of icon, screenshot, then each file
    std::time_t when = 0;                  // the entries' and the manifest's time
    std::string output;                    // the package to write
    std::vector<std::string> warnings;     // "PATH: warning: ...", PATH below the source
};

// Fills `plan` from the request; returns the problems, each "FILE: what is
// wrong", FILE being "tsapp.json" (below the source folder), an option,
// an environment variable or the output (empty when the plan is good).
std::vector<std::string> planPack(const PackRequest& request, PackPlan& plan);

// 8-4-4-4-12 hex digits, the form --guid takes.
bool isGuid(const std::string& text);

}  // namespace tsapp::tool
