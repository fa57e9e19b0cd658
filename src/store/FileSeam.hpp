#pragma once

// The file operations a store runs on, for the library's fault-injection
// tests: every call of an install, upgrade, rollback, remove or recovery,
// the extraction's and the links' included, goes through them.

#include "tsappinstall/platform/opc/FileSystemManager.hpp"

namespace tsappinstall::store::detail {

struct FileSeam {
    opc::FileSystemOpsSelector ops;
};

}  // namespace tsappinstall::store::detail
