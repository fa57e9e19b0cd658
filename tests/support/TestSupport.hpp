#pragma once

// Small helpers shared by the tests: temporary folders, files, locales.

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>
#include <typeinfo>

#include "tsappinstall/platform/opc/Streams.hpp"

namespace tsapp::test {

// A fresh folder under $TMPDIR, removed with everything in it on destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::u16string ufile(const std::string& name) const;

  private:
    std::string path_;
};

// Sets LC_MESSAGES for the lifetime of the object, then puts back the old one.
class ScopedMessagesLocale {
  public:
    explicit ScopedMessagesLocale(const char* name);
    ~ScopedMessagesLocale();
    ScopedMessagesLocale(const ScopedMessagesLocale&) = delete;
    ScopedMessagesLocale& operator=(const ScopedMessagesLocale&) = delete;

  private:
    std::string previous_;
};

// Sets TZ for the lifetime of the object (and calls tzset), then restores it.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* tz);
    ~ScopedTimeZone();
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

  private:
    bool hadPrevious_;
    std::string previous_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);
bool file_exists(const std::string& path);
std::u16string u16(const std::string& utf8);
// The number of file descriptors the process holds open now.
int open_descriptor_count();
// `text` with its first `from` replaced by `to`; the test fails when `text`
// holds no `from`.
std::string replaced(std::string text, const std::string& from, const std::string& to);
// Everything below a folder: relative path -> "dir", "link:<target>" or
// "file:<mode>:<bytes>". Two equal snapshots mean nothing was changed.
std::map<std::string, std::string> snapshot_tree(const std::string& root);
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
std::string read_all(opc::InputStream& in, std::size_t chunk = 4096);

}  // namespace tsapp::test
