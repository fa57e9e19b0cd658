#pragma once

// The tool's commands. Each returns the process exit status:
// 0 all good, 1 a package is bad or the operation failed, 2 usage error.

#include <cstdint>
#include <string>
#include <vector>

namespace tsapp::tool {

enum ExitStatus { kGood = 0, kBad = 1, kUsage = 2 };

int runInfo(const std::string& package, bool json);
int runCheck(const std::vector<std::string>& packages, unsigned jobs);
int runIcon(const std::string& package, const std::string& output);
int runScreenshot(const std::string& package, const std::string& output);
int runPart(const std::string& package, const std::string& relationshipType,
            const std::string& output);
struct ExtractSettings {
    std::uint64_t maxBytes;  // 0: no limit
    bool sync;
};
int runExtract(const std::string& package, const std::string& folder,
               const ExtractSettings& settings);
int runRecover(const std::string& folder);
int runPack(const std::string& sourceFolder, const std::string& output, const std::string& guid,
            const std::string& keyFile, const std::string& certificateFile);
int runVerify(const std::vector<std::string>& packages, const std::vector<std::string>& trust,
              bool allowUnsigned);

// One clear line on stderr: "tsapp: <what>".
void printError(const std::string& what);

}  // namespace tsapp::tool
