#pragma once

// The shape check and verify share: one verdict per package, judged on a
// pool of workers, printed in the order given as soon as it and all before
// it are known, then "N of M packages bad".

#include <CLI/CLI.hpp>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tsappinstall/Fault.hpp"

namespace tsapp::tool {

struct Verdict {
    bool bad = false;
    std::string text;  // what to print, possibly empty
};

struct VerdictOptions {
    unsigned jobs = 0;   // 0: one per core
    bool json = false;   // one object per line, no closing count
    bool quiet = false;  // only the bad packages; no count when none is bad
};

// PKG... of check and verify.
inline constexpr const char* kPackagesHelp = "App packages (*.tsappinstall; one may be -, stdin)";

// -j, --json and -q; `judged` says what the command does to a package:
// "checked", "verified".
void addVerdictOptions(CLI::App* command, VerdictOptions& options, const std::string& judged);

// Judges the package file at `path`, called `shown` in what it prints.
// Each worker makes its own judge, so that what a judge keeps (a compiled
// schema) is never shared between threads.
using Judge = std::function<Verdict(const std::string& path, const std::string& shown)>;

// Packages judged at once, and the threads each of those judges gives the
// parts of its package: the jobs that would find no package of their own.
struct Workers {
    unsigned packages;
    unsigned threadsEach;
};
Workers workersFor(const VerdictOptions& options, std::size_t packages);

// The exit status: 0 when no package is bad, 1 otherwise. A package "-"
// (at most one) is standard input, read before the first verdict.
int judgeAll(const std::vector<std::string>& packages, const VerdictOptions& options,
             const std::function<Judge()>& makeJudge);

// {"kind": token, "item", "text"}: a fault as check --json and verify --json
// print it.
nlohmann::ordered_json faultJson(const tsappinstall::Fault& fault);

// One line of JSON, invalid UTF-8 replaced.
std::string jsonLine(const nlohmann::ordered_json& object);

}  // namespace tsapp::tool
