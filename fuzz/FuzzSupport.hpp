#pragma once

// Shared by the harnesses: a private scratch folder per process and a sink
// for the library's error lines, which would otherwise flood the fuzzer's
// output.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace tsapp::fuzz {

// A folder created once per process and removed at exit.
const std::string& scratchFolder();

// Writes `size` bytes to `path`, replacing the file.
void writeBytes(const std::string& path, const std::uint8_t* data, std::size_t size);

// Removes everything below `path` (not following links) and `path` itself.
void removeTree(const std::string& path);

// Every entry below `path` with its type and contents ("" when absent).
std::map<std::string, std::string> snapshotTree(const std::string& path);

// Sends std::cerr to nowhere for as long as it lives.
class SilencedErrors {
  public:
    SilencedErrors();
    ~SilencedErrors();
    SilencedErrors(const SilencedErrors&) = delete;
    SilencedErrors& operator=(const SilencedErrors&) = delete;

  private:
    std::streambuf* previous_;
};

}  // namespace tsapp::fuzz
