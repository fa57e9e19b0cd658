// Arbitrary bytes as an app package file, through every facade operation.
// Afterwards the scratch folder must hold exactly the package, the output
// file and the destination folder: anything else was written outside the
// places the calls were given. Each input runs a second time with the
// CRCs of its stored entries made right.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "FuzzSupport.hpp"
#include "StoredCrcs.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"

namespace {

std::u16string wide(const std::string& ascii) {
    return std::u16string(ascii.begin(), ascii.end());
}

void checkNothingStrayed(const std::string& folder) {
    static const std::set<std::string> expected = {"app.tsappinstall", "icon.out", "part.out",
                                                   "dest"};
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (!expected.count(entry.path().filename().string())) {
            // std::cerr is silenced while the calls run.
            std::fprintf(stderr, "written outside the destination: %s\n", entry.path().c_str());
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
    try {
        facade.extractAppFile(wide(package), wide(folder + "/dest"));
    } catch (const std::runtime_error&) {
    }
    checkNothingStrayed(folder);
    removeTree(folder + "/dest");
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
