// End-to-end tests of the command-line tool: they run the built binary.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <zip.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/PackageBuilder.hpp"
#include "support/TestSupport.hpp"

#ifdef TSAPP_TOOL

namespace {

namespace fs = std::filesystem;
using namespace tsapp::test;

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

std::string quoted(const std::string& arg) {
    std::string q = "'";
    for (char c : arg) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

class TsappTool : public ::testing::Test {
  protected:
    ToolRun tsapp(const std::vector<std::string>& args, const std::string& env = "") {
        std::string command = env + " " + quoted(TSAPP_TOOL);
        for (const auto& arg : args) command += " " + quoted(arg);
        command += " >" + quoted(dir.file("stdout")) + " 2>" + quoted(dir.file("stderr"));
        const int raw = std::system(command.c_str());
        return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, read_file(dir.file("stdout")),
                read_file(dir.file("stderr"))};
    }
    std::string sample(const std::string& path = "") const {
        return std::string(TSAPP_SOURCE_DIR) + "/sample/app" + (path.empty() ? "" : "/" + path);
    }
    std::string packSample(const std::string& name = "hello.tsappinstall") {
        const std::string package = dir.file(name);
        const ToolRun run = tsapp({"pack", sample(), "-o", package});
        EXPECT_EQ(run.status, 0) << run.err;
        return package;
    }
    TempDir dir;
};

// Replaces one item of a ZIP file in place, as someone tampering with a
// package would.
void replaceItem(const std::string& package, const std::string& item, const std::string& bytes) {
    int error = 0;
    zip_t* za = zip_open(package.c_str(), 0, &error);
    ASSERT_NE(za, nullptr);
    zip_source_t* source = zip_source_buffer(za, bytes.data(), bytes.size(), 0);
    ASSERT_GE(zip_file_replace(za, zip_name_locate(za, item.c_str(), 0), source, 0), 0);
    ASSERT_EQ(zip_close(za), 0);
}

TEST_F(TsappTool, PackedSampleChecksAndShowsItsManifest) {
    const std::string package = packSample();
    const ToolRun check = tsapp({"check", package});
    EXPECT_EQ(check.status, 0) << check.err;
    EXPECT_EQ(check.out, package + ": OK\n");

    const ToolRun json = tsapp({"info", "--json", package});
    ASSERT_EQ(json.status, 0) << json.err;
    const auto info = nlohmann::json::parse(json.out);
    EXPECT_EQ(info["name"], "Hello Tessal");
    EXPECT_EQ(info["version"], "1.2.0");
    EXPECT_EQ(info["entryPoint"], "main.js");
    EXPECT_EQ(info["author"]["organization"], "Example Works");
    EXPECT_EQ(info["numFiles"], 4);
    EXPECT_EQ(info["appEntries"],
              nlohmann::json::array({"README.txt", "data/config.json", "lib/util.js", "main.js"}));
    EXPECT_EQ(info["requiredProducts"][0]["identifier"], "tessal.core");
    EXPECT_EQ(info["GUID"].get<std::string>().size(), 36u);

    const ToolRun human = tsapp({"info", package});
    EXPECT_EQ(human.status, 0);
    EXPECT_NE(human.out.find("Name:              Hello Tessal\n"), std::string::npos) << human.out;
    EXPECT_NE(human.out.find("Platforms:         linux-x86_64, windows-x86_64\n"),
              std::string::npos);
}

TEST_F(TsappTool, ATamperedManifestFailsTheCheckWithTheSignatureReason) {
    const std::string package = packSample();
    std::string manifest = zip_item(package, "manifest.xml");
    const std::size_t at = manifest.find("A small sample app");
    ASSERT_NE(at, std::string::npos);
    manifest.replace(at, 5, "A big");
    replaceItem(package, "manifest.xml", manifest);

    const ToolRun check = tsapp({"check", package});
    EXPECT_EQ(check.status, 1);
    EXPECT_EQ(check.out, package + ": the manifest's signature is missing or wrong\n");
    EXPECT_EQ(tsapp({"info", package}).status, 1);
}

TEST_F(TsappTool, CheckGivesOneVerdictPerPackageInOrder) {
    const std::string good = packSample();
    write_file(dir.file("junk.tsappinstall"), "not a zip");
    write_file(dir.file("other.zip"), "whatever");
    fs::copy_file(good, dir.file("broken.tsappinstall"));
    replaceItem(dir.file("broken.tsappinstall"), "manifest.xml", "<appProperties");

    const ToolRun check = tsapp({"check", "-j", "2", dir.file("junk.tsappinstall"), good,
                                 dir.file("other.zip"), dir.file("broken.tsappinstall"), good});
    EXPECT_EQ(check.status, 1);
    std::istringstream lines(check.out);
    std::vector<std::string> verdicts;
    for (std::string line; std::getline(lines, line);) verdicts.push_back(line);
    ASSERT_EQ(verdicts.size(), 5u) << check.out;
    EXPECT_EQ(verdicts[0].rfind(dir.file("junk.tsappinstall") + ": not an app package: ", 0), 0u)
        << verdicts[0];
    EXPECT_EQ(verdicts[1], good + ": OK");
    EXPECT_EQ(verdicts[2],
              dir.file("other.zip") + ": not an app file: the extension is not .tsappinstall");
    EXPECT_EQ(verdicts[3].rfind(
                  dir.file("broken.tsappinstall") + ": the manifest is not well-formed XML: ", 0),
              0u)
        << verdicts[3];
    EXPECT_EQ(verdicts[4], good + ": OK");
}

TEST_F(TsappTool, IconScreenshotAndExtractGiveBackTheSourceBytes) {
    const std::string package = packSample();
    EXPECT_EQ(tsapp({"icon", package, dir.file("icon.png")}).status, 0);
    EXPECT_TRUE(read_file(dir.file("icon.png")) == read_file(sample("icon.png")));
    EXPECT_EQ(tsapp({"screenshot", package, dir.file("shot.png")}).status, 0);
    EXPECT_TRUE(read_file(dir.file("shot.png")) == read_file(sample("screenshot.png")));

    const ToolRun extract = tsapp({"extract", package, dir.file("out")});
    ASSERT_EQ(extract.status, 0) << extract.err;
    EXPECT_EQ(extract.out, "");  // not a terminal: no progress
    for (const auto& entry : fs::recursive_directory_iterator(sample("files"))) {
        if (!entry.is_regular_file()) continue;
        const std::string relative = fs::relative(entry.path(), sample("files")).string();
        EXPECT_TRUE(read_file(dir.file("out/files/" + relative)) == read_file(entry.path()))
            << relative;
    }
    EXPECT_TRUE(read_file(dir.file("out/icon.png")) == read_file(sample("icon.png")));
    EXPECT_EQ(tsapp({"part", package, "urn:no-such-type", dir.file("none")}).status, 1);
}

TEST_F(TsappTool, PackIsReproducibleAndAtomic) {
    const std::string env = "SOURCE_DATE_EPOCH=1700000000";
    ASSERT_EQ(
        tsapp({"pack", sample(), "-o", dir.file("a.tsappinstall"), "--guid", "g-1"}, env).status,
        0);
    ASSERT_EQ(
        tsapp({"pack", sample(), "-o", dir.file("b.tsappinstall"), "--guid", "g-1"}, env).status,
        0);
    EXPECT_TRUE(read_file(dir.file("a.tsappinstall")) == read_file(dir.file("b.tsappinstall")));

    // A source folder that fails half-way leaves the old package as it was.
    fs::copy(sample(), dir.file("src"), fs::copy_options::recursive);
    fs::remove(dir.file("src/screenshot.png"));
    const ToolRun failed = tsapp({"pack", dir.file("src"), "-o", dir.file("a.tsappinstall")});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.err, "tsapp: " + dir.file("src") + "/screenshot.png is not a file\n");
    EXPECT_TRUE(read_file(dir.file("a.tsappinstall")) == read_file(dir.file("b.tsappinstall")));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 5);
}

TEST_F(TsappTool, UsageErrorsExitTwoAndHelpAndVersionZero) {
    for (const std::vector<std::string>& args : {std::vector<std::string>{},
                                                 {"frobnicate"},
                                                 {"info"},
                                                 {"icon", "a.tsappinstall"},
                                                 {"check", "-j", "x", "a"}}) {
        const ToolRun run = tsapp(args);
        EXPECT_EQ(run.status, 2) << (args.empty() ? "" : args[0]);
        EXPECT_EQ(run.err.rfind("tsapp: ", 0), 0u) << run.err;
    }
    EXPECT_EQ(tsapp({"--help"}).status, 0);
    EXPECT_EQ(tsapp({"extract", "--help"}).status, 0);
    const ToolRun version = tsapp({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("tsapp ", 0), 0u);
}

}  // namespace

#endif  // TSAPP_TOOL
