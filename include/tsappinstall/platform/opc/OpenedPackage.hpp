#pragma once

// A package file opened for reading: the ZIP container and the package
// model over it, the pair every reader of a package file starts from.

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tsappinstall/platform/opc/Package.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace opc::model {

// The constructor opens `path` read-only and the package over it, throwing
// opc::Exception as they do. Call close() once the work succeeded; when an
// exception leaves the scope instead, both are destroyed without close(),
// the package before its container (the members' order). Objects taken
// from the package (parts, streams) must be declared after the owner so
// that they go first.
class OpenedPackage {
  public:
    explicit OpenedPackage(const std::u16string& path)
        : container_(path, true), package_(container_) {
        package_.open(opc::interfaces::OpenMode::Read);
    }
    explicit OpenedPackage(const std::filesystem::path& path)
        : container_(path), package_(container_) {
        package_.open(opc::interfaces::OpenMode::Read);
    }
    // A package file that leaves out the items named in `leftOut`
    // (ZipPhysicalPackage).
    OpenedPackage(const std::filesystem::path& path, const std::set<std::string>& leftOut)
        : container_(path, leftOut), package_(container_) {
        package_.open(opc::interfaces::OpenMode::Read);
    }
    OpenedPackage(const OpenedPackage&) = delete;
    OpenedPackage& operator=(const OpenedPackage&) = delete;

    Package& package() { return package_; }
    Package* operator->() { return &package_; }
    // What the container tolerated (ZipPhysicalPackage::warnings).
    const std::vector<std::string>& warnings() const { return container_.warnings(); }
    // Whether `fd` is open on the file this package reads (ZipPhysicalPackage::reads).
    bool reads(int fd) const { return container_.reads(fd); }
    void close() { package_.close(); }

  private:
    opc::zippackage::ZipPhysicalPackage container_;
    Package package_;
};

}  // namespace opc::model
