#pragma once

// The tool's commands. Each returns the process exit status:
// 0 all good, 1 a package is bad or the operation failed, 2 usage error.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "tsappinstall/platform/extract/Extraction.hpp"

namespace tsapp::tool {

enum ExitStatus { kGood = 0, kBad = 1, kUsage = 2 };

struct CheckOptions {
    unsigned jobs = 0;
    bool json = false;
    bool quiet = false;  // only the bad packages
    bool all = false;    // every fault, not only the first
};

int runInfo(const std::string& package, bool json, bool verify);
int runCheck(const std::vector<std::string>& packages, const CheckOptions& options);
int runList(const std::string& package, bool relationships, bool json);
int runPart(const std::string& package, const std::string& relationshipType,
            const std::string& output);
struct ExtractSettings {
    std::uint64_t maxBytes = 0;  // 0: no limit but the free space
    bool sync = false;
    bool keep = false;  // fail, changing nothing, when a file would be replaced
    bool verify = false;
    std::vector<std::string> trust;  // implies verify
    bool allowUnsigned = false;
};
int runExtract(const std::string& package, const std::string& folder,
               const ExtractSettings& settings);
int runRecover(const std::string& folder, bool discardUnreadable);
int runPack(const std::string& sourceFolder, const std::string& output, const std::string& guid,
            const std::string& keyFile, const std::string& certificateFile);
int runVerify(const std::vector<std::string>& packages, const std::vector<std::string>& trust,
              bool allowUnsigned);

// A failure about one file, printed as "tsapp: FILE: cause".
class Failure : public std::runtime_error {
  public:
    Failure(std::string file, const std::string& cause)
        : std::runtime_error(cause), file_(std::move(file)) {}
    const std::string& file() const { return file_; }

  private:
    std::string file_;
};

// The cause of a library failure: the package layer's kind and its text,
// or the text alone for anything else.
std::string causeOf(const std::exception& e);

// One line on stderr: "tsapp: <what>", line breaks flattened.
void printError(const std::string& what);

}  // namespace tsapp::tool
