// tsapp: inspect, check, unpack and build app packages.

#include <CLI/CLI.hpp>

#include <clocale>
#include <cstdlib>
#include <iostream>
#include <string>

#include "Commands.hpp"

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

    std::string package, output, folder, relType, guid, topic, key, cert;
    std::vector<std::string> packages, trust;
    bool json = false, noVerify = false, relationships = false, allowUnsigned = false;
    CheckOptions checking;
    ExtractSettings extractSettings;

    // An empty path would otherwise mean the current folder.
    const CLI::Validator nonEmpty(
        [](std::string& value) { return value.empty() ? std::string("must not be empty") : ""; },
        "", "");

    auto* info = app.add_subcommand("info", "Show the app's manifest.");
    info->add_option("PKG", package, "App package")->required()->check(nonEmpty);
    info->add_flag("--json", json, "Print one JSON object (schema in the README)");
    info->add_flag("--no-verify", noVerify,
                   "Show a manifest whose seal or file count is wrong, marked NOT VERIFIED");

    auto* check = app.add_subcommand(
        "check", "Check every part, the manifest, its seal and the files it lists.");
    check->add_option("PKG", packages, "App packages")->required()->check(nonEmpty);
    check->add_option("-j,--jobs", checking.jobs,
                      "Packages checked at once (default: one per core)");
    check->add_flag("--json", checking.json, "One JSON object per line and package, every fault");
    check->add_flag("-q,--quiet", checking.quiet, "Print only the bad packages");
    check->add_flag("-a,--all,--verbose", checking.all, "List every fault, not only the first");

    auto* list = app.add_subcommand("list", "List the parts (and relationships) of a package.");
    list->alias("ls");
    list->add_option("PKG", package, "App package")->required()->check(nonEmpty);
    list->add_flag("-r,--relationships", relationships, "Also list every relationship");
    list->add_flag("--json", json, "Print one JSON object");

    auto* icon = app.add_subcommand("icon", "Copy the app's primary icon into a file.");
    icon->add_option("PKG", package, "App package")->required()->check(nonEmpty);
    icon->add_option("OUT", output, "Output file, - for standard output")
        ->required()
        ->check(nonEmpty);

    auto* shot = app.add_subcommand("screenshot", "Copy the app's primary screenshot into a file.");
    shot->add_option("PKG", package, "App package")->required()->check(nonEmpty);
    shot->add_option("OUT", output, "Output file, - for standard output")
        ->required()
        ->check(nonEmpty);

    auto* part =
        app.add_subcommand("part", "Copy the target of a package relationship type into a file.");
    part->add_option("PKG", package, "App package")->required()->check(nonEmpty);
    part->add_option("RELTYPE", relType, "Relationship type URI, or manifest, icon or screenshot")
        ->required()
        ->check(nonEmpty);
    part->add_option("OUT", output, "Output file, - for standard output")
        ->required()
        ->check(nonEmpty);

    auto* extract =
        app.add_subcommand("extract", "Unpack every part of the package into a folder.");
    extract->add_option("PKG", package, "App package")->required()->check(nonEmpty);
    extract->add_option("DIR", folder, "Destination folder (created when missing)")
        ->required()
        ->check(nonEmpty);
    extract->add_flag("-k,--keep", extractSettings.keep,
                      "Fail, changing nothing, when a file would be replaced");
    extract
        ->add_option("--max-size", extractSettings.maxBytes,
                     "Most bytes the parts may add up to (default: no limit but the free space)")
        ->transform(CLI::AsSizeValue(false));
    extract->add_flag("--sync", extractSettings.sync,
                      "Flush every file and folder to disk before the new files count");
    extract->add_flag("--verify", extractSettings.verify,
                      "Check the signature, then every part's digest as it is written; on any "
                      "fault change nothing");
    extract
        ->add_option("--trust", extractSettings.trust,
                     "PEM file of trusted certificates (repeatable; implies --verify)")
        ->allow_extra_args(false);
    extract->add_flag("--allow-unsigned", extractSettings.allowUnsigned,
                      "With --verify, accept a package without a signature when its digests match");

    auto* recover = app.add_subcommand(
        "recover", "Complete an extraction into DIR that a crash interrupted, remove leftovers.");
    recover->add_option("DIR", folder, "Destination folder of the interrupted extraction")
        ->required()
        ->check(nonEmpty);
    bool discard = false;
    recover->add_flag("--discard", discard,
                      "Remove staging folders of ours whose journal cannot be read");

    auto* pack = app.add_subcommand(
        "pack",
        "Build a sealed app package with content digests from a folder holding tsapp.json.");
    pack->add_option("SRC", folder, "Source folder")->required()->check(nonEmpty);
    pack->add_option("-o,--output", output, "Package to write (.tsappinstall)")
        ->required()
        ->check(nonEmpty);
    pack->add_option("--guid", guid,
                     "GUID of the app, 8-4-4-4-12 hex digits (default: a fresh one)");
    auto* signKey = pack->add_option("--sign", key, "Sign the digests with this PEM private key");
    auto* signCert = pack->add_option("--cert", cert, "The signer's PEM certificate (and chain)");
    signKey->needs(signCert);
    signCert->needs(signKey);

    auto* verify =
        app.add_subcommand("verify", "Check each package's content digests and author signature.");
    verify->add_option("PKG", packages, "App packages")->required()->check(nonEmpty);
    verify->add_option("--trust", trust, "PEM file of trusted certificates (repeatable)")
        ->allow_extra_args(false);
    verify->add_flag("--allow-unsigned", allowUnsigned,
                     "Accept a package without a signature when its digests match");

    auto* help = app.add_subcommand("help", "Show the help of a command.");
    help->add_option("CMD", topic, "Command");

    for (CLI::App* sub : app.get_subcommands({})) sub->footer(kExitStatusHelp);

    try {
        app.parse(argc, argv);
        if (help->parsed() && !topic.empty() && topic != "help") {
            CLI::App* sub = app.get_subcommand(topic);  // throws for an unknown one
            std::cout << sub->help("tsapp");
            return kGood;
        }
        if (help->parsed()) {
            std::cout << app.help();
            return kGood;
        }
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::Error& e) {
        printError(std::string(e.what()) + " (see 'tsapp --help')");
        return kUsage;
    }

    // Failures name the file they are about; anything the commands do not
    // attribute themselves is about their first argument.
    const std::string& subject = (pack->parsed() || recover->parsed()) ? folder : package;
    try {
        if (info->parsed()) return runInfo(package, json, !noVerify);
        if (check->parsed()) return runCheck(packages, checking);
        if (list->parsed()) return runList(package, relationships, json);
        if (icon->parsed()) return runPart(package, "icon", output);
        if (shot->parsed()) return runPart(package, "screenshot", output);
        if (part->parsed()) return runPart(package, relType, output);
        if (extract->parsed()) return runExtract(package, folder, extractSettings);
        if (recover->parsed()) return runRecover(folder, discard);
        if (pack->parsed()) return runPack(folder, output, guid, key, cert);
        if (verify->parsed()) return runVerify(packages, trust, allowUnsigned);
    } catch (const Failure& e) {
        printError(e.file() + ": " + e.what());
        return kBad;
    } catch (const std::exception& e) {
        printError(subject + ": " + causeOf(e));
        return kBad;
    } catch (...) {
        printError(subject + ": failed for a reason the library does not name");
        return kBad;
    }
    return kUsage;
}
