#pragma once

// Which app files a pack leaves out: the lines of SOURCE/.tsappignore,
// then each of the request's excludes, in gitignore's syntax (the subset in the README). Paths
// are relative to the app files folder, "/"-separated.

#include <string>
#include <vector>

namespace tsappinstall::pack {

class IgnoreRules {
  public:
    // One rule per line; blank lines and "#" comments are skipped.
    void addLines(const std::string& text);
    void add(std::string pattern);

    // Whether `path` is left out; `folder` for a folder (whose files are
    // then all left out, as git does). The last rule that matches decides.
    bool ignores(const std::string& path, bool folder) const;

  private:
    struct Rule {
        std::vector<std::string> segments;  // "**" matches any number of them
        bool negated = false;
        bool foldersOnly = false;
        bool anchored = false;  // matches from the top, not at any depth
    };
    std::vector<Rule> rules_;
};

}  // namespace tsappinstall::pack
