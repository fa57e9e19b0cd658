#include "tsappinstall/inspect/PackageCheck.hpp"
#include "OpenedCheck.hpp"

#include "integrity/PackageIntegrity.hpp"
#include "platform/opc/ItemLoop.hpp"
#include "tsappinstall/integrity/Digests.hpp"

#include <algorithm>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_set>
#include <utility>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/ManifestFault.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/filesystem/Path.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"
#include "tsappinstall/platform/opc/XercesHelper.hpp"

namespace tsappinstall::inspect {
namespace {

namespace apps = Corvane::addons::apps;
namespace integrity = tsappinstall::integrity;
using integrity::DigestCheck;
using opc::model::PartName;

// The folder the packer puts app files in, and where it puts the manifest:
// packages with that manifest and that folder are held to its layout.
const char* const kAppFilesFolder = "/files/";
const char* const kPackedManifest = "/manifest.xml";

// The check's faults keep their whole line in `detail` (PackageCheck.hpp).
void add(Report& report, FaultKind kind, std::string line) {
    report.faults.push_back({kind, {}, std::move(line)});
}

// The package's digest list, when it has one; its faults otherwise.
std::optional<DigestCheck> digestCheckOf(opc::model::Package& package,
                                         std::vector<integrity::Fault>& faults) {
    if (!integrity::listsDigests(package)) return std::nullopt;
    const auto list = integrity::readDigestList(package, faults);
    if (!list || !list->list) return std::nullopt;
    return std::make_optional<DigestCheck>(*list->list);
}

// The manifest is decoded with every part and then parsed: pinned, it is
// read from the file once. One too large to pin fails its parse anyway.
void pinManifest(opc::model::Package& package) {
    const auto found = package.getRelationshipsByType(
        fl::i18n::to_ustring(apps::APP_PROPERTIES_RELATIONSHIP_TYPE));
    try {
        if (found.size() != 1) return;
        opc::model::Part part = package.getPart(PartName(found.front().getTargetURI()));
        if (part.getEntry().size <= opc::model::XercesHelper::kMaxDocumentBytes)
            part.pin(opc::model::XercesHelper::kMaxDocumentBytes);
    } catch (const opc::Exception&) {
        // no such part, or it cannot be read: the manifest's own check says so
    }
}

// The parts that could not be read, from every thread of the read, with
// their place in the package.
struct Unreadable {
    std::mutex mutex;
    std::vector<std::pair<std::size_t, std::string>> lines;

    void note(std::size_t order, std::string line) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.emplace_back(order, std::move(line));
    }
    void report(Report& report) {
        std::sort(lines.begin(), lines.end());
        for (auto& line : lines) add(report, FaultKind::UnreadableItem, std::move(line.second));
    }
};

// Decodes every part, so that its size and CRC-32 are checked, and in the
// same read checks the items against the package's digest list, if any.
// One per thread of the read.
class CheckSink : public opc::model::ItemSink {
  public:
    CheckSink(DigestCheck* digests, const std::vector<PartName>& unlisted, Unreadable& unreadable)
        : digests_(digests), unlisted_(unlisted), unreadable_(unreadable) {}

    bool begin(const std::string& item, opc::model::Part* part, std::size_t order) override {
        item_ = item;
        order_ = order;
        // The content types were read whole when the package opened.
        if (digests_ && (part == nullptr || std::find(unlisted_.begin(), unlisted_.end(),
                                                      part->getPartName()) == unlisted_.end()))
            hashing_.emplace(*digests_, item, order);
        return part != nullptr || hashing_;
    }
    void update(const unsigned char* data, std::size_t size) override {
        if (hashing_) hashing_->update(data, size);
    }
    void end() override {
        if (hashing_) hashing_->end();
        hashing_.reset();
    }
    void fail(const opc::Exception& error) override {
        if (hashing_) hashing_->abandon(error.what());
        hashing_.reset();
        unreadable_.note(order_,
                         describe(FaultKind::UnreadableItem) + (" " + item_) + ": " + error.what());
    }

  private:
    DigestCheck* digests_;
    const std::vector<PartName>& unlisted_;
    Unreadable& unreadable_;
    std::string item_;
    std::size_t order_ = 0;
    std::optional<DigestCheck::Item> hashing_;
};

// Returns the digest faults: they are reported after the others, which
// name the cause more plainly (a removed app file, a changed manifest).
std::vector<Fault> decodeEveryPart(opc::model::Package& package, unsigned threads, Report& report) {
    std::vector<integrity::Fault> found;
    std::optional<DigestCheck> digests = digestCheckOf(package, found);
    const std::vector<PartName> unlisted = integrity::integrityParts(package);
    Unreadable unreadable;
    const opc::model::SinksPerThread<CheckSink> sinks(
        opc::model::threadCount(threads), [&](unsigned) {
            return std::make_unique<CheckSink>(digests ? &*digests : nullptr, unlisted, unreadable);
        });
    opc::model::readEveryItem(package, sinks.sinks);
    unreadable.report(report);
    if (digests) {
        const auto& more = digests->finish();
        found.insert(found.end(), more.begin(), more.end());
    }
    std::vector<Fault> faults;
    for (const integrity::Fault& fault : found) {
        if (fault.kind == FaultKind::UnreadableItem) continue;  // a damaged part
        faults.push_back({fault.kind, {}, describe(fault)});
    }
    return faults;
}

std::string manifestText(ManifestFault fault, const std::string& text) {
    switch (fault) {
        case ManifestFault::Unreadable:
            return "the manifest cannot be read: " + text;
        case ManifestFault::MalformedXml:
            return "the manifest is not well-formed XML: " + text;
        case ManifestFault::InvalidXml:
            return "the manifest does not match the schema: " + text;
        case ManifestFault::BadFileCount:
            return "bad file count in the manifest (numFiles is not a decimal number)";
        default:
            return "the manifest's seal is missing or wrong";
    }
}

// The check names a manifest that does not read a bad manifest, whatever
// the reason; a wrong seal or file count keeps its own kind.
FaultKind manifestKind(ManifestFault fault) {
    const FaultKind kind = kindOf(fault);
    return kind == FaultKind::BadSeal || kind == FaultKind::WrongFileCount ? kind
                                                                           : FaultKind::BadManifest;
}

// Hashes what the manifest's reader takes, so that a caller can tell the
// checked manifest from any other by its bytes.
class HashingStream final : public opc::InputStream {
  public:
    explicit HashingStream(opc::InputStream& inner) : inner_(inner) {}
    std::size_t read(unsigned char* buffer, std::size_t size) override {
        const std::size_t n = inner_.read(buffer, size);
        sha_.update(buffer, n);
        return n;
    }
    std::string finishHex() {
        unsigned char rest[4096];
        while (read(rest, sizeof rest) > 0) {
        }
        return sha_.finishHex();
    }

  private:
    opc::InputStream& inner_;
    integrity::Sha256 sha_;
};

// Returns the manifest's part name, empty when there is no single one;
// the SHA-256 of the manifest's bytes in `manifestSha256` when given.
std::string readManifest(opc::model::Package& package, AppManifestSerializer& serializer,
                         Report& report, std::string* manifestSha256 = nullptr) {
    const auto found = package.getRelationshipsByType(
        fl::i18n::to_ustring(apps::APP_PROPERTIES_RELATIONSHIP_TYPE));
    if (found.size() != 1) {
        add(report, FaultKind::NoManifest,
            "no single manifest relationship (found " + std::to_string(found.size()) + ")");
        return {};
    }
    try {
        const PartName name(found.front().getTargetURI());
        opc::model::Part part = package.getPart(name);
        AppManifest record;
        std::string text;
        HashingStream stream(part.getInputStream());
        const ManifestFault fault = loadManifest(serializer, stream, record, text);
        if (manifestSha256) *manifestSha256 = stream.finishHex();
        if (fault == ManifestFault::None || fault == ManifestFault::BadSignature)
            report.manifest = std::move(record);
        if (fault != ManifestFault::None)
            add(report, manifestKind(fault), manifestText(fault, text));
        return name.ascii();
    } catch (const opc::Exception& e) {
        add(report, FaultKind::NoManifest, std::string("the manifest part: ") + e.what());
        return {};
    }
}

void checkRelationship(opc::model::Package& package, const char* type, const char* what,
                       Report& report) {
    for (const auto& relationship : package.getRelationshipsByType(fl::i18n::to_ustring(type))) {
        try {
            if (package.containsPart(PartName(relationship.getTargetURI()))) continue;
        } catch (const opc::Exception&) {
            // a target that cannot be a part name names no part either
        }
        add(report, FaultKind::BrokenRelationship,
            std::string("the ") + what + " relationship names no part (" +
                fl::i18n::to_string(relationship.getTarget()) + ")");
    }
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

// The packer writes app entry E as the part /files/E and nothing else there.
void checkPackedLayout(opc::model::Package& package, const std::vector<PartName>& parts,
                       const AppManifest& manifest, Report& report) {
    std::unordered_set<std::string> listed;
    listed.reserve(manifest.appEntries.size());
    for (const auto& entry : manifest.appEntries) {
        const std::string path = fl::i18n::to_string(entry);
        try {
            // forPath() gives ASCII, so the name needs no round trip
            // through UTF-16.
            const PartName name =
                PartName::fromZipItemName(PartName::forPath(kAppFilesFolder + 1 + path).substr(1));
            listed.insert(name.key());
            if (package.containsPart(name)) continue;
        } catch (const opc::Exception&) {
            // an entry that cannot be a part name cannot be a part either
        }
        add(report, FaultKind::MissingAppFile,
            "the app entry " + path + " is not a part of the package");
    }
    for (const PartName& name : parts) {
        if (!startsWith(name.ascii(), kAppFilesFolder)) continue;
        if (!listed.count(name.key()))
            add(report, FaultKind::UnlistedAppFile,
                "the part " + name.ascii() + " is not among the app entries");
    }
}

bool followsPackedLayout(const std::vector<PartName>& parts, const std::string& manifestPart) {
    if (manifestPart != kPackedManifest) return false;
    return std::any_of(parts.begin(), parts.end(), [](const PartName& name) {
        return startsWith(name.ascii(), kAppFilesFolder);
    });
}

void checkAgainstManifest(opc::model::Package& package, const std::vector<PartName>& parts,
                          const std::string& manifestPart, Report& report) {
    const AppManifest& manifest = *report.manifest;
    if (manifest.numFiles != manifest.appEntries.size())
        add(report, FaultKind::WrongFileCount,
            "numFiles is " + std::to_string(manifest.numFiles) + " but the manifest lists " +
                std::to_string(manifest.appEntries.size()) + " app entries");
    if (followsPackedLayout(parts, manifestPart))
        checkPackedLayout(package, parts, manifest, report);
}

// Such a part would stand in the destination where the extractor looks
// for its own staging folders and journals.
void checkReservedNames(const std::vector<PartName>& parts, Report& report) {
    for (const PartName& name : parts)
        if (opc::extraction::isReservedPartName(name.ascii()))
            add(report, FaultKind::ReservedName,
                describe(FaultKind::ReservedName) + (" " + name.ascii()) +
                    ": the extractor keeps its own state under names beginning with \".~tsapp\"");
}

// The kind first ("cannot be read", "not a ZIP file"), then the detail.
void addUnreadable(Report& report, const opc::Exception& e) {
    const std::string kind =
        e.reason() == opc::Reason::Other ? std::string() : std::string(describe(e.reason())) + ": ";
    add(report, FaultKind::UnreadablePackage,
        describe(FaultKind::UnreadablePackage) + (": " + kind) + e.what());
}

}  // namespace

namespace detail {

Report checkPackage(const std::filesystem::path& path, AppManifestSerializer& serializer,
                    bool decodeParts, unsigned threads,
                    std::optional<opc::model::OpenedPackage>& opened, std::string* manifestSha256,
                    const std::set<std::string>& leftOut) {
    Report report;
    if (path.extension() != std::string(".") + apps::APP_FILE_EXTENSION) {
        add(report, FaultKind::NotAppFile,
            describe(FaultKind::NotAppFile) + std::string(": the extension is not .tsappinstall"));
        return report;
    }
    try {
        opened.emplace(path, leftOut);
        report.warnings = opened->warnings();
        opc::model::Package& package = opened->package();
        const std::vector<PartName> parts = package.getPartNames();
        checkReservedNames(parts, report);
        std::vector<Fault> digestFaults;
        if (decodeParts) {
            pinManifest(package);
            digestFaults = decodeEveryPart(package, threads, report);
        }
        const std::string manifestPart = readManifest(package, serializer, report, manifestSha256);
        checkRelationship(package, apps::PRIMARY_ICON_RELATIONSHIP_TYPE, "icon", report);
        checkRelationship(package, apps::PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, "screenshot",
                          report);
        if (report.manifest) checkAgainstManifest(package, parts, manifestPart, report);
        report.faults.insert(report.faults.end(), digestFaults.begin(), digestFaults.end());
    } catch (const opc::Exception& e) {
        addUnreadable(report, e);
    }
    return report;
}

}  // namespace detail

Report checkPackage(const std::filesystem::path& path, AppManifestSerializer& serializer,
                    bool decodeParts, unsigned threads) {
    std::optional<opc::model::OpenedPackage> opened;
    Report report = detail::checkPackage(path, serializer, decodeParts, threads, opened, nullptr);
    try {
        if (opened) opened->close();
    } catch (const opc::Exception& e) {
        addUnreadable(report, e);
    }
    return report;
}

}  // namespace tsappinstall::inspect
