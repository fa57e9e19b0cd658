// Time per isAppFile call on a 50-part package, for a small and a large
// package of the same shape: opening reads the directory and the two XML
// parts only, so both should cost about the same. Beside it, in the same
// run, libzip opening the same file, with and without its consistency check
// (ZIP_CHECKCONS); the ratio is against the checked open.
//
//   bench_isappfile [iterations] [rounds]

#include <stdlib.h>
#include <unistd.h>
#include <zip.h>

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

void zip_open_and_discard(const std::string& path, int flags) {
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), flags | ZIP_RDONLY, &error);
    if (archive == nullptr) std::fprintf(stderr, "zip_open failed: %d\n", error);
    zip_discard(archive);
}

}  // namespace

int main(int argc, char** argv) {
    const int iterations = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    char folder[] = "/tmp/bench-isappfile-XXXXXX";
    if (::mkdtemp(folder) == nullptr) return 1;
    const std::string base = folder;
    struct Cleanup {
        std::string path;
        ~Cleanup() { std::filesystem::remove_all(path); }
    } cleanup{base};

    std::printf("median of %d rounds of %d calls; TZ=%s\n", rounds, iterations,
                std::getenv("TZ") != nullptr ? std::getenv("TZ") : "(unset)");
    Corvane::addons::apps::Tsappinstall facade;
    for (const std::size_t partBytes : {std::size_t(1000), std::size_t(1000000)}) {
        const std::string path = base + "/app" + std::to_string(partBytes) + ".tsappinstall";
        write_package(path, partBytes);
        const std::u16string upath(path.begin(), path.end());
        const std::vector<tsapp::bench::Row> rows = {
            {"isAppFile",
             [&] {
                 if (!facade.isAppFile(upath)) std::fprintf(stderr, "isAppFile answered false\n");
             }},
            {"peer: zip_open", [&] { zip_open_and_discard(path, 0); }},
            {"peer: zip_open with ZIP_CHECKCONS",
             [&] { zip_open_and_discard(path, ZIP_CHECKCONS); }},
        };
        const std::vector<double> us = tsapp::bench::medianMicroseconds(rows, rounds, iterations);
        std::printf("50 parts of %zu bytes beside manifest and icon, file %ju bytes:\n", partBytes,
                    static_cast<std::uintmax_t>(std::filesystem::file_size(path)));
        for (std::size_t r = 0; r < rows.size(); ++r)
            std::printf("  %-36s %8.1f us\n", rows[r].name.c_str(), us[r]);
        std::printf("  %-36s %8.2f   (goal <= 1.50)\n", "ratio isAppFile / checked zip_open",
                    us[0] / us[2]);
    }
    return 0;
}
