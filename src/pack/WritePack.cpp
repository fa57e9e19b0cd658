#include <utility>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/pack/PackPlan.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace tsappinstall::pack {
namespace {

namespace fs = std::filesystem;
using opc::zippackage::PackageWriter;

// An app file's content type; anything unknown is plain bytes, which is
// all the extractor needs.
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

}  // namespace

WrittenPack writePack(const PackPlan& plan, const std::string& path, const PackWriting& options) {
    using namespace Corvane::addons::apps;
    PackageWriter writer(path);
    writer.setModificationTime(plan.when);
    writer.setJobs(options.jobs);
    if (options.progress) writer.setProgress(options.progress);
    const std::string manifestPart =
        writer.addPart("manifest.xml", "application/xml", savedManifest(plan.manifest));
    const std::string iconPart =
        writer.addPartFromFile(plan.icon.filename().string(), plan.iconType, plan.icon.string(),
                               PackageWriter::Compression::Stored);
    const std::string shotPart =
        writer.addPartFromFile(plan.screenshot.filename().string(), plan.screenshotType,
                               plan.screenshot.string(), PackageWriter::Compression::Stored);
    for (const auto& file : plan.files)
        writer.addPartFromFile("files/" + file, contentTypeFor(file),
                               (plan.filesRoot / file).string());
    writer.addRelationship("manifest", APP_PROPERTIES_RELATIONSHIP_TYPE, manifestPart);
    writer.addRelationship("icon", PRIMARY_ICON_RELATIONSHIP_TYPE, iconPart);
    writer.addRelationship("screenshot", PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, shotPart);
    if (!options.keyRotations.empty()) writer.addKeyRotations(options.keyRotations);
    writer.addDigests(options.signer);
    writer.commit();
    return {writer.writtenSize(), writer.writtenSha256()};
}

}  // namespace tsappinstall::pack
