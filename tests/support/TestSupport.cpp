#include "support/TestSupport.hpp"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <clocale>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsapp::test {

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tsapp-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(path_, ignored);
}

std::u16string TempDir::ufile(const std::string& name) const {
    return u16(file(name));
}

ScopedMessagesLocale::ScopedMessagesLocale(const char* name) {
    const char* current = std::setlocale(LC_MESSAGES, nullptr);
    previous_ = current != nullptr ? current : "C";
    if (std::setlocale(LC_MESSAGES, name) == nullptr) {
        throw std::runtime_error(std::string("locale not available: ") + name);
    }
}

ScopedMessagesLocale::~ScopedMessagesLocale() {
    std::setlocale(LC_MESSAGES, previous_.c_str());
}

ScopedTimeZone::ScopedTimeZone(const char* tz) {
    const char* current = std::getenv("TZ");
    hadPrevious_ = current != nullptr;
    if (hadPrevious_) previous_ = current;
    ::setenv("TZ", tz, 1);
    ::tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
    if (hadPrevious_) {
        ::setenv("TZ", previous_.c_str(), 1);
    } else {
        ::unsetenv("TZ");
    }
    ::tzset();
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

bool file_exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

std::u16string u16(const std::string& utf8) {
    return fl::i18n::to_ustring(utf8);
}

int open_descriptor_count() {
    int count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (::readdir(dir) != nullptr) ++count;
    ::closedir(dir);
    return count - 3;  // ".", ".." and the descriptor of the listing itself
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

std::map<std::string, std::string> snapshot_tree(const std::string& root) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> tree;
    if (!fs::exists(fs::symlink_status(root))) return tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string relative = fs::relative(entry.path(), root).string();
        const auto status = entry.symlink_status();
        struct stat info {};
        ::lstat(entry.path().c_str(), &info);
        tree[relative] =
            fs::is_symlink(status) ? "link:" + fs::read_symlink(entry.path()).string()
            : fs::is_directory(status)
                ? "dir"
                : "file:" + std::to_string(info.st_mode & 07777) + ":" + read_file(entry.path());
    }
    return tree;
}

std::string read_all(opc::InputStream& in, std::size_t chunk) {
    std::string bytes;
    std::vector<unsigned char> buffer(chunk);
    for (std::size_t n; (n = in.read(buffer.data(), buffer.size())) != 0;)
        bytes.append(reinterpret_cast<const char*>(buffer.data()), n);
    return bytes;
}

}  // namespace tsapp::test
