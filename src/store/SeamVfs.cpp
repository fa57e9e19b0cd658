#include "SeamVfs.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <string>

#include "platform/extract/FileOps.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsappinstall::store::detail {

using opc::detail::FileCall;
using opc::detail::FileOps;

struct SeamVfs::Impl {
    const FileOps& ops;
    std::string name;
    sqlite3_vfs* real = nullptr;
    sqlite3_vfs vfs{};
};

namespace {

// Ours comes first in the space SQLite allocates; the default VFS's own
// file follows, aligned as malloc() aligns.
struct SeamFile {
    sqlite3_file base;
    const FileOps* ops;
};
constexpr std::size_t kRealAt = (sizeof(SeamFile) + alignof(std::max_align_t) - 1) /
                                alignof(std::max_align_t) * alignof(std::max_align_t);

sqlite3_file* realOf(sqlite3_file* file) {
    return reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + kRealAt);
}
const FileOps& opsOf(sqlite3_file* file) {
    return *reinterpret_cast<SeamFile*>(file)->ops;
}
const sqlite3_io_methods& realMethods(sqlite3_file* file) {
    return *realOf(file)->pMethods;
}
SeamVfs::Impl& implOf(sqlite3_vfs* vfs) {
    return *static_cast<SeamVfs::Impl*>(vfs->pAppData);
}

// What SQLite's own VFS answers for a failure of that kind; a full disk is
// told apart, as it tells it apart.
int failure(int code, int error) {
    return code == SQLITE_IOERR_WRITE && error == ENOSPC ? SQLITE_FULL : code;
}

// `call` made as the operations allow, failing with `code` when they do not.
template <class Call>
int through(const FileOps& ops, FileCall family, int code, Call call) {
    if (const int error = ops.admit(family)) return failure(code, error);
    const int result = call();
    ops.madeElsewhere(family);
    return result;
}

// A call that lets go of something (a descriptor, a lock, a mapping) lets
// go of it even when it fails, as close() does, so that a failing one
// leaks nothing.
template <class Call>
int releasing(const FileOps& ops, FileCall family, int code, Call call) {
    const int error = ops.admit(family);
    const int result = call();
    if (error) return failure(code, error);
    ops.madeElsewhere(family);
    return result;
}

int xClose(sqlite3_file* file) {
    sqlite3_file* real = realOf(file);
    return releasing(opsOf(file), FileCall::Close, SQLITE_IOERR_CLOSE,
                     [&] { return real->pMethods->xClose(real); });
}

int xRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    return through(opsOf(file), FileCall::Read, SQLITE_IOERR_READ,
                   [&] { return realMethods(file).xRead(realOf(file), buffer, amount, offset); });
}

int xWrite(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) {
    return through(opsOf(file), FileCall::Write, SQLITE_IOERR_WRITE,
                   [&] { return realMethods(file).xWrite(realOf(file), data, amount, offset); });
}

int xTruncate(sqlite3_file* file, sqlite3_int64 size) {
    return through(opsOf(file), FileCall::Write, SQLITE_IOERR_TRUNCATE,
                   [&] { return realMethods(file).xTruncate(realOf(file), size); });
}

int xSync(sqlite3_file* file, int flags) {
    return through(opsOf(file), FileCall::Fsync, SQLITE_IOERR_FSYNC,
                   [&] { return realMethods(file).xSync(realOf(file), flags); });
}

int xFileSize(sqlite3_file* file, sqlite3_int64* size) {
    return through(opsOf(file), FileCall::Stat, SQLITE_IOERR_FSTAT,
                   [&] { return realMethods(file).xFileSize(realOf(file), size); });
}

int xLock(sqlite3_file* file, int level) {
    return through(opsOf(file), FileCall::Lock, SQLITE_IOERR_LOCK,
                   [&] { return realMethods(file).xLock(realOf(file), level); });
}

int xUnlock(sqlite3_file* file, int level) {
    return releasing(opsOf(file), FileCall::Lock, SQLITE_IOERR_UNLOCK,
                     [&] { return realMethods(file).xUnlock(realOf(file), level); });
}

int xCheckReservedLock(sqlite3_file* file, int* reserved) {
    return through(opsOf(file), FileCall::Lock, SQLITE_IOERR_CHECKRESERVEDLOCK,
                   [&] { return realMethods(file).xCheckReservedLock(realOf(file), reserved); });
}

// Pragmas, hints and questions about the file: no call of a family.
int xFileControl(sqlite3_file* file, int op, void* arg) {
    return realMethods(file).xFileControl(realOf(file), op, arg);
}

int xSectorSize(sqlite3_file* file) {
    return realMethods(file).xSectorSize(realOf(file));
}

int xDeviceCharacteristics(sqlite3_file* file) {
    return realMethods(file).xDeviceCharacteristics(realOf(file));
}

// The first map of the WAL's index opens its file: counted as an open.
int xShmMap(sqlite3_file* file, int region, int size, int extend, void volatile** at) {
    return through(opsOf(file), FileCall::Open, SQLITE_IOERR_SHMMAP, [&] {
        return realMethods(file).xShmMap(realOf(file), region, size, extend, at);
    });
}

int xShmLock(sqlite3_file* file, int offset, int n, int flags) {
    const auto call = [&] { return realMethods(file).xShmLock(realOf(file), offset, n, flags); };
    if (flags & SQLITE_SHM_UNLOCK)
        return releasing(opsOf(file), FileCall::Lock, SQLITE_IOERR_SHMLOCK, call);
    return through(opsOf(file), FileCall::Lock, SQLITE_IOERR_SHMLOCK, call);
}

void xShmBarrier(sqlite3_file* file) {
    realMethods(file).xShmBarrier(realOf(file));
}

int xShmUnmap(sqlite3_file* file, int deleteFlag) {
    return releasing(opsOf(file), FileCall::Close, SQLITE_IOERR_SHMMAP,
                     [&] { return realMethods(file).xShmUnmap(realOf(file), deleteFlag); });
}

// Memory maps are off (mmap_size 0): these only answer that they are.
int xFetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** at) {
    return realMethods(file).xFetch(realOf(file), offset, amount, at);
}

int xUnfetch(sqlite3_file* file, sqlite3_int64 offset, void* at) {
    return realMethods(file).xUnfetch(realOf(file), offset, at);
}

// One table for each version a default VFS's file may have: SQLite asks
// for WAL's shared memory and for memory maps only where the version
// says they are there.
const sqlite3_io_methods* methodsFor(int version) {
    static const sqlite3_io_methods methods[3] = {
        {1, xClose, xRead, xWrite, xTruncate, xSync, xFileSize, xLock, xUnlock, xCheckReservedLock,
         xFileControl, xSectorSize, xDeviceCharacteristics, nullptr, nullptr, nullptr, nullptr,
         nullptr, nullptr},
        {2, xClose, xRead, xWrite, xTruncate, xSync, xFileSize, xLock, xUnlock, xCheckReservedLock,
         xFileControl, xSectorSize, xDeviceCharacteristics, xShmMap, xShmLock, xShmBarrier,
         xShmUnmap, nullptr, nullptr},
        {3, xClose, xRead, xWrite, xTruncate, xSync, xFileSize, xLock, xUnlock, xCheckReservedLock,
         xFileControl, xSectorSize, xDeviceCharacteristics, xShmMap, xShmLock, xShmBarrier,
         xShmUnmap, xFetch, xUnfetch},
    };
    return &methods[std::clamp(version, 1, 3) - 1];
}

int xOpen(sqlite3_vfs* vfs, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    SeamVfs::Impl& impl = implOf(vfs);
    auto* seam = reinterpret_cast<SeamFile*>(file);
    seam->base.pMethods = nullptr;  // SQLite closes only what opened
    seam->ops = &impl.ops;
    sqlite3_file* real = realOf(file);
    real->pMethods = nullptr;
    const int result = through(impl.ops, FileCall::Open, SQLITE_CANTOPEN, [&] {
        return impl.real->xOpen(impl.real, name, real, flags, outFlags);
    });
    if (real->pMethods) seam->base.pMethods = methodsFor(real->pMethods->iVersion);
    return result;
}

int xDelete(sqlite3_vfs* vfs, const char* name, int syncFolder) {
    SeamVfs::Impl& impl = implOf(vfs);
    return through(impl.ops, FileCall::Unlink, SQLITE_IOERR_DELETE,
                   [&] { return impl.real->xDelete(impl.real, name, syncFolder); });
}

int xAccess(sqlite3_vfs* vfs, const char* name, int flags, int* result) {
    SeamVfs::Impl& impl = implOf(vfs);
    return through(impl.ops, FileCall::Stat, SQLITE_IOERR_ACCESS,
                   [&] { return impl.real->xAccess(impl.real, name, flags, result); });
}

// The rest is no I/O on the database's files: passed on as it is.
sqlite3_vfs* realVfs(sqlite3_vfs* vfs) {
    return implOf(vfs).real;
}
int xFullPathname(sqlite3_vfs* vfs, const char* name, int size, char* out) {
    return realVfs(vfs)->xFullPathname(realVfs(vfs), name, size, out);
}
void* xDlOpen(sqlite3_vfs* vfs, const char* name) {
    return realVfs(vfs)->xDlOpen(realVfs(vfs), name);
}
void xDlError(sqlite3_vfs* vfs, int size, char* out) {
    realVfs(vfs)->xDlError(realVfs(vfs), size, out);
}
void (*xDlSym(sqlite3_vfs* vfs, void* handle, const char* symbol))(void) {
    return realVfs(vfs)->xDlSym(realVfs(vfs), handle, symbol);
}
void xDlClose(sqlite3_vfs* vfs, void* handle) {
    realVfs(vfs)->xDlClose(realVfs(vfs), handle);
}
int xRandomness(sqlite3_vfs* vfs, int size, char* out) {
    return realVfs(vfs)->xRandomness(realVfs(vfs), size, out);
}
int xSleep(sqlite3_vfs* vfs, int micros) {
    return realVfs(vfs)->xSleep(realVfs(vfs), micros);
}
int xCurrentTime(sqlite3_vfs* vfs, double* now) {
    return realVfs(vfs)->xCurrentTime(realVfs(vfs), now);
}
int xGetLastError(sqlite3_vfs* vfs, int size, char* out) {
    return realVfs(vfs)->xGetLastError(realVfs(vfs), size, out);
}
int xCurrentTimeInt64(sqlite3_vfs* vfs, sqlite3_int64* now) {
    return realVfs(vfs)->xCurrentTimeInt64(realVfs(vfs), now);
}
int xSetSystemCall(sqlite3_vfs* vfs, const char* name, sqlite3_syscall_ptr call) {
    return realVfs(vfs)->xSetSystemCall(realVfs(vfs), name, call);
}
sqlite3_syscall_ptr xGetSystemCall(sqlite3_vfs* vfs, const char* name) {
    return realVfs(vfs)->xGetSystemCall(realVfs(vfs), name);
}
const char* xNextSystemCall(sqlite3_vfs* vfs, const char* name) {
    return realVfs(vfs)->xNextSystemCall(realVfs(vfs), name);
}

std::atomic<unsigned long> registered{0};

}  // namespace

SeamVfs::SeamVfs(const FileOps& ops) : impl_(std::make_unique<Impl>(Impl{ops, {}, nullptr, {}})) {
    Impl& impl = *impl_;
    impl.real = sqlite3_vfs_find(nullptr);
    if (!impl.real)
        throw StoreError(FaultKind::StoreFailed,
                         {"SQLite has no file system to open the database"});
    impl.name = "tsapp-seam-" + std::to_string(++registered);
    sqlite3_vfs& vfs = impl.vfs;
    vfs.iVersion = std::min(impl.real->iVersion, 3);
    vfs.szOsFile = static_cast<int>(kRealAt) + impl.real->szOsFile;
    vfs.mxPathname = impl.real->mxPathname;
    vfs.zName = impl.name.c_str();
    vfs.pAppData = &impl;
    vfs.xOpen = xOpen;
    vfs.xDelete = xDelete;
    vfs.xAccess = xAccess;
    vfs.xFullPathname = xFullPathname;
    vfs.xDlOpen = xDlOpen;
    vfs.xDlError = xDlError;
    vfs.xDlSym = xDlSym;
    vfs.xDlClose = xDlClose;
    vfs.xRandomness = xRandomness;
    vfs.xSleep = xSleep;
    vfs.xCurrentTime = xCurrentTime;
    vfs.xGetLastError = xGetLastError;
    if (vfs.iVersion >= 2) vfs.xCurrentTimeInt64 = xCurrentTimeInt64;
    if (vfs.iVersion >= 3) {
        vfs.xSetSystemCall = xSetSystemCall;
        vfs.xGetSystemCall = xGetSystemCall;
        vfs.xNextSystemCall = xNextSystemCall;
    }
    if (const int code = sqlite3_vfs_register(&vfs, 0); code != SQLITE_OK)
        throw StoreError(
            FaultKind::StoreFailed,
            {std::string("the database's file system cannot be set up: ") + sqlite3_errstr(code)});
}

SeamVfs::~SeamVfs() {
    sqlite3_vfs_unregister(&impl_->vfs);
}

const char* SeamVfs::name() const {
    return impl_->name.c_str();
}

}  // namespace tsappinstall::store::detail
