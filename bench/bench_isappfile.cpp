// Time per isAppFile call on a 50-part package, for a small and a large
// package of the same shape: opening reads the directory and the two XML
// parts only, so both should cost about the same.
//
//   bench_isappfile [iterations]

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"

namespace {

using opc::zippackage::PackageWriter;

void write_package(const std::string& path, std::size_t partBytes) {
    using namespace Corvane::addons::apps;
    PackageWriter writer(path);
    writer.addPart("manifest.xml", "application/xml", tsapp::bench::filler(2000, 1));
    writer.addPart("icon.png", "image/png", tsapp::bench::filler(10000, 2),
                   PackageWriter::Compression::Stored);
    for (int i = 0; i < 48; ++i) {
        writer.addPart("files/lib/module" + std::to_string(i) + ".js", "application/javascript",
                       tsapp::bench::filler(partBytes, 10 + i));
    }
    writer.addRelationship("rManifest", APP_PROPERTIES_RELATIONSHIP_TYPE, "/manifest.xml");
    writer.addRelationship("rIcon", PRIMARY_ICON_RELATIONSHIP_TYPE, "/icon.png");
    writer.setModificationTime(1600000000);
    writer.commit();
}

double microseconds_per_call(const std::u16string& path, int iterations) {
    Corvane::addons::apps::Tsappinstall facade;
    for (int i = 0; i < 20; ++i) facade.isAppFile(path);  // warm the page cache and Xerces
    const auto start = std::chrono::steady_clock::now();
    int yes = 0;
    for (int i = 0; i < iterations; ++i) yes += facade.isAppFile(path) ? 1 : 0;
    const auto elapsed = std::chrono::steady_clock::now() - start;
    if (yes != iterations) std::fprintf(stderr, "isAppFile answered false\n");
    return std::chrono::duration<double, std::micro>(elapsed).count() / iterations;
}

}  // namespace

int main(int argc, char** argv) {
    const int iterations = argc > 1 ? std::atoi(argv[1]) : 2000;
    char folder[] = "/tmp/bench-isappfile-XXXXXX";
    if (::mkdtemp(folder) == nullptr) return 1;
    const std::string base = folder;
    struct Cleanup {
        std::string path;
        ~Cleanup() { std::filesystem::remove_all(path); }
    } cleanup{base};

    for (const std::size_t partBytes : {std::size_t(1000), std::size_t(1000000)}) {
        const std::string path = base + "/app" + std::to_string(partBytes) + ".tsappinstall";
        write_package(path, partBytes);
        std::u16string upath(path.begin(), path.end());
        std::printf(
            "50 parts, %8zu bytes each beside manifest and icon, file %9ju bytes: %8.1f us per "
            "isAppFile\n",
            partBytes, static_cast<std::uintmax_t>(std::filesystem::file_size(path)),
            microseconds_per_call(upath, iterations));
    }
    return 0;
}
