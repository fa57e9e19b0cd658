// tsapp check: one verdict per package, in the order given, then a count.
//
// The analysis is the library's package check; this file only formats its
// reports.

#include <memory>
#include <optional>

#include "Commands.hpp"
#include "Verdicts.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsapp::tool {
namespace {

namespace inspect = tsappinstall::inspect;

Verdict format(const std::string& path, const inspect::Report& report,
               const VerdictOptions& options, bool all) {
    Verdict verdict{!report.good(), {}};
    if (options.quiet && !verdict.bad) return verdict;
    if (options.json) {
        auto faults = nlohmann::ordered_json::array();
        for (const auto& fault : report.faults) faults.push_back(faultJson(fault));
        nlohmann::ordered_json object = {
            {"package", fl::i18n::shown(path)}, {"good", report.good()}, {"faults", faults}};
        if (!report.warnings.empty()) object["warnings"] = report.warnings;
        verdict.text = jsonLine(object);
        return verdict;
    }
    verdict.text = fl::i18n::shown(path) + ": " +
                   (report.good() ? "OK" : fl::i18n::shown(report.faults.front().detail)) + '\n';
    if (all)
        for (std::size_t i = 1; i < report.faults.size(); ++i)
            verdict.text += "  " + fl::i18n::shown(report.faults[i].detail) + '\n';
    for (const std::string& warning : report.warnings)
        verdict.text += "  warning: " + fl::i18n::shown(warning) + '\n';
    return verdict;
}

inspect::Report unchecked(const std::string& why) {
    inspect::Report report;
    report.faults.push_back(
        {inspect::FaultKind::UnreadablePackage, {}, "cannot be checked: " + why});
    return report;
}

// A judge with its own serializer, so the schema is compiled once per
// worker rather than once per package, that decodes each package's parts
// on `threads` threads.
Judge checker(const VerdictOptions& options, bool all, unsigned threads) {
    auto serializer = std::make_shared<std::optional<AppManifestSerializer>>();
    std::string setupError;
    try {
        serializer->emplace();
    } catch (const std::exception& e) {
        setupError = e.what();
    }
    return [=](const std::string& path, const std::string& shown) {
        inspect::Report report;
        try {
            report = *serializer ? inspect::checkPackage(path, **serializer, true, threads)
                                 : unchecked(setupError);
        } catch (const std::exception& e) {
            report = unchecked(e.what());
        } catch (...) {  // on a worker thread, which nothing may leave
            report = unchecked(kUnnamedFailure);
        }
        return format(shown, report, options, all);
    };
}

}  // namespace

std::vector<Command> addCheck(CLI::App& app) {
    struct Options {
        std::vector<std::string> packages;
        VerdictOptions verdicts;
        bool all = false;  // every fault, not only the first
    };
    auto o = std::make_shared<Options>();
    CLI::App* check = app.add_subcommand(
        "check", "Check every part, the manifest, its seal and the files it lists.");
    addRequired(check, "PKG", o->packages, kPackagesHelp);
    addVerdictOptions(check, o->verdicts, "checked");
    check->add_flag("-a,--all,--verbose", o->all, "List every fault, not only the first");
    // Each package's failure is reported on its own line; what escapes is
    // about no one file.
    const auto run = [o] {
        const unsigned threads = workersFor(o->verdicts, o->packages.size()).threadsEach;
        return judgeAll(o->packages, o->verdicts,
                        [o, threads] { return checker(o->verdicts, o->all, threads); });
    };
    return {{check, run, [] { return std::string(); }}};
}

}  // namespace tsapp::tool
