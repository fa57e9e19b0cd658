#include "FuzzSupport.hpp"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

namespace tsapp::fuzz {
namespace {

class NullBuffer : public std::streambuf {
  protected:
    int overflow(int c) override { return c; }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

}  // namespace

const std::string& scratchFolder() {
    static const std::string folder = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/tsapp-fuzz.XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        static std::string removeAtExit;
        removeAtExit = pattern;
        std::atexit([] { std::filesystem::remove_all(removeAtExit); });
        return pattern;
    }();
    return folder;
}

void writeBytes(const std::string& path, const std::uint8_t* data, std::size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

void removeTree(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::map<std::string, std::string> snapshotTree(const std::string& path) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> tree;
    std::error_code error;
    for (fs::recursive_directory_iterator it(path, error), end; !error && it != end;
         it.increment(error)) {
        std::string& entry = tree[it->path().string()];
        if (it->is_symlink()) {
            entry = "link:" + fs::read_symlink(it->path(), error).string();
        } else if (it->is_regular_file()) {
            std::ifstream in(it->path(), std::ios::binary);
            entry.assign(std::istreambuf_iterator<char>(in), {});
            entry.insert(0, "file:");
        } else {
            entry = "dir";
        }
    }
    return tree;
}

SilencedErrors::SilencedErrors() {
    static NullBuffer sink;
    previous_ = std::cerr.rdbuf(&sink);
}

SilencedErrors::~SilencedErrors() {
    std::cerr.rdbuf(previous_);
}

}  // namespace tsapp::fuzz
