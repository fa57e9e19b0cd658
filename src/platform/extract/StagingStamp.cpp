#include "platform/extract/StagingStamp.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "platform/base/Random.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

const char kStampMagic[] = "tsapp-owner-1";
constexpr std::size_t kStampLimit = 512;

// What identifies one folder on this machine, as far as a stamp can tell.
struct FolderId {
    unsigned long long device = 0;
    unsigned long long inode = 0;
    long long bornSeconds = 0;  // 0 where the file system keeps no birth time
    unsigned bornNanoseconds = 0;
    bool operator==(const FolderId& other) const {
        return device == other.device && inode == other.inode && bornSeconds == other.bornSeconds &&
               bornNanoseconds == other.bornNanoseconds;
    }
};

bool identify(const FileOps& ops, int fd, FolderId& id) {
    struct statx info {};
    if (ops.statx(fd, STATX_INO | STATX_BTIME, &info) != 0) return false;
    id.device = makedev(info.stx_dev_major, info.stx_dev_minor);
    id.inode = info.stx_ino;
    if (info.stx_mask & STATX_BTIME) {
        id.bornSeconds = info.stx_btime.tv_sec;
        id.bornNanoseconds = info.stx_btime.tv_nsec;
    }
    return true;
}

struct Stamp {
    unsigned long long user = 0;
    FolderId staging, holder;
    std::string token;
};

std::string encode(const Stamp& stamp) {
    std::ostringstream out;
    out << kStampMagic << ' ' << stamp.user << ' ' << stamp.staging.device << ' '
        << stamp.staging.inode << ' ' << stamp.staging.bornSeconds << ' '
        << stamp.staging.bornNanoseconds << ' ' << stamp.holder.device << ' ' << stamp.holder.inode
        << ' ' << stamp.token << '\n';
    return out.str();
}

bool decode(const std::string& text, Stamp& stamp) {
    std::istringstream in(text);
    std::string magic;
    in >> magic >> stamp.user >> stamp.staging.device >> stamp.staging.inode >>
        stamp.staging.bornSeconds >> stamp.staging.bornNanoseconds >> stamp.holder.device >>
        stamp.holder.inode >> stamp.token;
    return in && magic == kStampMagic && stamp.token.size() == 32 && encode(stamp) == text;
}

bool readStamp(const FileOps& ops, int folder, Stamp& stamp, std::string& why) {
    std::string text;
    if (!readOwnFile(ops, folder, kStampName, kStampLimit, text, why)) {
        why = "its stamp " + why;
        return false;
    }
    if (!decode(text, stamp) || stamp.user != ::geteuid()) {
        why = "its stamp is not one of this user's";
        return false;
    }
    return true;
}

}  // namespace

bool readOwnFile(const FileOps& ops, int dir, const char* name, std::size_t limit,
                 std::string& text, std::string& why) {
    OpsFd fd(ops, ops.openat(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
    struct stat info {};
    if (!fd || ops.fstat(fd.get(), &info) != 0) {
        why = errno == ENOENT ? kMissing : std::string("cannot be read: ") + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode) || info.st_uid != ::geteuid() || info.st_nlink != 1 ||
        (info.st_mode & 077) != 0) {
        why = "is not a private file of this user's";
        return false;
    }
    if (static_cast<std::uint64_t>(info.st_size) > limit) {
        why = "is larger than any the extractor writes";
        return false;
    }
    text.assign(static_cast<std::size_t>(info.st_size), '\0');
    if (ops.readAt(fd.get(), text.data(), text.size(), 0) != static_cast<long>(text.size())) {
        why = "cannot be read whole";
        return false;
    }
    return true;
}

std::string writeStamp(const FileOps& ops, int holder, int staging, const std::string& what) {
    Stamp stamp;
    stamp.user = ::geteuid();
    stamp.token = randomToken(16);
    if (!identify(ops, staging, stamp.staging) || !identify(ops, holder, stamp.holder))
        throw Exception(Reason::CannotWrite, "cannot identify the staging folder \"" + what +
                                                 "\": " + std::strerror(errno));
    const std::string text = encode(stamp);
    OpsFd out(ops, ops.openat(staging, kStampName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!out || ops.writeAll(out.get(), text.data(), text.size()) != 0 ||
        ops.close(out.release()) != 0)
        throw Exception(Reason::CannotWrite, "cannot stamp the staging folder \"" + what +
                                                 "\": " + std::strerror(errno));
    return stamp.token;
}

std::string provenToken(const FileOps& ops, int holder, int staging, std::string& why) {
    struct stat info {};
    if (ops.fstat(staging, &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) {
        why = "not a folder of this user's";
        return {};
    }
    if (info.st_mode & S_IWOTH) {
        why = "others may write to it";
        return {};
    }
    Stamp stamp;
    FolderId staged, held;
    if (!readStamp(ops, staging, stamp, why)) return {};
    if (!identify(ops, staging, staged) || !identify(ops, holder, held) ||
        !(stamp.staging == staged) || stamp.holder.device != held.device ||
        stamp.holder.inode != held.inode) {
        why = "its stamp was made for another folder";
        return {};
    }
    return stamp.token;
}

bool holdsOwnStamp(const FileOps& ops, int folder) {
    Stamp stamp;
    FolderId id;
    std::string why;
    return readStamp(ops, folder, stamp, why) && identify(ops, folder, id) && stamp.staging == id;
}

}  // namespace opc::detail
