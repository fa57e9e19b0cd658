// Time of one getAppInfo on a typical package (50 parts, a 2 KB manifest)
// beside the work no reader of that package can avoid, measured in the same
// run: opening the ZIP as a package, and parsing, validating and verifying
// the manifest once on an existing serializer. The ratio shows what the
// facade adds on top. The schema is compiled once per process, by the first
// serializer; that one-off cost is printed first.
//
//   bench_getappinfo [iterations] [rounds]

#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "BenchSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"

namespace {

using opc::zippackage::PackageWriter;

std::vector<unsigned char> savedManifest(const AppManifest& record) {
    AppManifestSerializer serializer;
    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    serializer.save(out, record);
    return bytes;
}

void writePackage(const std::string& path, const std::vector<unsigned char>& manifest) {
    using namespace Corvane::addons::apps;
    PackageWriter writer(path);
    writer.addPart("manifest.xml", "application/xml", manifest);
    writer.addPart("icon.png", "image/png", tsapp::bench::filler(10000, 2),
                   PackageWriter::Compression::Stored);
    for (int i = 0; i < 48; ++i) {
        writer.addPart("files/lib/module" + std::to_string(i) + ".js", "application/javascript",
                       tsapp::bench::filler(1000, 10 + i));
    }
    writer.addRelationship("rManifest", APP_PROPERTIES_RELATIONSHIP_TYPE, "/manifest.xml");
    writer.addRelationship("rIcon", PRIMARY_ICON_RELATIONSHIP_TYPE, "/icon.png");
    writer.setModificationTime(1600000000);
    writer.commit();
}

}  // namespace

int main(int argc, char** argv) {
    const int iterations = argc > 1 ? std::atoi(argv[1]) : 300;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    const auto firstStart = std::chrono::steady_clock::now();
    { AppManifestSerializer first; }
    const std::chrono::duration<double, std::micro> first =
        std::chrono::steady_clock::now() - firstStart;

    char folder[] = "/tmp/bench-getappinfo-XXXXXX";
    if (::mkdtemp(folder) == nullptr) return 1;
    struct Cleanup {
        std::string path;
        ~Cleanup() { std::filesystem::remove_all(path); }
    } cleanup{folder};

    AppManifest record = tsapp::bench::typicalRecord(18);  // a 2 KB manifest
    record.numFiles = 48;
    const std::vector<unsigned char> manifest = savedManifest(record);
    const std::string path = cleanup.path + "/app.tsappinstall";
    writePackage(path, manifest);
    const std::u16string upath(path.begin(), path.end());
    std::printf("package: 50 parts, %ju bytes; manifest %zu bytes; median of %d rounds of %d\n",
                static_cast<std::uintmax_t>(std::filesystem::file_size(path)), manifest.size(),
                rounds, iterations);

    volatile std::size_t sink = 0;
    Corvane::addons::apps::Tsappinstall facade;
    AppManifestSerializer serializer;
    const std::string text(manifest.begin(), manifest.end());
    const std::vector<tsapp::bench::Row> rows = {
        {"getAppInfo", [&] { sink = sink + facade.getAppInfo(upath).appEntries.size(); }},
        {"open: ZipPhysicalPackage + Package::open",
         [&] {
             opc::model::OpenedPackage package(upath);
             sink = sink + package->getPartNames().size();
             package.close();
         }},
        {"load: on an existing serializer",
         [&] {
             std::istringstream in(text);
             opc::StdIStreamAdaptor stream(in);
             AppManifest back;
             serializer.load(stream, back);
             sink = sink + back.appEntries.size();
         }},
        {"construct a serializer (schema compiled)",
         [&] {
             AppManifestSerializer fresh;
             sink = sink + 1;
         }},
    };
    const std::vector<double> us = tsapp::bench::medianMicroseconds(rows, rounds, iterations);
    const double floor = us[1] + us[2];
    std::printf("%-44s %9.1f us (once per process)\n", "first serializer: compiles the schema",
                first.count());
    for (std::size_t r = 0; r < rows.size(); ++r)
        std::printf("%-44s %9.1f us\n", rows[r].name.c_str(), us[r]);
    std::printf("%-44s %9.1f us\n", "floor: open + load", floor);
    std::printf("%-44s %9.2f   (goal <= 1.10)\n", "ratio getAppInfo / floor", us[0] / floor);
    return 0;
}
