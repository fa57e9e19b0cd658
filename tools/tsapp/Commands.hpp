#pragma once

// The tool's commands. Each command file adds its commands to the app,
// with the options they own, and says how to run each once the command
// line named it. Running returns the process exit status:
// 0 all good, 1 a package is bad or the operation failed, 2 usage error.

#include <CLI/CLI.hpp>

#include <functional>
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

// For paths: an empty one would otherwise mean the current folder.
inline const CLI::Validator& nonEmpty() {
    static const CLI::Validator validator(
        [](std::string& value) { return value.empty() ? std::string("must not be empty") : ""; },
        "", "");
    return validator;
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
