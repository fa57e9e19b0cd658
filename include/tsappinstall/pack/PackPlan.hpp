#pragma once

// Packing an app from a source folder: tsapp.json (the manifest's fields),
// the icon and screenshot it names and a folder of app files. planPack
// reads and checks everything before anything is written, and collects
// every problem, so that an author fixes them all in one round; writePack
// then writes the package the plan describes.

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/manifest/AppManifest.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"

namespace tsappinstall::pack {

struct PackRequest {
    std::filesystem::path source;
    std::string guid;                   // 8-4-4-4-12 hex digits; empty: a fresh one
    std::vector<std::string> excludes;  // after SOURCE/.tsappignore's rules
    std::string output;                 // empty: NAME-VERSION.tsappinstall
    // The entries' and the manifest's time; none: SOURCE_DATE_EPOCH when
    // set (so that two builds of one folder are byte-identical), else now.
    std::optional<std::time_t> when;
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

// Fills `plan` from the request; returns the problems, each "WHERE: what
// is wrong", WHERE being "tsapp.json" (below the source folder), a field
// of the request ("guid", "when"), SOURCE_DATE_EPOCH or the output (none
// when the plan is good).
TSAPP_API std::vector<std::string> planPack(const PackRequest& request, PackPlan& plan);

struct PackWriting {
    const integrity::Signer* signer = nullptr;  // signs the digest list when given
    // Key rotation proofs (PEM) the package carries, oldest first; none
    // when empty. They mean something only in a signed package.
    std::string keyRotations;
    unsigned jobs = 0;  // as PackageWriter::setJobs
    opc::zippackage::PackageWriter::Progress progress;
};

struct WrittenPack {
    std::uint64_t size = 0;
    std::string sha256;  // 64 hex digits
};

// Writes the package of a good plan to `path` (not necessarily the plan's
// output: a caller may write elsewhere first and check before renaming):
// the manifest, the icon and screenshot stored as they are, every app file
// below files/, their relationships and the digest list. Throws
// opc::Exception, leaving nothing at `path` that was not there before.
TSAPP_API WrittenPack writePack(const PackPlan& plan, const std::string& path,
                                const PackWriting& options = {});

}  // namespace tsappinstall::pack
