// Arbitrary bytes as an app package file, through every facade operation.
// Afterwards the scratch folder must hold exactly the package, the output
// file and the destination folder: anything else was written outside the
// places the calls were given.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "FuzzSupport.hpp"
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tsapp::fuzz;
    const std::string& folder = scratchFolder();
    const std::string package = folder + "/app.tsappinstall";
    writeBytes(package, data, size);

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
    return 0;
}
