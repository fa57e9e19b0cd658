#pragma once

// The package file's SHA-256 for its record, hashed on a thread of its own
// from the moment the install starts: the check and the extraction's setup
// run on one core, and the hash fills the other.

#include <atomic>
#include <exception>
#include <filesystem>
#include <string>
#include <thread>

#include "StoreFiles.hpp"

namespace tsappinstall::store::detail {

class PackageHash {
  public:
    explicit PackageHash(std::filesystem::path file);
    // An install that fails early does not wait for the whole file.
    ~PackageHash();
    PackageHash(const PackageHash&) = delete;
    PackageHash& operator=(const PackageHash&) = delete;

    // Waits; throws StoreError (Failed) when the file could not be read.
    std::string get();
    // The file being hashed, opened at construction; -1 when it did not open.
    int fd() const { return fd_.get(); }

  private:
    std::filesystem::path file_;
    OpsFd fd_;
    std::atomic<bool> stop_{false};
    std::string hex_;
    std::exception_ptr error_;
    std::thread thread_;
};

}  // namespace tsappinstall::store::detail
