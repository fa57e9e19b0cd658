// The README's session with the apps root, run as written: every command's
// output must be what the README shows.

#include <gtest/gtest.h>

#include <regex>

#include "support/TestSupport.hpp"

#ifdef TSAPP_TOOL

namespace {

using namespace tsapp::test;

// The lines of the README's block after "<!-- store session -->".
std::string readmeSession() {
    const std::string readme = read_file(std::string(TSAPP_SOURCE_DIR) + "/README.md");
    const auto marker = readme.find("<!-- store session -->");
    const auto start = readme.find('\n', readme.find("```", marker)) + 1;
    return readme.substr(start, readme.find("```", start) - start);
}

TEST(StoreTool, ReadmeSession) {
    TempDir dir;
    const std::string expected = readmeSession();
    std::string script = "cd '" + dir.path() + "' && ln -s '" TSAPP_SOURCE_DIR "/sample' sample\n" +
                         "PATH=\"$(dirname '" TSAPP_TOOL "'):$PATH\"; unset XDG_DATA_HOME\n";
    std::istringstream lines(expected);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("$ ", 0) != 0) continue;
        std::string quoted;
        for (char c : line) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        script += "printf '%s\\n' '" + quoted + "'\n" + line.substr(2) + " 2>&1\n";
    }
    write_file(dir.file("session.sh"), script);
    const std::string out = dir.file("out.txt");
    ASSERT_EQ(std::system(("bash '" + dir.file("session.sh") + "' > '" + out + "'").c_str()), 0);
    std::string transcript = read_file(out);
    for (auto at = transcript.find(dir.path()); at != std::string::npos;
         at = transcript.find(dir.path()))
        transcript.replace(at, dir.path().size(), "$PWD");
    EXPECT_EQ(std::regex_replace(transcript, std::regex("-[0-9a-f]{16}"), "-…"), expected);
}

}  // namespace

#endif
