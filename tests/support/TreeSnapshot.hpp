#pragma once

#include <map>
#include <string>

namespace tsapp::test {

// Everything below a folder: relative path -> "dir", "link:<target>" or
// "file:<mode>:<bytes>". Two equal snapshots mean nothing was changed.
std::map<std::string, std::string> snapshot_tree(const std::string& root);

}  // namespace tsapp::test
