#pragma once

// The file operations a store runs on, for the library's fault-injection
// tests: every call of an install, upgrade or remove, the extraction's
// included, goes through them.

#include "tsappinstall/platform/opc/FileSystemManager.hpp"

namespace tsappinstall::store::detail {

struct FileSeam {
    opc::FileSystemOpsSelector ops;
};

}  // namespace tsappinstall::store::detail
