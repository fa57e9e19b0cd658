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

#include "tsappinstall/Fault.hpp"
#include "tsappinstall/export.hpp"
#include "tsappinstall/manifest/AppManifest.hpp"

class AppManifestSerializer;

namespace tsappinstall::inspect {

// The check's faults carry their whole line in `detail`, with `item`
// empty, since not every line takes describe()'s form: "damaged part
// /icon.png: ...", "no single manifest relationship (found 0)". A fault of
// the package's digest list keeps its own kind ("bad digest" for people)
// and has that fault's describe() as its line.
using FaultKind = tsappinstall::FaultKind;
using Fault = tsappinstall::Fault;

struct Report {
    std::vector<Fault> faults;            // in the order found; empty when good
    std::vector<std::string> warnings;    // what the container tolerated; never makes it bad
    std::optional<AppManifest> manifest;  // the record as read, also when its seal is wrong
    bool good() const { return faults.empty(); }
};

// Checks the package at `path`. Every part is fully
// decoded and, when the package has a digest list, checked against it in
// the same read (its signature is verifyPackage's business), unless
// `decodeParts` is false (a reader that wants the manifest and its faults
// quickly); all faults are collected, except that a package which does
// not open stops the check there. The parts are decoded and hashed on
// `threads` threads (0: one per core); the report is the same whatever
// their number. Throws only what the serializer's load passes on
// (allocation, time conversion).
TSAPP_API Report checkPackage(const std::filesystem::path& path, AppManifestSerializer& serializer,
                              bool decodeParts = true, unsigned threads = 1);

}  // namespace tsappinstall::inspect
