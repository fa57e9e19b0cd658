// Arbitrary bytes as an app package file, through every facade operation.
// Afterwards the scratch folder must hold exactly the package, the output
// files and the folders down to the destination: anything else was written
// outside the places the calls were given. The package is extracted twice
// into the same destination, so that whatever the first run left there
// (files named like the extractor's own state among them) meets the
// second, which runs on three threads through the library's extractor, as
// `tsapp extract` does. An extraction that fails must leave the destination exactly as
// it was: absent, or (for every other input) a folder holding an earlier
// version. Each input runs a second time with the CRCs of its stored
// entries made right.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>

#include "FuzzSupport.hpp"
#include "StoredCrcs.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace {

std::u16string wide(const std::string& ascii) {
    return std::u16string(ascii.begin(), ascii.end());
}

// What a failed extraction must leave in place when the folder existed.
void writeEarlierVersion(const std::string& dest) {
    std::filesystem::create_directories(dest + "/lib");
    for (const char* name : {"manifest.xml", "main.js", "lib/util.js", "keep.txt"})
        tsapp::fuzz::writeBytes(dest + "/" + name, reinterpret_cast<const std::uint8_t*>(name),
                                std::strlen(name));
}

// `folder` holds exactly `expected`.
void checkOnly(const std::string& folder, const std::set<std::string>& expected) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (!expected.count(entry.path().filename().string())) {
            // std::cerr is silenced while the calls run.
            std::fprintf(stderr, "written outside the destination: %s\n", entry.path().c_str());
            std::abort();
        }
    }
}

void checkNothingStrayed(const std::string& folder) {
    checkOnly(folder, {"app.tsappinstall", "icon.out", "part.out", "a"});
    checkOnly(folder + "/a", {"b"});
    checkOnly(folder + "/a/b", {"dest"});
}

void extractOnThreads(const std::string& package, const std::string& dest) {
    namespace q = opc::qvservices;
    opc::model::OpenedPackage opened{std::filesystem::path(package)};
    opc::extraction::Options options;
    options.threads = 3;
    opc::extraction::Extractor(opened.package(), opc::FileSystemOpsSelector(), options)
        .extractAll(dest, q::RestoreMode::AllParts, q::TransformMode::PercentDecode,
                    q::ReplaceMode::Replace);
}

void extractExpectingAllOrNothing(Corvane::addons::apps::Tsappinstall* facade,
                                  const std::string& package, const std::string& dest) {
    const auto before = tsapp::fuzz::snapshotTree(dest);
    try {
        if (facade)
            facade->extractAppFile(wide(package), wide(dest));
        else
            extractOnThreads(package, dest);
    } catch (const std::exception&) {
        if (tsapp::fuzz::snapshotTree(dest) != before) {
            std::fprintf(stderr, "a failed extraction changed the destination\n");
            std::abort();
        }
    }
}

// Every facade call on `bytes` as the package file, then the stray-write
// check; the destination is emptied for the next run.
void runEveryCall(const std::string& bytes) {
    using namespace tsapp::fuzz;
    const std::string& folder = scratchFolder();
    const std::string package = folder + "/app.tsappinstall";
    writeBytes(package, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());

    SilencedErrors quiet;
    Corvane::addons::apps::Tsappinstall facade;
    facade.isAppFile(wide(package));
    try {
        facade.getAppInfo(wide(package));
    } catch (const std::runtime_error&) {
    }
    facade.extractAppIcon(wide(package), wide(folder + "/icon.out"));
    facade.extractPartContentFromTessalApp(
        wide(package), wide(Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE),
        wide(folder + "/part.out"));
    const std::string dest = folder + "/a/b/dest";
    std::filesystem::create_directories(folder + "/a/b");
    if (bytes.size() % 2) writeEarlierVersion(dest);
    extractExpectingAllOrNothing(&facade, package, dest);
    extractExpectingAllOrNothing(nullptr, package, dest);
    checkNothingStrayed(folder);
    removeTree(folder + "/a");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    runEveryCall(bytes);
    // Once more with sound checksums, so that mutated content gets parsed.
    const std::string fixed = tsapp::fuzz::withStoredCrcsFixed(bytes);
    if (fixed != bytes) runEveryCall(fixed);
    return 0;
}
