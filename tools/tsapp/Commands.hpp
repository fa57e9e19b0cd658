#pragma once

// The tool's commands. Each command file adds its commands to the app,
// with the options they own, and says how to run each once the command
// line named it. Running returns the process exit status:
// 0 all good, 1 a package is bad or the operation failed, 2 usage error.

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tsappinstall/Fault.hpp"

namespace tsapp::tool {

enum ExitStatus { kGood = 0, kBad = 1, kUsage = 2 };

// What is said of a failure that is no std::exception.
inline constexpr const char* kUnnamedFailure = "failed for a reason the library does not name";

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
std::vector<Command> addStore(CLI::App& app);  // install, installed, show, remove, rollback, audit
std::vector<Command> addRepo(CLI::App& app);   // repo index, add, list, remove; search
std::vector<Command> addUpgrade(CLI::App& app);  // outdated, upgrade
std::vector<Command> addFiles(CLI::App& app);    // files, owner, hold, unhold, history

// For paths: an empty one would otherwise mean the current folder.
inline const CLI::Validator& nonEmpty() {
    static const CLI::Validator validator(
        [](std::string& value) { return value.empty() ? std::string("must not be empty") : ""; },
        "", "");
    return validator;
}

// An option that, when given, must not be empty.
template <class Value>
CLI::Option* addNonEmpty(CLI::App* command, const char* name, Value& value,
                         const std::string& help) {
    return command->add_option(name, value, help)->check(nonEmpty());
}

// An argument the command cannot do without, never empty.
template <class Value>
CLI::Option* addRequired(CLI::App* command, const char* name, Value& value,
                         const std::string& help) {
    return addNonEmpty(command, name, value, help)->required();
}

// -j,--jobs: `what` are done at once, one per core unless said.
inline CLI::Option* addJobs(CLI::App* command, unsigned& jobs, const std::string& what) {
    return command->add_option("-j,--jobs", jobs, what + " (default: one per core)");
}

// Sizes as "500M", "2G", "4096": a count of bytes with an optional binary
// unit (K, M, G, T; "KiB" and "KB" mean K too), at most 2^64 - 1 bytes.
const CLI::Validator& sizeValue();

// Every command reads a package only from a file named *.tsappinstall:
// throws Failure otherwise.
void requireAppFileName(const std::string& package);

// The most bytes a package read from standard input may have: 4 GiB.
inline constexpr std::uint64_t kMaxStdinBytes = std::uint64_t{4} << 30;

// Runs `run` on the package file named, or for "-" on a copy of standard
// input's bytes in a private temporary folder, removed afterwards; a
// failure about that copy is about "stdin".
int withPackage(const std::string& package, const std::function<int(const std::string&)>& run);
// Whether `file` is the copy of standard input that withPackage() made.
bool isStdinCopy(const std::string& file);

// "-" is standard input in messages.
inline std::string shownPackage(const std::string& package) {
    return package == "-" ? "stdin" : package;
}

// A command whose first argument, PKG, is the one package it works on and
// what its failures are about.
struct PackageCommand {
    CLI::App* cli;
    std::shared_ptr<std::string> package;

    Command running(std::function<int(const std::string& package)> run) const {
        return {cli, [package = package, run] { return withPackage(*package, run); },
                [package = package] { return shownPackage(*package); }};
    }
};

inline PackageCommand addPackageCommand(CLI::App& app, const char* name, const char* description) {
    PackageCommand command{app.add_subcommand(name, description), std::make_shared<std::string>()};
    addRequired(command.cli, "PKG", *command.package, "App package (*.tsappinstall, - for stdin)");
    return command;
}

// A failure about one file, printed as "tsapp: FILE: cause": the library's
// fault type, with the file as its item and the cause as its text.
class Failure : public tsappinstall::Error {
  public:
    Failure(std::string file, const std::string& cause,
            tsappinstall::FaultKind kind = tsappinstall::FaultKind::Other)
        : tsappinstall::Error(tsappinstall::Fault{kind, std::move(file), cause}, cause) {}
    const std::string& file() const { return fault().item; }
};

// A command line that cannot be carried out as given (exit 2), found
// before any package is opened.
class UsageError : public Failure {
  public:
    using Failure::Failure;
};

// `unknown command "extrct"; did you mean "extract"?`
std::string unknownCommand(const CLI::App& app, const std::string& name);

// A parser's complaint as one line pointing at the help that answers it:
// the command's own when the command line named one.
std::string usageText(const std::string& complaint, const CLI::App* command);

// Loads the trust files as verification will, so that an unusable one is a
// usage error before any package is opened: throws UsageError naming it.
void checkTrustFiles(const std::vector<std::string>& files);

// "-" is standard output in messages.
std::string shownOutput(const std::string& output);

// write() until all `size` bytes are out, going on after short writes and
// EINTR; false, with errno set, when one fails.
bool writeAll(int fd, const void* data, std::size_t size);

// Standard output for the whole run, unbuffered by the C library: every
// write is checked, and finish() turns a failed one into "tsapp: stdout:
// CAUSE" and exit 1 (`>/dev/full`). One for the process: std::cout writes
// through its buffer until it is gone.
class StandardOutput {
  public:
    StandardOutput();
    ~StandardOutput();
    int finish(int status);

  private:
    class Buffer;
    std::unique_ptr<Buffer> buffer_;
    std::streambuf* previous_;
};

// The cause of a library failure: the package layer's kind and its text,
// or the text alone for anything else.
std::string causeOf(const std::exception& e);

// One line on stderr: "tsapp: <what>", line breaks flattened.
void printError(const std::string& what);

// "tsapp: FILE: cause" on stderr; for a command given --json, also one
// line on stdout for scripts: {"error":{"kind":TOKEN,"item":FILE,"detail":CAUSE}}.
void reportFailure(const Failure& failure);

// Whether the command running was given --json (set before it runs).
extern bool jsonFailures;
// Whether it was given --dry-run: it prints what it would do and changes nothing.
extern bool dryRun;

// "tsapp: FILE: warning: <text>" for each of a package's warnings.
void printWarnings(const std::string& file, const std::vector<std::string>& warnings);

}  // namespace tsapp::tool
