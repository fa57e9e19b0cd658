// tsapp verify: per package a verdict line, then every fault indented, then
// the count of bad packages:
//
//   a.tsappinstall: OK, signed by CN=Jane Doe,O=Example
//   b.tsappinstall: BAD, signed by CN=Jane Doe,O=Example
//     digest-mismatch /files/app.js: SHA-256 is ..., the list says ...
//   1 of 2 packages bad

#include <memory>

#include "Commands.hpp"
#include "Verdicts.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsapp::tool {
namespace {

using namespace tsappinstall::integrity;

VerificationReport verified(const std::string& path, const VerificationPolicy& policy,
                            unsigned threads) {
    try {
        requireAppFileName(path);
        return verifyPackage(path, policy, threads);
    } catch (const std::exception& e) {
        // The trust files were loaded before; anything here is this
        // package's alone.
        VerificationReport report;
        report.faults.push_back({FaultKind::UnreadablePackage, {}, causeOf(e)});
        return report;
    } catch (...) {  // on a worker thread, which nothing may leave
        VerificationReport report;
        report.faults.push_back({FaultKind::UnreadablePackage, {}, kUnnamedFailure});
        return report;
    }
}

Verdict format(const std::string& path, const VerificationReport& report,
               const VerdictOptions& options) {
    Verdict verdict{!report.ok(), {}};
    if (options.quiet && !verdict.bad) return verdict;
    if (options.json) {
        auto faults = nlohmann::ordered_json::array();
        for (const Fault& fault : report.faults) faults.push_back(faultJson(fault));
        verdict.text = jsonLine({{"package", fl::i18n::shown(path)},
                                 {"good", report.ok()},
                                 {"signed", report.isSigned},
                                 {"signer", report.signer},
                                 {"faults", faults}});
        return verdict;
    }
    verdict.text = fl::i18n::shown(path) + ": " + (report.ok() ? "OK" : "BAD");
    const bool unreadable =
        !report.ok() && report.faults.front().kind == FaultKind::UnreadablePackage;
    if (!report.signer.empty())
        verdict.text += ", signed by " + fl::i18n::shown(report.signer);
    else if (!report.isSigned && !unreadable)
        verdict.text += ", unsigned";
    verdict.text += '\n';
    for (const Fault& fault : report.faults)
        verdict.text += "  " + fl::i18n::shown(describe(fault)) + '\n';
    return verdict;
}

}  // namespace

std::vector<Command> addVerify(CLI::App& app) {
    struct Options {
        std::vector<std::string> packages;
        std::vector<std::string> trust;
        bool allowUnsigned = false;
        VerdictOptions verdicts;
    };
    auto o = std::make_shared<Options>();
    CLI::App* verify =
        app.add_subcommand("verify", "Check each package's content digests and author signature.");
    addRequired(verify, "PKG", o->packages, kPackagesHelp);
    verify->add_option("--trust", o->trust, "PEM file of trusted certificates (repeatable)")
        ->type_name("FILE")
        ->allow_extra_args(false)
        ->check(nonEmpty());
    verify->add_flag("--allow-unsigned", o->allowUnsigned,
                     "Accept a package without a signature when its digests match");
    addVerdictOptions(verify, o->verdicts, "verified");
    const auto run = [o] {
        checkTrustFiles(o->trust);
        const VerificationPolicy policy{o->trust, !o->allowUnsigned};
        const unsigned threads = workersFor(o->verdicts, o->packages.size()).threadsEach;
        return judgeAll(o->packages, o->verdicts, [o, policy, threads] {
            return [o, policy, threads](const std::string& path, const std::string& shown) {
                return format(shown, verified(path, policy, threads), o->verdicts);
            };
        });
    };
    // Each package's verdict is printed on its own; what escapes is about
    // no one file.
    return {{verify, run, [] { return std::string(); }}};
}

}  // namespace tsapp::tool
