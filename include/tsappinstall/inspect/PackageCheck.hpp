#pragma once

// Everything that can be checked about an app package without a signature:
// the container, every entry's bytes, the manifest and how the package's
// parts agree with it. Tools share this one analysis (a checking command, a
// packer checking its own output, an inspector showing an unverified
// manifest), and later checks append their faults to the same report.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/manifest/AppManifest.hpp"

class AppManifestSerializer;

namespace tsappinstall::inspect {

// Stable: new kinds are added at the end.
enum class FaultKind : int {
    NotAppFile,          // the extension is not .tsappinstall
    NotPackage,          // the container or the package structure is refused
    DamagedPart,         // a part's bytes disagree with its size or CRC-32
    NoManifest,          // not exactly one manifest relationship, or no such part
    BadManifest,         // unreadable, not well-formed, or refused by the schema
    BadSignature,        // the manifest's seal is missing or wrong
    WrongFileCount,      // numFiles is not a number, or not the number of app entries
    BrokenRelationship,  // the icon or screenshot relationship names no part
    MissingAppFile,      // an app entry has no part (packer's layout only)
    UnlistedAppFile,     // a part in the app-files folder is no app entry (packer's layout)
    BadDigest,           // the parts disagree with the package's digest list
    ReservedName,        // a part takes a name the extractor keeps for its own state
};

struct Fault {
    FaultKind kind;
    std::string text;  // one line: what is wrong and where
};

struct Report {
    std::vector<Fault> faults;            // in the order found; empty when good
    std::optional<AppManifest> manifest;  // the record as read, also when its seal is wrong
    bool good() const { return faults.empty(); }
};

// A few words naming the kind: "damaged part", "missing app file".
TSAPP_API const char* describe(FaultKind kind);

// Checks the package at `path`. Every part is fully
// decoded and, when the package has a digest list, checked against it in
// the same read (its signature is verifyPackage's business), unless
// `decodeParts` is false (a reader that wants the manifest and its faults
// quickly); all faults are collected, except that a package which does
// not open stops the check there. Throws only what the serializer's load
// passes on (allocation, time conversion).
TSAPP_API Report checkPackage(const std::filesystem::path& path, AppManifestSerializer& serializer,
                              bool decodeParts = true);

}  // namespace tsappinstall::inspect
