// tsapp: inspect, check, unpack and build app packages.

#include <CLI/CLI.hpp>

#include <clocale>
#include <cstdlib>
#include <iostream>

#include "Commands.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"

namespace {

using namespace tsapp::tool;

const char* kExitStatusHelp =
    "Exit status: 0 when everything asked for is good, 1 when a package is bad or the operation "
    "failed, "
    "2 for a usage error.";

}  // namespace

int main(int argc, char** argv) {
    // The library's messages follow LC_MESSAGES.
    std::setlocale(LC_ALL, "");
    // With TZ unset, every local-time conversion re-reads /etc/localtime,
    // and reading a package converts each entry's time. Naming that same
    // file once makes the C library keep what it loaded: same zone, one
    // read per process instead of one per entry.
    ::setenv("TZ", ":/etc/localtime", 0);

    CLI::App app{"Inspect, check, unpack and build app packages (.tsappinstall).", "tsapp"};
    app.footer(kExitStatusHelp);
    app.set_version_flag("--version", std::string("tsapp ") + TSAPP_VERSION);
    app.require_subcommand(1);

    std::string package, output, folder, relType, guid, key, cert;
    std::vector<std::string> packages, trust;
    bool json = false, allowUnsigned = false;
    ExtractSettings extractSettings{opc::extraction::kDefaultMaxBytes, false};
    unsigned jobs = 0;

    auto* info = app.add_subcommand("info", "Show the app's manifest.");
    info->add_option("PKG", package, "App package")->required();
    info->add_flag("--json", json, "Print one JSON object (schema in the README)");

    auto* check = app.add_subcommand(
        "check", "Check that each package is a good, correctly signed app package.");
    check->add_option("PKG", packages, "App packages")->required();
    check->add_option("-j,--jobs", jobs, "Packages checked at once (default: one per core)");

    auto* icon = app.add_subcommand("icon", "Copy the app's primary icon into a file.");
    icon->add_option("PKG", package, "App package")->required();
    icon->add_option("OUT", output, "Output file")->required();

    auto* shot = app.add_subcommand("screenshot", "Copy the app's primary screenshot into a file.");
    shot->add_option("PKG", package, "App package")->required();
    shot->add_option("OUT", output, "Output file")->required();

    auto* part =
        app.add_subcommand("part", "Copy the target of a package relationship type into a file.");
    part->add_option("PKG", package, "App package")->required();
    part->add_option("RELTYPE", relType, "Relationship type URI")->required();
    part->add_option("OUT", output, "Output file")->required();

    auto* extract =
        app.add_subcommand("extract", "Unpack every part of the package into a folder.");
    extract->add_option("PKG", package, "App package")->required();
    extract->add_option("DIR", folder, "Destination folder (created when missing)")->required();
    extract
        ->add_option("--max-size", extractSettings.maxBytes,
                     "Most bytes the parts may add up to (default 2GiB; 0: no limit)")
        ->transform(CLI::AsSizeValue(false));
    extract->add_flag("--sync", extractSettings.sync,
                      "Flush every file and folder to disk before the new files count");

    auto* recover = app.add_subcommand(
        "recover", "Complete an extraction into DIR that a crash interrupted, remove leftovers.");
    recover->add_option("DIR", folder, "Destination folder of the interrupted extraction")
        ->required();

    auto* pack = app.add_subcommand(
        "pack",
        "Build a sealed app package with content digests from a folder holding tsapp.json.");
    pack->add_option("SRC", folder, "Source folder")->required();
    pack->add_option("-o,--output", output, "Package to write")->required();
    pack->add_option("--guid", guid, "GUID of the app (default: a fresh one)");
    auto* signKey = pack->add_option("--sign", key, "Sign the digests with this PEM private key");
    auto* signCert = pack->add_option("--cert", cert, "The signer's PEM certificate (and chain)");
    signKey->needs(signCert);
    signCert->needs(signKey);

    auto* verify =
        app.add_subcommand("verify", "Check each package's content digests and author signature.");
    verify->add_option("PKG", packages, "App packages")->required();
    verify->add_option("--trust", trust, "PEM file of trusted certificates (repeatable)")
        ->allow_extra_args(false);
    verify->add_flag("--allow-unsigned", allowUnsigned,
                     "Accept a package without a signature when its digests match");

    for (CLI::App* sub : app.get_subcommands({})) sub->footer(kExitStatusHelp);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        printError(e.what());
        std::cerr << "Run 'tsapp --help' for usage.\n";
        return kUsage;
    }

    try {
        if (info->parsed()) return runInfo(package, json);
        if (check->parsed()) return runCheck(packages, jobs);
        if (icon->parsed()) return runIcon(package, output);
        if (shot->parsed()) return runScreenshot(package, output);
        if (part->parsed()) return runPart(package, relType, output);
        if (extract->parsed()) return runExtract(package, folder, extractSettings);
        if (recover->parsed()) return runRecover(folder);
        if (pack->parsed()) return runPack(folder, output, guid, key, cert);
        if (verify->parsed()) return runVerify(packages, trust, allowUnsigned);
    } catch (const std::exception& e) {
        printError(e.what());
        return kBad;
    }
    return kUsage;
}
