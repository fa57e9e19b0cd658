#include "IgnoreRules.hpp"

#include <fnmatch.h>

#include <sstream>

namespace tsappinstall::pack {
namespace {

std::vector<std::string> split(const std::string& path) {
    std::vector<std::string> segments;
    std::size_t start = 0;
    for (;;) {
        const std::size_t slash = path.find('/', start);
        segments.push_back(path.substr(start, slash - start));
        if (slash == std::string::npos) return segments;
        start = slash + 1;
    }
}

// Whether the pattern's segments from `p` match the path's from `s` to its end.
bool matches(const std::vector<std::string>& pattern, std::size_t p,
             const std::vector<std::string>& path, std::size_t s) {
    if (p == pattern.size()) return s == path.size();
    if (pattern[p] == "**") {
        for (std::size_t next = s; next <= path.size(); ++next)
            if (matches(pattern, p + 1, path, next)) return true;
        return false;
    }
    return s < path.size() && ::fnmatch(pattern[p].c_str(), path[s].c_str(), 0) == 0 &&
           matches(pattern, p + 1, path, s + 1);
}

}  // namespace

void IgnoreRules::addLines(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        while (!line.empty() && line.back() == ' ') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        add(line);
    }
}

void IgnoreRules::add(std::string pattern) {
    Rule rule;
    if (!pattern.empty() && pattern[0] == '!') {
        rule.negated = true;
        pattern.erase(0, 1);
    } else if (pattern.rfind("\\!", 0) == 0 || pattern.rfind("\\#", 0) == 0) {
        pattern.erase(0, 1);
    }
    if (!pattern.empty() && pattern.back() == '/') {
        rule.foldersOnly = true;
        pattern.pop_back();
    }
    // A slash anywhere but at the end ties the pattern to the top.
    rule.anchored = pattern.find('/') != std::string::npos;
    if (!pattern.empty() && pattern[0] == '/') pattern.erase(0, 1);
    if (pattern.empty()) return;
    rule.segments = split(pattern);
    if (!rule.anchored) rule.segments.insert(rule.segments.begin(), "**");
    rules_.push_back(std::move(rule));
}

bool IgnoreRules::ignores(const std::string& path, bool folder) const {
    const std::vector<std::string> segments = split(path);
    bool ignored = false;
    for (const Rule& rule : rules_) {
        if (rule.foldersOnly && !folder) continue;
        if (rule.negated == ignored && matches(rule.segments, 0, segments, 0))
            ignored = !rule.negated;
    }
    return ignored;
}

}  // namespace tsappinstall::pack
