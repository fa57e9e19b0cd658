#include "TreeSnapshot.hpp"

#include <sys/stat.h>

#include <filesystem>

#include "TestSupport.hpp"

namespace tsapp::test {

std::map<std::string, std::string> snapshot_tree(const std::string& root) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> tree;
    if (!fs::exists(fs::symlink_status(root))) return tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string relative = fs::relative(entry.path(), root).string();
        const auto status = entry.symlink_status();
        if (fs::is_symlink(status)) {
            tree[relative] = "link:" + fs::read_symlink(entry.path()).string();
        } else if (fs::is_directory(status)) {
            tree[relative] = "dir";
        } else {
            struct stat info {};
            ::lstat(entry.path().c_str(), &info);
            tree[relative] =
                "file:" + std::to_string(info.st_mode & 07777) + ":" + read_file(entry.path());
        }
    }
    return tree;
}

}  // namespace tsapp::test
