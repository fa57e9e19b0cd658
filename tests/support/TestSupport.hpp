#pragma once

// Small helpers shared by the tests: temporary folders, files, locales,
// time zones and what a call raised.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <clocale>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace tsapp::test {

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

inline bool file_exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

inline std::u16string u16(const std::string& utf8) {
    return fl::i18n::to_ustring(utf8);
}

// A fresh folder under $TMPDIR, removed with everything in it on destruction.
class TempDir {
  public:
    TempDir() {
        const char* base = std::getenv("TMPDIR");
        path_ =
            std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tsapp-test-XXXXXX";
        if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    }
    ~TempDir() {
        namespace fs = std::filesystem;
        std::error_code ignored;
        fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
        fs::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::u16string ufile(const std::string& name) const { return u16(file(name)); }

  private:
    std::string path_;
};

// Sets LC_MESSAGES for the lifetime of the object, then puts back the old one.
class ScopedMessagesLocale {
  public:
    explicit ScopedMessagesLocale(const char* name) {
        const char* current = std::setlocale(LC_MESSAGES, nullptr);
        previous_ = current != nullptr ? current : "C";
        if (std::setlocale(LC_MESSAGES, name) == nullptr)
            throw std::runtime_error(std::string("locale not available: ") + name);
    }
    ~ScopedMessagesLocale() { std::setlocale(LC_MESSAGES, previous_.c_str()); }
    ScopedMessagesLocale(const ScopedMessagesLocale&) = delete;
    ScopedMessagesLocale& operator=(const ScopedMessagesLocale&) = delete;

  private:
    std::string previous_;
};

// Sets TZ for the lifetime of the object (and calls tzset), then restores it.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* tz) {
        const char* current = std::getenv("TZ");
        hadPrevious_ = current != nullptr;
        if (hadPrevious_) previous_ = current;
        ::setenv("TZ", tz, 1);
        ::tzset();
    }
    ~ScopedTimeZone() {
        if (hadPrevious_) {
            ::setenv("TZ", previous_.c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

  private:
    bool hadPrevious_;
    std::string previous_;
};

// The number of file descriptors the process holds open now.
inline int open_descriptor_count() {
    int count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (::readdir(dir) != nullptr) ++count;
    ::closedir(dir);
    return count - 3;  // ".", ".." and the descriptor of the listing itself
}

// The most memory the process has held so far, in KiB.
inline long peak_rss_kib() {
    struct rusage usage {};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// `text` with its first `from` replaced by `to`; the test fails when `text`
// holds no `from`.
inline std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

// Everything below a folder: relative path -> "dir", "link:<target>" or
// "file:<mode>:<bytes>". Two equal snapshots mean nothing was changed.
using Tree = std::map<std::string, std::string>;
inline Tree snapshot_tree(const std::string& root) {
    namespace fs = std::filesystem;
    Tree tree;
    if (!fs::exists(fs::symlink_status(root))) return tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string relative = fs::relative(entry.path(), root).string();
        const auto status = entry.symlink_status();
        struct stat info {};
        ::lstat(entry.path().c_str(), &info);
        tree[relative] =
            fs::is_symlink(status)     ? "link:" + fs::read_symlink(entry.path()).string()
            : fs::is_directory(status) ? "dir"
            : fs::is_regular_file(status)
                ? "file:" + std::to_string(info.st_mode & 07777) + ":" + read_file(entry.path())
                : "special:" + std::to_string(info.st_mode);
    }
    return tree;
}

// What `call` raised as an E, or "" when it returned. A std::runtime_error
// must be exactly that type: anything derived fails the test.
template <class E = std::runtime_error, class Call>
std::string error_of(Call call) {
    try {
        call();
    } catch (const E& e) {
        if constexpr (std::is_same_v<E, std::runtime_error>) {
            EXPECT_EQ(typeid(e), typeid(E)) << e.what();
        }
        return e.what();
    }
    return "";
}

// Everything `in` still yields, read `chunk` bytes at a time.
inline std::string read_all(opc::InputStream& in, std::size_t chunk = 4096) {
    std::string bytes;
    std::vector<unsigned char> buffer(chunk);
    for (std::size_t n; (n = in.read(buffer.data(), buffer.size())) != 0;)
        bytes.append(reinterpret_cast<const char*>(buffer.data()), n);
    return bytes;
}

}  // namespace tsapp::test
