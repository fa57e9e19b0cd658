// tsapp: inspect, check, unpack and build app packages.

#include <CLI/CLI.hpp>

#include <clocale>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "Heap.hpp"

namespace {

using namespace tsapp::tool;

const char* kExitStatusHelp =
    "Exit status: 0 when everything asked for is good, 1 when a package is bad or the operation "
    "failed, 2 for a usage error.";

// The command the first argument names (before parsing, so that an
// unknown one is named as such rather than as a missing command).
const CLI::App* namedCommand(const CLI::App& app, int argc, char** argv) {
    if (argc < 2 || argv[1][0] == '-') return nullptr;
    for (const CLI::App* sub : app.get_subcommands({}))
        if (sub->check_name(argv[1])) return sub;
    throw CLI::ParseError(unknownCommand(app, argv[1]), CLI::ExitCodes::InvalidError);
}

// Whether the command was given --json.
bool wantsJson(const CLI::App& command) {
    const CLI::Option* json = command.get_option_no_throw("--json");
    return json != nullptr && json->count() > 0;
}

// Runs the command the command line named; its exit status.
int runNamed(const std::vector<Command>& commands) {
    for (const Command& command : commands) {
        if (!command.cli->parsed()) continue;
        jsonFailures = wantsJson(*command.cli);
        const CLI::Option* dry = command.cli->get_option_no_throw("--dry-run");
        dryRun = dry != nullptr && dry->count() > 0;
        // Failures name the file they are about; anything the command does
        // not attribute itself is about its subject.
        const std::string subject = command.subject();
        try {
            return command.run();
        } catch (const UsageError& e) {
            reportFailure(e);
            return kUsage;
        } catch (const Failure& e) {
            reportFailure(e);
            return kBad;
        } catch (const tsappinstall::Error& e) {
            reportFailure(Failure(subject, causeOf(e), e.kind()));
            return kBad;
        } catch (const std::exception& e) {
            reportFailure(Failure(subject, causeOf(e)));
            return kBad;
        } catch (...) {
            reportFailure(Failure(subject, kUnnamedFailure));
            return kBad;
        }
    }
    return kUsage;
}

// "tsapp help [CMD]": the command list, or one command's help.
int runHelp(const CLI::App& app, const std::string& topic) {
    if (topic.empty() || topic == "help") {
        // App::help() would show the help of the command just parsed: help.
        std::cout << app.get_formatter()->make_help(&app, "tsapp", CLI::AppFormatMode::Normal);
        return kGood;
    }
    for (const CLI::App* sub : app.get_subcommands({}))
        if (sub->check_name(topic)) {
            std::cout << sub->help("tsapp");
            return kGood;
        }
    printError(unknownCommand(app, topic) + " (see 'tsapp --help')");
    return kUsage;
}

}  // namespace

int main(int argc, char** argv) {
    preferLargeHeapPages();
    // The library's messages follow LC_MESSAGES.
    std::setlocale(LC_ALL, "");
    // With TZ unset, every local-time conversion re-reads /etc/localtime,
    // and reading a package converts each entry's time. Naming that same
    // file once makes the C library keep what it loaded: same zone, one
    // read per process instead of one per entry.
    ::setenv("TZ", ":/etc/localtime", 0);
    StandardOutput out;
    // Scripts ask for the version alone, and often. Building every
    // command's options would be 11% of such a run's instructions, nearly
    // all it does once its libraries are loaded. The same text as the
    // version flag below prints.
    if (argc == 2 && std::string(argv[1]) == "--version") {
        std::cout << "tsapp " << TSAPP_VERSION << '\n';
        return out.finish(kGood);
    }

    CLI::App app{"Inspect, check, unpack, build and install app packages (.tsappinstall).",
                 "tsapp"};
    app.footer(kExitStatusHelp);
    app.set_version_flag("--version", std::string("tsapp ") + TSAPP_VERSION);
    app.require_subcommand(1);

    std::vector<Command> commands;
    for (auto add : {addInfo, addCheck, addList, addSinglePart, addExtract, addPack, addVerify,
                     addStore, addFiles, addRepo, addUpgrade}) {
        for (Command& command : add(app)) commands.push_back(std::move(command));
    }

    std::string topic;
    auto* help = app.add_subcommand("help", "Show the list of commands, or one command's help.");
    help->add_option("CMD", topic, "Command");

    for (CLI::App* sub : app.get_subcommands({})) sub->footer(kExitStatusHelp);

    const CLI::App* named = nullptr;
    try {
        named = namedCommand(app, argc, argv);
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return out.finish(app.exit(e));
    } catch (const CLI::CallForVersion& e) {
        return out.finish(app.exit(e));
    } catch (const CLI::Error& e) {
        printError(usageText(e.what(), named));
        return kUsage;
    }
    return out.finish(help->parsed() ? runHelp(app, topic) : runNamed(commands));
}
