// Time of one getAppInfo on a typical package (50 parts, a 2 KB manifest)
// beside the work no reader of that package can avoid, measured in the same
// run: opening the ZIP as a package, compiling the schema (constructing a
// serializer), and parsing, validating and verifying the manifest once on an
// existing serializer. The ratio shows what the facade adds on top.
//
//   bench_getappinfo [iterations]

#include <stdlib.h>

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
    const int iterations = argc > 1 ? std::atoi(argv[1]) : 500;
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
    std::printf("package: 50 parts, %ju bytes; manifest %zu bytes; %d iterations\n",
                static_cast<std::uintmax_t>(std::filesystem::file_size(path)), manifest.size(),
                iterations);

    volatile std::size_t sink = 0;
    Corvane::addons::apps::Tsappinstall facade;
    const double whole = tsapp::bench::microsecondsPerCall("getAppInfo", iterations, [&] {
        sink = sink + facade.getAppInfo(upath).appEntries.size();
    });
    const double open = tsapp::bench::microsecondsPerCall(
        "open: ZipPhysicalPackage + Package::open", iterations, [&] {
            opc::model::OpenedPackage package(upath);
            sink = sink + package->getPartNames().size();
            package.close();
        });
    const double compile = tsapp::bench::microsecondsPerCall(
        "schema: construct AppManifestSerializer", iterations, [&] {
            AppManifestSerializer serializer;
            sink = sink + 1;
        });
    AppManifestSerializer serializer;
    const std::string text(manifest.begin(), manifest.end());
    const double load = tsapp::bench::microsecondsPerCall(
        "manifest: load on an existing serializer", iterations, [&] {
            std::istringstream in(text);
            opc::StdIStreamAdaptor stream(in);
            AppManifest back;
            serializer.load(stream, back);
            sink = sink + back.appEntries.size();
        });
    const double floor = open + compile + load;
    std::printf("%-52s %9.1f us\n", "sum of the unavoidable parts", floor);
    std::printf("%-52s %9.2f\n", "ratio getAppInfo / sum", whole / floor);
    return 0;
}
