#pragma once

// tsapp.json, read and checked completely before anything is written: every
// problem is collected, so an author fixes them all in one round.

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "tsappinstall/manifest/AppManifest.hpp"

namespace tsapp::tool {

struct PackPlan {
    AppManifest manifest;  // GUID, numFiles, appEntries and created filled in
    std::filesystem::path icon, screenshot, filesRoot;
    std::vector<std::string> files;  // relative UTF-8 paths below filesRoot, sorted
    std::time_t when = 0;            // the entries' and the manifest's time
};

// Fills `plan` from SRC/tsapp.json; returns the problems, each
// "tsapp.json: field: what is wrong" (empty when the plan is good).
std::vector<std::string> planPack(const std::filesystem::path& source, const std::string& guid,
                                  PackPlan& plan);

}  // namespace tsapp::tool
