// tsapp verify: per package a verdict line, then every fault indented:
//
//   a.tsappinstall: OK, signed by CN=Jane Doe,O=Example
//   b.tsappinstall: BAD, signed by CN=Jane Doe,O=Example
//     digest-mismatch /files/app.js: SHA-256 is ..., the list says ...

#include <iostream>
#include <memory>

#include "Commands.hpp"
#include "tsappinstall/integrity/Verify.hpp"

namespace tsapp::tool {
namespace {

using namespace tsappinstall::integrity;

int runVerify(const std::vector<std::string>& packages, const std::vector<std::string>& trust,
              bool allowUnsigned, unsigned jobs) {
    const VerificationPolicy policy{trust, !allowUnsigned};
    int status = kGood;
    for (const std::string& path : packages) {
        const VerificationReport report = verifyPackage(path, policy, jobs);
        std::cout << path << ": " << (report.ok() ? "OK" : "BAD");
        const bool unreadable =
            !report.ok() && report.faults.front().kind == FaultKind::UnreadablePackage;
        if (!report.signer.empty())
            std::cout << ", signed by " << report.signer;
        else if (!report.isSigned && !unreadable)
            std::cout << ", unsigned";
        std::cout << '\n';
        for (const Fault& fault : report.faults) std::cout << "  " << describe(fault) << '\n';
        if (!report.ok()) status = kBad;
    }
    return status;
}

}  // namespace

std::vector<Command> addVerify(CLI::App& app) {
    struct Options {
        std::vector<std::string> packages;
        std::vector<std::string> trust;
        bool allowUnsigned = false;
        unsigned jobs = 0;
    };
    auto o = std::make_shared<Options>();
    CLI::App* verify =
        app.add_subcommand("verify", "Check each package's content digests and author signature.");
    verify->add_option("PKG", o->packages, "App packages")->required()->check(nonEmpty());
    verify->add_option("--trust", o->trust, "PEM file of trusted certificates (repeatable)")
        ->allow_extra_args(false);
    verify->add_flag("--allow-unsigned", o->allowUnsigned,
                     "Accept a package without a signature when its digests match");
    verify->add_option("-j,--jobs", o->jobs,
                       "Threads decoding and hashing each package's parts (default: one per core)");
    // Each package's verdict is printed on its own; what escapes is about
    // no one file.
    return {{verify, [o] { return runVerify(o->packages, o->trust, o->allowUnsigned, o->jobs); },
             [] { return std::string(); }}};
}

}  // namespace tsapp::tool
