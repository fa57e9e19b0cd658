#pragma once

// SQLite's own file I/O through a store's file operations: a VFS that
// forwards to the default one, asking the operations before each call (a
// read, a write, a flush, a lock...) and telling them after, so that the
// fault-injection tests fail and count the database's calls as they do
// every other call of the store. Only a store given a seam uses one.

#include <memory>

namespace opc::detail {
class FileOps;
}

namespace tsappinstall::store::detail {

class SeamVfs {
  public:
    // Registers a VFS of its own name (not the default). `ops` must outlive
    // it, and it every connection opened with its name().
    explicit SeamVfs(const opc::detail::FileOps& ops);
    ~SeamVfs();
    SeamVfs(const SeamVfs&) = delete;
    SeamVfs& operator=(const SeamVfs&) = delete;

    const char* name() const;

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace tsappinstall::store::detail
