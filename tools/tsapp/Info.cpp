// tsapp info: the manifest record as the library reads it. The manifest and
// its faults come from the library's package check, the whole of it, so
// that a package info shows as verified is one check calls good, and
// --no-verify can show the record of one it calls bad.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

namespace tsapp::tool {
namespace {

nlohmann::ordered_json stringList(const std::vector<std::u16string>& list) {
    auto array = nlohmann::ordered_json::array();
    for (const auto& item : list) array.push_back(utf8(item));
    return array;
}

// "2026-11-23T14:05:09+01:00": the local time with its offset from UTC.
std::string createdWithOffset(const boost::posix_time::ptime& local) {
    const std::string text = isoLocalTime(local);
    if (text.empty()) return text;
    const long minutes = (local - convertLocalTimeToUTC(local)).total_seconds() / 60;
    char offset[32];
    std::snprintf(offset, sizeof offset, "%c%02ld:%02ld", minutes < 0 ? '-' : '+',
                  std::labs(minutes) / 60, std::labs(minutes) % 60);
    return text + offset;
}

nlohmann::ordered_json toJson(const AppManifest& m) {
    nlohmann::ordered_json products = nlohmann::ordered_json::array();
    for (const auto& p : m.requiredProducts)
        products.push_back({{"identifier", utf8(p.identifier)},
                            {"name", utf8(p.name)},
                            {"version", utf8(p.version)}});
    const std::string created = createdWithOffset(m.created);
    return {
        {"GUID", m.GUID},
        {"entryPoint", utf8(m.entryPoint)},
        {"name", utf8(m.name)},
        {"version", utf8(m.version)},
        {"createdByTESSALRelease", utf8(m.createdByTESSALRelease)},
        {"summary", utf8(m.summary)},
        {"description", utf8(m.description)},
        {"minTESSALVer", utf8(m.minTESSALVer)},
        {"maxTESSALVer", utf8(m.maxTESSALVer)},
        {"author",
         {{"name", utf8(m.authorName)},
          {"contact", utf8(m.authorContact)},
          {"organization", utf8(m.authorOrganization)}}},
        {"supportedPlatforms", stringList(m.supportedPlatforms)},
        {"requiredProducts", products},
        {"pathEntries", stringList(m.pathEntries)},
        {"numFiles", m.numFiles},
        {"created",
         created.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(created)},
        {"appEntries", stringList(m.appEntries)},
    };
}

std::string joined(const std::vector<std::u16string>& list) {
    std::string out;
    for (const auto& item : list) out += (out.empty() ? "" : ", ") + utf8(item);
    return out.empty() ? "-" : out;
}

void printLine(const char* label, const std::string& value) {
    std::cout << label << (value.empty() ? "-" : fl::i18n::shown(value)) << '\n';
}

void printHuman(const AppManifest& m, const std::string& signature) {
    printLine("Name:              ", utf8(m.name));
    printLine("Version:           ", utf8(m.version));
    printLine("GUID:              ", m.GUID);
    printLine("Entry point:       ", utf8(m.entryPoint));
    printLine("Summary:           ", utf8(m.summary));
    printLine("Description:       ", utf8(m.description));
    printLine("Tessal releases:   ", utf8(m.minTESSALVer) + " to " + utf8(m.maxTESSALVer));
    printLine("Created by Tessal: ", utf8(m.createdByTESSALRelease));
    std::string author = utf8(m.authorName);
    if (!m.authorContact.empty()) author += " <" + utf8(m.authorContact) + ">";
    if (!m.authorOrganization.empty()) author += ", " + utf8(m.authorOrganization);
    printLine("Author:            ", author);
    printLine("Platforms:         ", joined(m.supportedPlatforms));
    std::string products;
    for (const auto& p : m.requiredProducts)
        products += (products.empty() ? "" : ", ") + utf8(p.identifier) + " (" + utf8(p.name) +
                    ") " + utf8(p.version);
    printLine("Requires:          ", products);
    printLine("Path entries:      ", joined(m.pathEntries));
    printLine("Files:             ", std::to_string(m.numFiles));
    printLine("Created:           ", createdWithOffset(m.created));
    printLine("Signed by:         ", signature);
    for (const auto& entry : m.appEntries)
        std::cout << "  " << fl::i18n::shown(utf8(entry)) << '\n';
}

namespace integrity = tsappinstall::integrity;

// The signature is checked against no trust anchor: every sound one has
// the signer untrusted, which info does not count as a fault of its own.
std::optional<integrity::VerificationReport> signatureOf(const std::string& package) {
    integrity::VerificationReport report = integrity::verifySignature(package, {{}, false});
    if (!report.isSigned) return std::nullopt;
    auto& faults = report.faults;
    faults.erase(std::remove_if(faults.begin(), faults.end(),
                                [](const auto& f) {
                                    return f.kind == tsappinstall::FaultKind::UntrustedSigner;
                                }),
                 faults.end());
    return report;
}

nlohmann::ordered_json signatureJson(const std::optional<integrity::VerificationReport>& report) {
    if (!report) return nullptr;
    return {{"signer", report->signer},
            {"fingerprint", report->certificate.fingerprint},
            {"notBefore", report->certificate.notBefore},
            {"notAfter", report->certificate.notAfter},
            {"fault", report->ok() ? std::string() : describe(report->faults.front())}};
}

std::string signatureText(const std::optional<integrity::VerificationReport>& report) {
    if (!report) return "-";
    const auto& certificate = report->certificate;
    std::string text = report->signer + " (SHA-256 " + certificate.fingerprint + ", valid " +
                       certificate.notBefore + " to " + certificate.notAfter + ")";
    return text + (report->ok() ? "; the signer is not checked here: tsapp verify --trust"
                                : "; BROKEN: " + describe(report->faults.front()));
}

int runInfo(const std::string& package, bool json, bool verify) {
    AppManifestSerializer serializer;
    const auto report = tsappinstall::inspect::checkPackage(package, serializer);
    printWarnings(package, report.warnings);
    if (!report.manifest || (verify && !report.good()))
        throw Failure(package, report.faults.front().detail);
    const std::string fault = report.good() ? "" : report.faults.front().detail;
    const auto signature = signatureOf(package);
    if (json) {
        auto object = toJson(*report.manifest);
        object["signature"] = signatureJson(signature);
        object["verified"] = report.good();
        if (!report.good()) object["fault"] = fault;
        std::cout << object.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                  << '\n';
    } else {
        if (!report.good()) std::cout << "NOT VERIFIED: " << fl::i18n::shown(fault) << '\n';
        printHuman(*report.manifest, signatureText(signature));
    }
    return kGood;
}

}  // namespace

std::vector<Command> addInfo(CLI::App& app) {
    const auto json = std::make_shared<bool>(false), noVerify = std::make_shared<bool>(false);
    const PackageCommand info = addPackageCommand(app, "info", "Show the app's manifest.");
    info.cli->add_flag("--json", *json, "Print one JSON object (see JSON OUTPUT in tsapp(1))");
    info.cli->add_flag("--no-verify", *noVerify,
                       "Show the manifest of a package the check calls bad, marked NOT VERIFIED");
    return {info.running(
        [=](const std::string& package) { return runInfo(package, *json, !*noVerify); })};
}

}  // namespace tsapp::tool
