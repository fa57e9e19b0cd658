#pragma once

// The tool's commands. Each command file adds its commands to the app,
// with the options they own, and says how to run each once the command
// line named it. Running returns the process exit status:
// 0 all good, 1 a package is bad or the operation failed, 2 usage error.

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tsappinstall/Fault.hpp"

namespace tsapp::tool {

enum ExitStatus { kGood = 0, kBad = 1, kUsage = 2 };

struct Command {
    CLI::App* cli = nullptr;  // parsed() once the command line named it
    std::function<int()> run;
    // The file a failure the command does not attribute itself is about.
    std::function<std::string()> subject;
};

// In the order of the help's list of commands.
std::vector<Command> addInfo(CLI::App& app);
std::vector<Command> addCheck(CLI::App& app);
std::vector<Command> addList(CLI::App& app);
std::vector<Command> addSinglePart(CLI::App& app);  // icon, screenshot, part
std::vector<Command> addExtract(CLI::App& app);     // extract, recover
std::vector<Command> addPack(CLI::App& app);
std::vector<Command> addVerify(CLI::App& app);
std::vector<Command> addRepo(CLI::App& app);  // repo index, search

// For paths: an empty one would otherwise mean the current folder.
inline const CLI::Validator& nonEmpty() {
    static const CLI::Validator validator(
        [](std::string& value) { return value.empty() ? std::string("must not be empty") : ""; },
        "", "");
    return validator;
}

// A command whose first argument, PKG, is the one package it works on and
// what its failures are about.
struct PackageCommand {
    CLI::App* cli;
    std::shared_ptr<std::string> package;

    Command running(std::function<int(const std::string& package)> run) const {
        return {cli, [package = package, run] { return run(*package); },
                [package = package] { return *package; }};
    }
};

inline PackageCommand addPackageCommand(CLI::App& app, const char* name, const char* description) {
    PackageCommand command{app.add_subcommand(name, description), std::make_shared<std::string>()};
    command.cli->add_option("PKG", *command.package, "App package")->required()->check(nonEmpty());
    return command;
}

// A failure about one file, printed as "tsapp: FILE: cause": the library's
// fault type, with the file as its item and the cause as its text.
class Failure : public tsappinstall::Error {
  public:
    Failure(std::string file, const std::string& cause)
        : tsappinstall::Error(
              tsappinstall::Fault{tsappinstall::FaultKind::Other, std::move(file), cause}, cause) {}
    const std::string& file() const { return fault().item; }
};

// The cause of a library failure: the package layer's kind and its text,
// or the text alone for anything else.
std::string causeOf(const std::exception& e);

// One line on stderr: "tsapp: <what>", line breaks flattened.
void printError(const std::string& what);

}  // namespace tsapp::tool
