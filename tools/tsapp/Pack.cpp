// tsapp pack: builds a sealed app package from a source folder, with its
// content digests and, when asked, the author's signature over them.
//
// The folder holds tsapp.json (the manifest fields, see the README), the
// icon and screenshot it names, and a folder of app files. Everything is
// checked before anything is written; the package is then written to a
// temporary file beside the output, given the same full check that
// `tsapp check` runs, and only renamed into place when it passes, so pack
// never leaves a package its own check rejects.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

#include "Commands.hpp"
#include "PackDescription.hpp"
#include "Text.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace tsapp::tool {
namespace {

namespace fs = std::filesystem;
using opc::zippackage::PackageWriter;

std::string contentTypeFor(const fs::path& file) {
    static const std::pair<const char*, const char*> types[] = {{".png", "image/png"},
                                                                {".jpg", "image/jpeg"},
                                                                {".jpeg", "image/jpeg"},
                                                                {".svg", "image/svg+xml"},
                                                                {".js", "application/javascript"},
                                                                {".json", "application/json"},
                                                                {".txt", "text/plain"},
                                                                {".html", "text/html"},
                                                                {".css", "text/css"},
                                                                {".xml", "application/xml"}};
    const std::string extension = file.extension().string();
    for (const auto& [ext, type] : types)
        if (extension == ext) return type;
    return "application/octet-stream";
}

std::vector<unsigned char> savedManifest(const AppManifest& manifest) {
    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    AppManifestSerializer serializer;
    serializer.save(out, manifest);
    return bytes;
}

// "N of M MB packed" on stderr, redrawn at most four times a second, and
// cleared at the end.
class ProgressLine {
  public:
    void update(std::uint64_t done, std::uint64_t total) {
        const auto now = std::chrono::steady_clock::now();
        if (now - last_ < std::chrono::milliseconds(250) && done != total) return;
        last_ = now;
        shown_ = true;
        std::fprintf(stderr, "\r%.1f of %.1f MB packed", done / 1048576.0, total / 1048576.0);
        std::fflush(stderr);
    }
    ~ProgressLine() {
        if (shown_) std::fprintf(stderr, "\r\033[K");
    }

  private:
    std::chrono::steady_clock::time_point last_{};
    bool shown_ = false;
};

struct Written {
    std::uint64_t size = 0;
    std::string sha256;
};

Written writePackage(const PackPlan& plan, const std::string& path,
                     const tsappinstall::integrity::Signer* signer, unsigned jobs) {
    using namespace Corvane::addons::apps;
    PackageWriter writer(path);
    writer.setModificationTime(plan.when);
    writer.setJobs(jobs);
    ProgressLine progress;
    if (::isatty(STDERR_FILENO))
        writer.setProgress(
            [&](std::uint64_t done, std::uint64_t total) { progress.update(done, total); });
    const std::string manifestPart =
        writer.addPart("manifest.xml", "application/xml", savedManifest(plan.manifest));
    const std::string iconPart =
        writer.addPartFromFile(plan.icon.filename().string(), contentTypeFor(plan.icon),
                               plan.icon.string(), PackageWriter::Compression::Stored);
    const std::string shotPart =
        writer.addPartFromFile(plan.screenshot.filename().string(), contentTypeFor(plan.screenshot),
                               plan.screenshot.string(), PackageWriter::Compression::Stored);
    for (const auto& file : plan.files)
        writer.addPartFromFile("files/" + file, contentTypeFor(file),
                               (plan.filesRoot / file).string());
    writer.addRelationship("manifest", APP_PROPERTIES_RELATIONSHIP_TYPE, manifestPart);
    writer.addRelationship("icon", PRIMARY_ICON_RELATIONSHIP_TYPE, iconPart);
    writer.addRelationship("screenshot", PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, shotPart);
    writer.addDigests(signer);
    writer.commit();
    return {writer.writtenSize(), writer.writtenSha256()};
}

// The package is written here first; removed unless it was renamed.
struct TemporaryPackage {
    std::string path;
    ~TemporaryPackage() {
        std::error_code ignored;
        if (!path.empty()) fs::remove(path, ignored);
    }
};

int runPack(const std::string& sourceFolder, const std::string& output, const std::string& guid,
            const std::string& keyFile, const std::string& certificateFile, unsigned jobs) {
    const fs::path destination(output);
    const std::string extension = std::string(".") + Corvane::addons::apps::APP_FILE_EXTENSION;
    if (destination.extension() != extension)
        throw Failure(output, "the package's name must end in " + extension);
    PackPlan plan;
    const std::vector<std::string> problems = planPack(sourceFolder, guid, plan);
    for (const auto& problem : problems)
        printError(problem.rfind("tsapp.json", 0) == 0 ? (fs::path(sourceFolder) / problem).string()
                                                       : problem);
    if (!problems.empty()) return kBad;
    // Read the key before writing anything: a wrong one stops the tool here.
    std::optional<tsappinstall::integrity::Signer> signer;
    try {
        if (!keyFile.empty()) signer.emplace(keyFile, certificateFile);
    } catch (const std::exception& e) {
        throw Failure(keyFile, causeOf(e));
    }

    TemporaryPackage temporary{
        (destination.parent_path() /
         ("." + destination.stem().string() + "." + std::to_string(::getpid()) + extension))
            .string()};
    // From here on a failure is about the package being written.
    Written written;
    try {
        written = writePackage(plan, temporary.path, signer ? &*signer : nullptr, jobs);
        // Every part is decoded again and checked against the digest list:
        // that is what catches a fault of the compressor or of the disk.
        AppManifestSerializer serializer;
        const auto report = tsappinstall::inspect::checkPackage(temporary.path, serializer);
        if (!report.good())
            throw std::runtime_error("the written package fails its check: " +
                                     report.faults.front().detail);
        fs::rename(temporary.path, output);
    } catch (const std::exception& e) {
        throw Failure(output, causeOf(e));
    }
    temporary.path.clear();
    std::cout << output << ": " << plan.files.size() + (signer ? 6 : 5) << " parts, "
              << written.size << " bytes, GUID " << plan.manifest.GUID << ", SHA-256 "
              << written.sha256 << '\n';
    return kGood;
}

}  // namespace

std::vector<Command> addPack(CLI::App& app) {
    struct Options {
        std::string folder;
        std::string output;
        std::string guid;
        std::string key;
        std::string cert;
        unsigned jobs = 0;
    };
    auto o = std::make_shared<Options>();
    CLI::App* pack = app.add_subcommand(
        "pack",
        "Build a sealed app package with content digests from a folder holding tsapp.json.");
    pack->add_option("SRC", o->folder, "Source folder")->required()->check(nonEmpty());
    pack->add_option("-o,--output", o->output, "Package to write (.tsappinstall)")
        ->required()
        ->check(nonEmpty());
    pack->add_option("--guid", o->guid,
                     "GUID of the app, 8-4-4-4-12 hex digits (default: a fresh one)");
    auto* signKey =
        pack->add_option("--sign", o->key, "Sign the digests with this PEM private key");
    auto* signCert =
        pack->add_option("--cert", o->cert, "The signer's PEM certificate (and chain)");
    pack->add_option("-j,--jobs", o->jobs,
                     "Files compressed at once (default: one per core); the package is the "
                     "same whatever the number");
    signKey->needs(signCert);
    signCert->needs(signKey);
    return {{pack, [o] { return runPack(o->folder, o->output, o->guid, o->key, o->cert, o->jobs); },
             [o] { return o->folder; }}};
}

}  // namespace tsapp::tool
