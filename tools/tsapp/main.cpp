// tsapp: inspect, check, unpack and build app packages.

#include <CLI/CLI.hpp>

#include <clocale>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

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

    std::vector<Command> commands;
    for (auto add :
         {addInfo, addCheck, addList, addSinglePart, addExtract, addPack, addVerify, addRepo}) {
        for (Command& command : add(app)) commands.push_back(std::move(command));
    }

    std::string topic;
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

    for (const Command& command : commands) {
        if (!command.cli->parsed()) continue;
        // Failures name the file they are about; anything the command does
        // not attribute itself is about its subject.
        const std::string subject = command.subject();
        try {
            return command.run();
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
    }
    return kUsage;
}
