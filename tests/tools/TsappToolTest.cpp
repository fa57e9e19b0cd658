// End-to-end tests of the command-line tool: they run the built binary in a
// temporary folder, so file names in its messages are the short ones given.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <zip.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/PackageBuilder.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tsapp::test;
using Args = std::vector<std::string>;

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

// Replaces, adds (`bytes` given, no such item) or deletes (no `bytes`) one
// item of a ZIP file in place, as someone tampering with a package would.
void editItem(const std::string& package, const std::string& item, const char* bytes = nullptr) {
    int error = 0;
    zip_t* za = zip_open(package.c_str(), 0, &error);
    ASSERT_NE(za, nullptr);
    const zip_int64_t at = zip_name_locate(za, item.c_str(), 0);
    if (bytes) {
        zip_source_t* source = zip_source_buffer(za, bytes, std::strlen(bytes), 0);
        ASSERT_GE(at < 0 ? zip_file_add(za, item.c_str(), source, 0)
                         : zip_file_replace(za, at, source, 0),
                  0);
    } else {
        ASSERT_EQ(zip_delete(za, at), 0);
    }
    ASSERT_EQ(zip_close(za), 0);
}

// Flips a stored byte of `item` behind the ZIP's back: its CRC no longer fits.
void flipByte(const std::string& package, const std::string& item) {
    std::string bytes = read_file(package);
    const std::size_t name = bytes.find(item);  // the local header comes first
    const auto extra = static_cast<unsigned char>(bytes[name - 2]);
    bytes[name + item.size() + extra + 1] ^= 0x20;
    write_file(package, bytes);
}

// The manifest re-sealed with a wrong numFiles.
std::string miscountedManifest(const std::string& package, TempDir& dir) {
    write_file(dir.file("m.xml"), zip_item(package, "manifest.xml"));
    AppManifestSerializer serializer;
    AppManifest manifest;
    serializer.load(dir.ufile("m.xml"), manifest);
    manifest.numFiles = 5;
    serializer.save(dir.ufile("m.xml"), manifest);
    return read_file(dir.file("m.xml"));
}

class TsappTool : public ::testing::Test {
  protected:
    // `out`: where standard output goes (stdout then reads as empty).
    ToolRun tsapp(const Args& args, const std::string& env = "", const std::string& out = "") {
        std::string command = "cd " + quoted(dir.path()) + " && " + env + " " + quoted(TSAPP_TOOL);
        for (const auto& arg : args) command += " " + quoted(arg);
        write_file(dir.file("stdout"), "");
        command += " >" + quoted(out.empty() ? dir.file("stdout") : out) + " 2>" +
                   quoted(dir.file("stderr"));
        const int raw = std::system(command.c_str());
        return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, read_file(dir.file("stdout")),
                read_file(dir.file("stderr"))};
    }
    std::string sample(const std::string& path = "") const {
        return std::string(TSAPP_SOURCE_DIR) + "/sample/app" + (path.empty() ? "" : "/" + path);
    }
    std::string packSample(const std::string& name = "hello.tsappinstall") {
        const ToolRun run = tsapp({"pack", sample(), "-o", name}, "SOURCE_DATE_EPOCH=1700000000");
        EXPECT_EQ(run.status, 0) << run.err;
        return dir.file(name);
    }
    TempDir dir;
};

TEST_F(TsappTool, PackedSampleChecksListsAndShowsItsManifest) {
    packSample();
    EXPECT_EQ(tsapp({"check", "hello.tsappinstall"}).out,
              "hello.tsappinstall: OK\n0 of 1 packages bad\n");
    const ToolRun json = tsapp({"info", "--json", "hello.tsappinstall"}, "TZ=Europe/Berlin");
    ASSERT_EQ(json.status, 0) << json.err;
    const auto info = nlohmann::json::parse(json.out);
    EXPECT_EQ(info["name"], "Hello Tessal");
    EXPECT_EQ(info["author"]["organization"], "Example Works");
    EXPECT_EQ(info["appEntries"],
              nlohmann::json::array({"README.txt", "data/config.json", "lib/util.js", "main.js"}));
    EXPECT_EQ(info["created"], "2023-11-14T23:13:20+01:00");
    EXPECT_EQ(info["verified"], true);
    EXPECT_EQ(tsapp({"check", "-q", "hello.tsappinstall"}).out, "");
    EXPECT_NE(tsapp({"info", "hello.tsappinstall"}).out.find("Name:              Hello Tessal\n"),
              std::string::npos);

    const auto list =
        nlohmann::json::parse(tsapp({"ls", "-r", "--json", "hello.tsappinstall"}).out);
    EXPECT_EQ(list["parts"].size(), 9u);  // the digest part too
    EXPECT_EQ(list["parts"][2], nlohmann::json::parse(R"({"name": "/icon.png", "size": 248,
        "compressedSize": 248, "method": "stored", "crc32": "41b7fc61", "contentType": "image/png"})"));
    EXPECT_EQ(list["relationships"][1]["target"], "/icon.png");
    const std::string table = tsapp({"list", "hello.tsappinstall"}).out;
    EXPECT_NE(table.find(" /files/lib/util.js\n"), std::string::npos);
    unsigned long long size = 0, packed = 0;
    for (const auto& part : list["parts"]) {
        size += part["size"].get<unsigned long long>();
        packed += part["compressedSize"].get<unsigned long long>();
    }
    char totals[80];
    std::snprintf(totals, sizeof totals, "%10llu %10llu %5.1f%%   9 parts\n", size, packed,
                  100.0 * (1.0 - static_cast<double>(packed) / size));
    EXPECT_EQ(table.substr(table.rfind('\n', table.size() - 2) + 1), totals);
}

TEST_F(TsappTool, CheckNamesTheFirstFaultOfEachTamperedPackage) {
    const std::string good = packSample();
    // Moves a size field of files/main.js in both its records: 0 the size,
    // 1 the compressed size.
    const auto misstate = [](const std::string& p, int which, int by) {
        ZipPatcher z(p);
        for (const std::size_t at : {z.localHeader("files/main.js") + 22 - 4 * which,
                                     z.centralHeader("files/main.js") + 24 - 4 * which})
            z.put32(at, z.get32(at) + by);
        z.save();
    };
    // Larger than a piece of the read, so it is inflated in a stream, where
    // the sample's small parts are inflated in one call: both must name
    // the same faults.
    std::string big;
    for (int i = 0; big.size() < (400u << 10); ++i) big += "var x" + std::to_string(i) + ";\n";
    const auto bigMain = [&](const std::string& p, int which, int by) {
        editItem(p, "files/main.js", big.c_str());
        misstate(p, which, by);
    };
    const std::string mainJs =
        "damaged part /files/main.js: cannot read the ZIP entry \"files/main.js\": ";
    const struct {
        const char* name;
        std::function<void(const std::string&)> tamper;
        std::string verdict;  // the start of the line
    } cases[] = {
        {"flip.tsappinstall", [](auto& p) { flipByte(p, "files/main.js"); },
         "damaged part /files/main.js: "},
        {"crc.tsappinstall", [](auto& p) { flipByte(p, "icon.png"); },
         "damaged part /icon.png: cannot read the ZIP entry \"icon.png\": its CRC-32 does not "
         "match"},
        {"removed.tsappinstall", [](auto& p) { editItem(p, "files/lib/util.js"); },
         "the app entry lib/util.js is not a part of the package"},
        {"added.tsappinstall", [](auto& p) { editItem(p, "files/extra.txt", "x"); },
         "the part /files/extra.txt is not among the app entries"},
        {"replaced.tsappinstall", [](auto& p) { editItem(p, "files/main.js", "x"); },
         "digest-mismatch /files/main.js: SHA-256 is 2d711642"},
        {"noicon.tsappinstall", [](auto& p) { editItem(p, "icon.png"); },
         "the icon relationship names no part (/icon.png)"},
        {"count.tsappinstall",
         [&](auto& p) { editItem(p, "manifest.xml", miscountedManifest(p, dir).c_str()); },
         "numFiles is 5 but the manifest lists 4 app entries"},
        {"seal.tsappinstall",
         [](auto& p) {
             editItem(p, "manifest.xml",
                      replaced(zip_item(p, "manifest.xml"), "A small", "A big").c_str());
         },
         "the manifest's seal is missing or wrong"},
        {"crcfield.tsappinstall",
         [](auto& p) {
             // A deflated part's recorded CRC-32, not its data: only the
             // inflater's CRC-32 of what it decoded can tell.
             ZipPatcher z(p);
             for (const std::size_t at :
                  {z.localHeader("files/main.js") + 14, z.centralHeader("files/main.js") + 16})
                 z.put32(at, z.get32(at) ^ 1);
             z.save();
         },
         "damaged part /files/main.js: cannot read the ZIP entry \"files/main.js\": its CRC-32 "
         "does not match"},
        {"short.tsappinstall", [&](auto& p) { misstate(p, 0, -1); },
         mainJs + "it holds more bytes than its declared size"},
        {"long.tsappinstall", [&](auto& p) { misstate(p, 0, 1); },
         mainJs + "it holds fewer bytes than its declared size"},
        {"cut.tsappinstall", [&](auto& p) { misstate(p, 1, -1); },
         mainJs + "the compressed data ends too early"},
        {"bigshort.tsappinstall", [&](auto& p) { bigMain(p, 0, -1); },
         mainJs + "it holds more bytes than its declared size"},
        {"biglong.tsappinstall", [&](auto& p) { bigMain(p, 0, 1); },
         mainJs + "it holds fewer bytes than its declared size"},
        {"bigcut.tsappinstall", [&](auto& p) { bigMain(p, 1, -1); },
         mainJs + "the compressed data ends too early"},
        {"other.zip", [](auto&) {}, "not an app file: the extension is not .tsappinstall"},
    };
    Args args = {"check", "-j", "2", "--all"};
    for (const auto& c : cases) {
        const std::string name = c.name;
        fs::copy_file(good, dir.file(name));
        c.tamper(dir.file(name));
        args.push_back(name);
    }
    args.push_back("hello.tsappinstall");
    const ToolRun check = tsapp(args);
    EXPECT_EQ(check.status, 1);
    std::istringstream lines(check.out);
    std::string line;
    for (const auto& c : cases) {
        while (std::getline(lines, line) && line[0] == ' ') {
        }
        EXPECT_EQ(line.find(std::string(": ") + c.verdict), line.find(": ")) << line;
    }
    std::getline(lines, line);
    EXPECT_EQ(line, "hello.tsappinstall: OK");
    std::getline(lines, line);
    EXPECT_EQ(line, "16 of 17 packages bad");
    // Jobs left over decode one package's parts on several threads, to the same verdict.
    for (const auto& c : cases)
        EXPECT_EQ(tsapp({"check", "-j", "4", "--json", c.name}).out,
                  tsapp({"check", "-j", "1", "--json", c.name}).out);

    const ToolRun quiet =
        tsapp({"check", "-q", "--json", "hello.tsappinstall", "seal.tsappinstall"});
    EXPECT_EQ(nlohmann::json::parse(quiet.out)["faults"][0]["kind"], "bad-seal");
    EXPECT_EQ(quiet.out.find('\n'), quiet.out.size() - 1);

    const ToolRun shown = tsapp({"info", "--no-verify", "--json", "seal.tsappinstall"});
    EXPECT_EQ(shown.status, 0) << shown.err;
    EXPECT_EQ(nlohmann::json::parse(shown.out)["summary"], "A big sample app");
    EXPECT_EQ(nlohmann::json::parse(shown.out)["fault"], cases[7].verdict);
    EXPECT_EQ(tsapp({"info", "--no-verify", "seal.tsappinstall"})
                  .out.rfind("NOT VERIFIED: " + cases[7].verdict + "\n", 0),
              0u);
}

TEST_F(TsappTool, EveryFailureIsOneLineNamingTheFileAndItsCause) {
    packSample();
    write_file(dir.file("empty.tsappinstall"), "");
    fs::create_directory(dir.file("folder.tsappinstall"));
    write_file(dir.file("cut.tsappinstall"),
               read_file(dir.file("hello.tsappinstall")).substr(0, 900));
    fs::copy_file(dir.file("hello.tsappinstall"), dir.file("schema.tsappinstall"));
    editItem(dir.file("schema.tsappinstall"), "manifest.xml",
             "<appProperties xmlns='http://schemas.corvane.com/tessal/app/2012/appProperties'/>");
    fs::copy(sample(), dir.file("src"), fs::copy_options::recursive);
    write_file(dir.file("src/files/back\\slash.txt"), "");
    write_file(dir.file("src/tsapp.json"),
               R"({"name": "n", "version": "1", "author": {"email": "e"}, "icon": "/etc/passwd",
                   "screenshot": "screenshot.png", "files": "../..", "requiredProducts": [{"nm": 1}]})");
    const struct {
        Args args;
        int status;
        std::string err;  // the line, up to the library's detail
    } cases[] = {
        {{"icon", "missing.tsappinstall", "x.png"},
         1,
         "tsapp: missing.tsappinstall: cannot be read: "},
        {{"part", "hello.tsappinstall", "urn:x", "o"},
         1,
         "tsapp: hello.tsappinstall: no package relationship of type urn:x\n"},
        {{"icon", "hello.tsappinstall", "/nonexistent/x.png"},
         1,
         "tsapp: /nonexistent/x.png: No such file or directory\n"},
        {{"screenshot", "hello.tsappinstall", "."}, 1, "tsapp: .: Is a directory\n"},
        {{"info", "missing.tsappinstall"},
         1,
         "tsapp: missing.tsappinstall: not an app package: cannot be read: cannot open "},
        {{"info", "empty.tsappinstall"},
         1,
         "tsapp: empty.tsappinstall: not an app package: not a ZIP file: "},
        {{"info", "folder.tsappinstall"},
         1,
         "tsapp: folder.tsappinstall: not an app package: not a regular file\n"},
        {{"info", "cut.tsappinstall"},
         1,
         "tsapp: cut.tsappinstall: not an app package: not a ZIP file: "},
        {{"info", "schema.tsappinstall"},
         1,
         "tsapp: schema.tsappinstall: the manifest does not match the schema: "},
        {{"extract", "hello.tsappinstall", ""}, 2, "tsapp: extract: DIR: must not be empty"},
        // One thread: the first conflict met is then always the same file.
        {{"extract", "--keep", "-j", "1", "hello.tsappinstall", "src"},
         1,
         "tsapp: src: cannot be written: the file \"_rels/.rels\" already exists\n"},
        {{"extract", "--max-size", "1K", "hello.tsappinstall", "o"},
         1,
         "tsapp: hello.tsappinstall: the package would write more than the limit of 1024 bytes\n"},
        {{"pack", "src", "-o", "out.zip"},
         1,
         "tsapp: out.zip: the package's name must end in .tsappinstall\n"},
        {{"pack", "src", "-o", "a.tsappinstall", "--guid", "not-a-guid"},
         2,
         "tsapp: pack: --guid: not 8-4-4-4-12 hex digits: not-a-guid (see 'tsapp pack --help')\n"},
        {{"pack", "src", "-o", "a.tsappinstall"},
         1,
         "tsapp: src/tsapp.json: entryPoint: is required\n"
         "tsapp: src/tsapp.json: author.email: unknown field\n"
         "tsapp: src/tsapp.json: author.name: is required\n"
         "tsapp: src/tsapp.json: requiredProducts[0].nm: unknown field\n"
         "tsapp: src/tsapp.json: requiredProducts[0].identifier: is required\n"
         "tsapp: src/tsapp.json: icon: /etc/passwd lies outside the source folder\n"
         "tsapp: src/tsapp.json: files: ../.. lies outside the source folder\n"},
    };
    fs::create_directories(dir.file("src/_rels"));
    write_file(dir.file("src/_rels/.rels"), "mine");
    for (const auto& c : cases) {
        const ToolRun run = tsapp(c.args);
        EXPECT_EQ(run.status, c.status) << c.args[1];
        EXPECT_EQ(run.err.rfind(c.err, 0), 0u) << run.err;
        if (c.args[0] != "pack") {
            EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
        }
    }
    EXPECT_EQ(read_file(dir.file("src/_rels/.rels")), "mine");
    fs::remove_all(dir.file("src/_rels"));
    write_file(dir.file("src/tsapp.json"), read_file(sample("tsapp.json")));
    EXPECT_EQ(tsapp({"pack", "src", "-o", "a.tsappinstall"}, "SOURCE_DATE_EPOCH=abc").err,
              "tsapp: src/tsapp.json: files: back\\slash.txt cannot be a part name: it holds a "
              "percent-encoded \"/\" or \"\\\"\n"
              "tsapp: SOURCE_DATE_EPOCH: not a whole number of seconds: \"abc\"\n");
    EXPECT_FALSE(file_exists(dir.file("a.tsappinstall")));
}

// A FIFO would block an open() for ever; none of these may be waited on.
TEST_F(TsappTool, OnlyRegularFilesAreOpenedAsPackages) {
    ASSERT_EQ(::mkfifo(dir.file("fifo.tsappinstall").c_str(), 0600), 0);
    fs::create_directory(dir.file("folder.tsappinstall"));
    const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string socketPath = dir.file("socket.tsappinstall");
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    socketPath.copy(address.sun_path, socketPath.size());
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    for (const std::string file : {"fifo", "folder", "socket"}) {
        const std::string package = file + ".tsappinstall";
        for (const Args& args : std::vector<Args>{{"check", package},
                                                  {"info", package},
                                                  {"list", package},
                                                  {"verify", package},
                                                  {"icon", package, "icon.png"},
                                                  {"extract", package, "out"}}) {
            const ToolRun run = tsapp(args, "timeout 10");
            EXPECT_EQ(run.status, 1) << args[0] << " " << package;
            EXPECT_NE((run.out + run.err).find("not a regular file"), std::string::npos)
                << args[0] << " " << package << ": " << run.out << run.err;
        }
    }
    ::close(sock);
    EXPECT_FALSE(fs::exists(dir.file("out")));
}

// A package named in Latin-1 and one with bytes after its end record: each
// command reads both, shows the name escaped and the bytes as one warning.
TEST_F(TsappTool, ForeignNamesShowEscapedAndTrailingBytesWarnOnce) {
    const std::string latin = "caf\xe9.tsappinstall";
    packSample(latin);
    write_file(dir.file("tail.tsappinstall"), read_file(dir.file(latin)) + std::string(100, '\0'));
    const std::string tail = "100 bytes follow the end of the ZIP archive and are ignored";
    const std::string warning = "tsapp: tail.tsappinstall: warning: " + tail + "\n";
    const struct {
        Args args;
        int status;
        std::string out, err;  // a part of stdout, all of stderr
    } cases[] = {
        {{"check", "-j", "1", latin, "tail.tsappinstall"},
         0,
         "caf\\xe9.tsappinstall: OK\ntail.tsappinstall: OK\n  warning: " + tail + "\n",
         ""},
        {{"check", "--json", "tail.tsappinstall"}, 0, "\"warnings\":[\"" + tail + "\"]", ""},
        {{"info", "tail.tsappinstall"}, 0, "Name:", warning},
        {{"list", "tail.tsappinstall"}, 0, "/manifest.xml", warning},
        {{"extract", "tail.tsappinstall", "out\xe9"}, 0, "", warning},
        {{"extract", "--verify", "--allow-unsigned", "tail.tsappinstall", "out"}, 0, "", warning},
        {{"list", "\x1b[2J\xff.tsappinstall"},
         1,
         "",
         "tsapp: \\x1b[2J\\xff.tsappinstall: cannot be read: cannot open \"" + dir.path() +
             "/\\x1b[2J\\xff.tsappinstall\": No such file or directory\n"},
    };
    for (const auto& c : cases) {
        const ToolRun run = tsapp(c.args);
        EXPECT_EQ(run.status, c.status) << c.args[0] << ": " << run.err;
        EXPECT_NE(run.out.find(c.out), std::string::npos) << c.args[0] << ": " << run.out;
        EXPECT_EQ(run.err, c.err) << c.args[0];
    }
    EXPECT_EQ(read_file(dir.file("out\xe9/files/main.js")), read_file(sample("files/main.js")));
}

TEST_F(TsappTool, PartsAndExtractGiveBackTheSourceBytes) {
    packSample();
    for (const Args& args :
         {Args{"icon", "hello.tsappinstall", "-"}, Args{"part", "hello.tsappinstall", "icon", "-"},
          Args{"part", "hello.tsappinstall", "/icon.png", "-"}})
        EXPECT_TRUE(tsapp(args).out == read_file(sample("icon.png")));
    // "-" reads the package from stdin through a copy that does not outlive the run.
    fs::create_directory(dir.file("tmp"));
    EXPECT_TRUE(tsapp({"icon", "-", "-"}, "TMPDIR=tmp <hello.tsappinstall").out ==
                read_file(sample("icon.png")));
    EXPECT_TRUE(fs::is_empty(dir.file("tmp")));
    // A name that is not UTF-8 (Latin-1 here) is read as the bytes it is.
    fs::copy_file(dir.file("hello.tsappinstall"), dir.file("caf\xe9.tsappinstall"));
    for (const Args& args :
         std::vector<Args>{{"check", "caf\xe9.tsappinstall"},
                           {"verify", "--allow-unsigned", "caf\xe9.tsappinstall"},
                           {"extract", "caf\xe9.tsappinstall", "caf\xe9"}})
        EXPECT_EQ(tsapp(args, "LC_ALL=C.UTF-8").status, 0) << args[0];
    EXPECT_EQ(tsapp({"part", "hello.tsappinstall", "manifest", "m.xml"}).status, 0);
    EXPECT_TRUE(read_file(dir.file("m.xml")) ==
                zip_item(dir.file("hello.tsappinstall"), "manifest.xml"));
    EXPECT_EQ(tsapp({"screenshot", "hello.tsappinstall", "shot.png"}).status, 0);
    EXPECT_TRUE(read_file(dir.file("shot.png")) == read_file(sample("screenshot.png")));

    const ToolRun extract = tsapp({"extract", "hello.tsappinstall", "out"});
    ASSERT_EQ(extract.status, 0) << extract.err;
    EXPECT_EQ(extract.out + extract.err, "");  // not a terminal: no progress
    for (const auto& entry : fs::recursive_directory_iterator(sample("files"))) {
        if (!entry.is_regular_file()) continue;
        const std::string relative = fs::relative(entry.path(), sample("files")).string();
        EXPECT_TRUE(read_file(dir.file("out/files/" + relative)) == read_file(entry.path()))
            << relative;
    }
    write_file(dir.file("out/icon.png"), "old");
    EXPECT_EQ(tsapp({"extract", "--keep", "hello.tsappinstall", "out"}).status, 1);
    EXPECT_EQ(read_file(dir.file("out/icon.png")), "old");
    EXPECT_EQ(tsapp({"extract", "hello.tsappinstall", "out"}).status, 0);
    EXPECT_TRUE(read_file(dir.file("out/icon.png")) == read_file(sample("icon.png")));
}

TEST_F(TsappTool, PackIsReproducibleAndAtomic) {
    const Args pack = {"pack", sample(), "--guid", "0123abcd-0000-4000-8000-00000000000f", "-o"};
    auto packTo = [&](const std::string& out) {
        Args args = pack;
        args.push_back(out);
        return tsapp(args, "SOURCE_DATE_EPOCH=1700000000");
    };
    const ToolRun first = packTo("a.tsappinstall");
    ASSERT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.out.rfind("a.tsappinstall: 9 parts, " +
                                  std::to_string(fs::file_size(dir.file("a.tsappinstall"))) +
                                  " bytes, GUID 0123abcd-0000-4000-8000-00000000000f, SHA-256 ",
                              0),
              0u)
        << first.out;
    ASSERT_EQ(packTo("b.tsappinstall").status, 0);
    EXPECT_TRUE(read_file(dir.file("a.tsappinstall")) == read_file(dir.file("b.tsappinstall")));

    // A source folder that fails leaves the old package as it was, and no
    // temporary file behind.
    fs::copy(sample(), dir.file("src"), fs::copy_options::recursive);
    fs::remove(dir.file("src/screenshot.png"));
    const ToolRun failed = tsapp({"pack", "src", "-o", "a.tsappinstall"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.err,
              "tsapp: src/tsapp.json: screenshot: screenshot.png is not a regular file\n");
    EXPECT_TRUE(read_file(dir.file("a.tsappinstall")) == read_file(dir.file("b.tsappinstall")));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 5);
}

// Each source is the sample spoiled one way; pack finds it before it writes.
TEST_F(TsappTool, PackRefusesEveryBadSourceBeforeWriting) {
    const auto json = [](const std::string& from, const std::string& to) {
        return [=](const std::string& src) {
            write_file(src + "/tsapp.json", replaced(read_file(src + "/tsapp.json"), from, to));
        };
    };
    const auto file = [](const std::string& name, const std::string& bytes) {
        return [=](const std::string& src) { write_file(src + "/" + name, bytes); };
    };
    struct Case {
        std::function<void(const std::string&)> spoil;
        std::string env, output, err;
    };
    const std::string at = "tsapp: src/tsapp.json: ";
    const std::vector<Case> cases = {
        {file("files/a\x01"
              "b.txt",
              "x"),
         "", "",
         at + "files: a\\x01b.txt cannot be a part name: it holds a control character or is "
              "not UTF-8\n"},
        {file("files/Main.JS", "x"), "", "",
         at + "files: main.js and Main.JS would be one part: part names ignore case\n"},
        {json("\"Hello Tessal\"", "\"Hello\\u0007\""), "", "",
         at + "name: holds a control character\n"},
        {json("\"Hello Tessal\"", "\" \\u00a0\u3000\""), "", "",
         at + "name: must not be empty or blank\n"},
        {json("\"name\":", "\"version\": \"2\", \"name\":"), "", "",
         at + "version: given more than once\n"},
        {file("icon.png", "not an image"), "", "", at + "icon: icon.png is not a PNG image\n"},
        {file("icon.png", "\xFF\xD8\xFF\xE0"), "", "",
         at + "icon: icon.png is not a PNG image: it holds a JPEG one\n"},
        {[&](const std::string& src) {
             file("icon.svg",
                  "<svg xmlns='http://www.w3.org/2000/svg'><q:script "
                  "xmlns:q='http://www.w3.org/2000/svg'/></svg>")(src);
             json("\"icon.png\"", "\"icon.svg\"")(src);
         },
         "", "",
         at + "icon: icon.svg is not an inert SVG image: it holds the element <q:script>\n"},
        {json("\"screenshot.png\"", "\"icon.png\""), "", "",
         at + "screenshot: icon.png would be the same part as the icon icon.png\n"},
        {[](const std::string&) {}, "SOURCE_DATE_EPOCH=-5", "",
         "tsapp: SOURCE_DATE_EPOCH: -5 is before 1980-01-01, the earliest time a ZIP file holds\n"},
        {[](const std::string&) {}, "SOURCE_DATE_EPOCH=4354819200", "",
         "tsapp: SOURCE_DATE_EPOCH: 4354819200 is after 2107-12-31, the latest time a ZIP file "
         "holds\n"},
        {[](const std::string& src) { fs::create_symlink("../icon.png", src + "/files/i.png"); },
         "", "", at + "files: i.png is a symbolic link\n"},
        {[](const std::string& src) { fs::remove_all(src); }, "", "",
         "tsapp: src: No such file or directory\n"},
        {[](const std::string&) {}, "", "nowhere/out.tsappinstall",
         "tsapp: nowhere/out.tsappinstall: No such file or directory\n"},
        {[](const std::string&) {}, "", "src/files/next.tsappinstall",
         "tsapp: src/files/next.tsappinstall: lies inside the app files folder, so the next pack "
         "would pack it\n"},
    };
    for (const Case& c : cases) {
        fs::remove_all(dir.file("src"));
        fs::copy(sample(), dir.file("src"), fs::copy_options::recursive);
        c.spoil(dir.file("src"));
        const ToolRun run =
            tsapp({"pack", "src", "-o", c.output.empty() ? "out.tsappinstall" : c.output}, c.env);
        EXPECT_EQ(run.status, 1) << c.err;
        EXPECT_EQ(run.err, c.err);
        EXPECT_FALSE(file_exists(dir.file("out.tsappinstall")));
        EXPECT_FALSE(file_exists(dir.file("src/files/next.tsappinstall")));
    }
}

TEST_F(TsappTool, PackLeavesOutIgnoredFilesAndReportsWhatItWrote) {
    fs::copy(sample(), dir.file("src"), fs::copy_options::recursive);
    write_file(dir.file("src/.tsappignore"), "# not shipped\n*.log\n!keep.log\nbuild/\n/tmp*\n");
    for (const char* folder : {"build", "sub", "empty"})
        fs::create_directories(dir.file("src/files/") + folder);
    for (const char* name : {"a.log", "keep.log", "build/x.js", "tmp1", "sub/tmp2", "sub/b.tmp"})
        write_file(dir.file("src/files/") + name, "k");
    const std::string warning = "tsapp: src/files/empty: warning: an empty folder is not packed\n";

    const ToolRun dry = tsapp({"pack", "src", "--dry-run", "--exclude", "*.tmp"});
    EXPECT_EQ(dry.status, 0);
    EXPECT_EQ(dry.out,
              "248\ticon.png\n556\tscreenshot.png\n84\tfiles/README.txt\n40\tfiles/data/"
              "config.json\n1\tfiles/keep.log\n119\tfiles/lib/util.js\n170\tfiles/main.js\n"
              "1\tfiles/sub/tmp2\n8 files, 1219 bytes, would be packed into "
              "Hello_Tessal-1.2.0.tsappinstall\n");
    EXPECT_EQ(dry.err, warning);
    const ToolRun strict = tsapp({"pack", "src", "--strict"});
    EXPECT_EQ(strict.status, 1);
    EXPECT_EQ(strict.err, warning + "tsapp: src: refused (--strict): the warnings above\n");
    EXPECT_FALSE(file_exists(dir.file("Hello_Tessal-1.2.0.tsappinstall")));

    const ToolRun packed = tsapp({"pack", "src", "--json", "--exclude", "*.tmp", "-j", "3"});
    ASSERT_EQ(packed.status, 0) << packed.err;
    const auto result = nlohmann::json::parse(packed.out);
    const std::string written = read_file(dir.file("Hello_Tessal-1.2.0.tsappinstall"));
    tsappinstall::integrity::Sha256 sha;
    sha.update(written.data(), written.size());
    EXPECT_EQ(result.dump(), nlohmann::json({{"guid", result["guid"]},
                                             {"package", "Hello_Tessal-1.2.0.tsappinstall"},
                                             {"parts", 11},
                                             {"sha256", sha.finishHex()},
                                             {"size", written.size()}})
                                 .dump());
    EXPECT_EQ(zip_item(dir.file("Hello_Tessal-1.2.0.tsappinstall"), "files/keep.log"), "k");
    EXPECT_EQ(tsapp({"pack", "src", "-q", "-o", "q.tsappinstall"}).out, "");
}

// Which app files a set of ignore rules leaves in, as --dry-run lists them.
TEST_F(TsappTool, IgnoreRulesFollowGitignoreSyntax) {
    fs::copy(sample(), dir.file("src"), fs::copy_options::recursive);
    for (const char* folder : {"lib", "docs/x"})
        fs::create_directories(dir.file("src/files/") + folder);
    for (const char* name : {"a.log", "lib/b.log", "docs/x/y.md", ".hidden"})
        write_file(dir.file("src/files/") + name, "k");
    const struct {
        std::string rules, packed;
    } cases[] = {
        {"*.log", ".hidden README.txt data/config.json docs/x/y.md lib/util.js main.js "},
        {"/*.log",
         ".hidden README.txt data/config.json docs/x/y.md lib/b.log lib/util.js main.js "},
        {"lib/\n.*", "README.txt a.log data/config.json docs/x/y.md main.js "},
        {"docs/**\n!docs/x/y.md\n*.log\n!lib/b.log",
         ".hidden README.txt data/config.json lib/b.log lib/util.js main.js "},
        {"**/y.md\n\\#x\n  \n# lib",
         ".hidden README.txt a.log data/config.json lib/b.log lib/util.js main.js "},
        {"d?cs\n[a-c].log", ".hidden README.txt data/config.json lib/util.js main.js "},
    };
    for (const auto& c : cases) {
        write_file(dir.file("src/.tsappignore"), c.rules);
        const ToolRun run = tsapp({"pack", "src", "--dry-run"});
        std::string packed;
        std::istringstream lines(run.out);
        for (std::string line; std::getline(lines, line);)
            if (line.find("\tfiles/") != std::string::npos)
                packed += line.substr(line.find("\tfiles/") + 7) + " ";
        EXPECT_EQ(packed, c.packed) << c.rules;
    }
}

TEST_F(TsappTool, PackSignsWithoutATerminalAndWarnsOfAnUnfitCertificate) {
    ASSERT_EQ(std::system(("cd " + quoted(dir.path()) +
                           " && openssl genpkey -algorithm ed25519 -aes-128-cbc -pass pass:secret "
                           "-out k.pem && openssl req -x509 -key k.pem -passin pass:secret -subj "
                           "/CN=a -days 2 -addext extendedKeyUsage=serverAuth -out c.pem "
                           "2>/dev/null")
                              .c_str()),
              0);
    write_file(dir.file("pass"), "secret\n");
    const std::string warning =
        "tsapp: c.pem: warning: the certificate's extended key usage does not include code "
        "signing\n";
    const Args sign = {"pack", sample(), "-q", "--sign", "k.pem", "--cert", "c.pem", "-o"};
    const auto run = [&](const char* out, Args more, const std::string& env = "") {
        Args args = sign;
        args.push_back(out);
        args.insert(args.end(), more.begin(), more.end());
        return tsapp(args, env);
    };
    const ToolRun fromFile = run("a.tsappinstall", {"--pass-file", "pass"});
    EXPECT_EQ(fromFile.status, 0);
    EXPECT_EQ(fromFile.out + fromFile.err, warning);
    EXPECT_EQ(run("b.tsappinstall", {"--pass-env", "P"}, "P=secret").status, 0);
    const ToolRun strict = run("c.tsappinstall", {"--pass-env", "P", "--strict"}, "P=secret");
    EXPECT_EQ(strict.status, 1);
    EXPECT_EQ(strict.err,
              warning + "tsapp: " + sample() + ": refused (--strict): the warnings above\n");
    EXPECT_EQ(run("c.tsappinstall", {"--pass-env", "P"}, "P=wrong").err.rfind("tsapp: k.pem: ", 0),
              0u);
    EXPECT_EQ(run("c.tsappinstall", {"--pass-env", "UNSET_P"}).err,
              "tsapp: UNSET_P: the environment variable is not set\n");
    EXPECT_FALSE(file_exists(dir.file("c.tsappinstall")));
}

// Usage errors are found before any package is opened: nothing on stdout,
// one line naming what is wrong and the help that answers it.
TEST_F(TsappTool, UsageErrorsExitTwoAndHelpAndVersionZero) {
    packSample();
    const std::string help = "(see 'tsapp --help')\n";
    const struct {
        Args args;
        std::string err;  // the start of the line
    } cases[] = {
        {{}, "tsapp: A subcommand is required " + help},
        {{"frobnicate"}, "tsapp: unknown command \"frobnicate\" " + help},
        {{"extrct", "a.tsappinstall"},
         "tsapp: unknown command \"extrct\"; did you mean \"extract\"? " + help},
        {{"help", "lsit"}, "tsapp: unknown command \"lsit\"; did you mean \"list\"? " + help},
        {{"info"}, "tsapp: info: PKG is required (see 'tsapp info --help')\n"},
        {{"icon", "a.tsappinstall"}, "tsapp: icon: OUT is required"},
        {{"check", "-j", "x", "a"}, "tsapp: check: "},
        {{"info", ""}, "tsapp: info: PKG: must not be empty"},
        {{"extract", "--max-size", "-5", "hello.tsappinstall", "o"},
         "tsapp: extract: --max-size: not a size: -5"},
        {{"extract", "--max-size", "99999999999999999999", "hello.tsappinstall", "o"},
         "tsapp: extract: --max-size: too large: 99999999999999999999"},
        {{"extract", "--max-size", "16E", "hello.tsappinstall", "o"},
         "tsapp: extract: --max-size: not a size"},
        {{"verify", "--allow-unsigned", "--trust", "typo.pem", "hello.tsappinstall"},
         "tsapp: typo.pem: cannot load trust anchors: No such file or directory\n"},
        {{"extract", "--trust", "hello.tsappinstall", "hello.tsappinstall", "o"},
         "tsapp: hello.tsappinstall: cannot load trust anchors: no PEM certificate or revocation "
         "list in it"},
        {{"extract", "--no-verify", "--verify", "hello.tsappinstall", "o"},
         "tsapp: --no-verify: cannot be combined with --verify or --trust\n"},
    };
    for (const auto& c : cases) {
        const ToolRun run = tsapp(c.args);
        EXPECT_EQ(run.status, 2) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err.rfind(c.err, 0), 0u) << run.err;
        EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    }
    EXPECT_FALSE(fs::exists(dir.file("o")));
    EXPECT_EQ(tsapp({"help"}).out, tsapp({"--help"}).out);
    EXPECT_EQ(tsapp({"help", "extract"}).out, tsapp({"extract", "--help"}).out);
    EXPECT_NE(tsapp({"help", "extract"}).out.find("--keep"), std::string::npos);
    const ToolRun version = tsapp({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("tsapp ", 0), 0u);
}

// A write that fails is a failure: to a full stdout, or to an output file
// whose part turns out damaged, which must keep its old bytes and leave no
// new or temporary file behind.
TEST_F(TsappTool, FailedOutputsExitOneAndLeaveFilesAsTheyWere) {
    packSample();
    fs::copy_file(dir.file("hello.tsappinstall"), dir.file("crc.tsappinstall"));
    flipByte(dir.file("crc.tsappinstall"), "icon.png");
    write_file(dir.file("old.png"), "old");
    for (const Args& args : std::vector<Args>{{"info", "--json", "hello.tsappinstall"},
                                              {"list", "hello.tsappinstall"},
                                              {"check", "hello.tsappinstall"},
                                              {"verify", "--allow-unsigned", "hello.tsappinstall"},
                                              {"part", "hello.tsappinstall", "/icon.png", "-"},
                                              {"help"}}) {
        const ToolRun run = tsapp(args, "", "/dev/full");
        EXPECT_EQ(run.status, 1) << args[0];
        EXPECT_EQ(run.err, "tsapp: stdout: No space left on device\n") << args[0];
    }
    for (const std::string out : {"old.png", "new.png"}) {
        const ToolRun run = tsapp({"icon", "crc.tsappinstall", out});
        EXPECT_EQ(run.status, 1);
        EXPECT_NE(run.err.find("CRC-32"), std::string::npos) << run.err;
    }
    EXPECT_EQ(read_file(dir.file("old.png")), "old");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 5);
}

// Whether `value` has the shape `shape` gives: the same keys in the same
// order, "string", "number", "boolean" or "string|null" for a leaf, one
// element's shape for every element of an array.
::testing::AssertionResult hasShape(const nlohmann::ordered_json& value,
                                    const nlohmann::ordered_json& shape, const std::string& at) {
    if (shape.is_string()) {
        const std::string kind = shape;
        const bool fits = kind == "string|null" ? value.is_string() || value.is_null()
                                                : kind == value.type_name();
        if (fits) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << at << " is a " << value.type_name();
    }
    if (shape.is_array() != value.is_array() || shape.is_object() != value.is_object())
        return ::testing::AssertionFailure() << at << " is a " << value.type_name();
    if (shape.is_array()) {
        for (std::size_t i = 0; i < value.size(); ++i)
            if (auto r = hasShape(value[i], shape[0], at + "[" + std::to_string(i) + "]"); !r)
                return r;
        return ::testing::AssertionSuccess();
    }
    auto key = value.begin();
    for (auto expected = shape.begin(); expected != shape.end(); ++expected, ++key) {
        if (key == value.end() || key.key() != expected.key())
            return ::testing::AssertionFailure() << at << " lacks " << expected.key();
        if (auto r = hasShape(*key, *expected, at + "." + key.key()); !r) return r;
    }
    if (key != value.end()) return ::testing::AssertionFailure() << at << " has " << key.key();
    return ::testing::AssertionSuccess();
}

// Every JSON output against the shape the man page gives, on a package
// whose digest list does not match: extraction and info refuse what check
// calls bad, and every fault kind is a token.
TEST_F(TsappTool, JsonOutputsKeepTheirShapeAndBadPackagesAreRefusedEverywhere) {
    packSample();
    fs::copy_file(dir.file("hello.tsappinstall"), dir.file("bad.tsappinstall"));
    editItem(dir.file("bad.tsappinstall"), "files/main.js", "x");
    editItem(dir.file("bad.tsappinstall"), "files/a%0Ab.txt", "x");
    const auto faults = nlohmann::ordered_json::parse(
        R"([{"kind": "string", "item": "string", "text": "string"}])");
    const auto verdict =
        nlohmann::ordered_json{{"package", "string"}, {"good", "boolean"}, {"faults", faults}};
    auto verified = verdict;
    verified.erase("faults");
    verified.update({{"signed", "boolean"}, {"signer", "string"}, {"faults", faults}});
    const auto list = nlohmann::ordered_json::parse(R"({"parts": [{"name": "string",
        "size": "number", "compressedSize": "number", "method": "string", "crc32": "string",
        "contentType": "string"}], "relationships": [{"source": "string", "id": "string",
        "type": "string", "target": "string", "external": "boolean"}]})");
    const auto info = nlohmann::ordered_json::parse(R"({"GUID": "string", "entryPoint": "string",
        "name": "string", "version": "string", "createdByTESSALRelease": "string",
        "summary": "string", "description": "string", "minTESSALVer": "string",
        "maxTESSALVer": "string", "author": {"name": "string", "contact": "string",
        "organization": "string"}, "supportedPlatforms": ["string"], "requiredProducts":
        [{"identifier": "string", "name": "string", "version": "string"}], "pathEntries":
        ["string"], "numFiles": "number", "created": "string|null", "appEntries": ["string"],
        "signature": "null", "verified": "boolean", "fault": "string"})");
    const struct {
        Args args;
        int status;
        nlohmann::ordered_json shape;
    } cases[] = {
        {{"check", "--json", "bad.tsappinstall"}, 1, verdict},
        {{"verify", "--json", "bad.tsappinstall"}, 1, verified},
        {{"list", "-r", "--json", "bad.tsappinstall"}, 0, list},
        {{"info", "--no-verify", "--json", "bad.tsappinstall"}, 0, info},
    };
    for (const auto& c : cases) {
        const ToolRun run = tsapp(c.args);
        EXPECT_EQ(run.status, c.status) << c.args[0] << run.err;
        const auto value = nlohmann::ordered_json::parse(run.out);
        EXPECT_TRUE(hasShape(value, c.shape, c.args[0]));
        for (const auto& fault : value.value("faults", nlohmann::ordered_json::array()))
            EXPECT_EQ(
                fault["kind"].get<std::string>().find_first_not_of("abcdefghijklmnopqrstuvwxyz-"),
                std::string::npos);
    }
    EXPECT_EQ(nlohmann::json::parse(tsapp(cases[1].args).out)["faults"][0]["kind"],
              "digest-mismatch");
    EXPECT_NE(tsapp({"list", "bad.tsappinstall"}).out.find(" /files/a\\nb.txt\n"),
              std::string::npos);
    EXPECT_EQ(tsapp({"info", "--json", "bad.tsappinstall"}).status, 1);
    const ToolRun extract = tsapp({"extract", "bad.tsappinstall", "out"});
    EXPECT_EQ(extract.status, 1);
    EXPECT_EQ(extract.err.rfind("tsapp: bad.tsappinstall: digest-mismatch /files/main.js: ", 0),
              0u);
    EXPECT_FALSE(fs::exists(dir.file("out")));
    EXPECT_EQ(tsapp({"extract", "--no-verify", "bad.tsappinstall", "out"}).status, 0);
    EXPECT_EQ(read_file(dir.file("out/files/main.js")), "x");
}

// info names the signer by the certificate's own SHA-256 fingerprint, and
// only the author's anchor makes verify trust it.
TEST_F(TsappTool, SignedPackageShowsItsSignerAndVerifiesOnlyAgainstItsAnchor) {
    const std::string keys = "cd " + quoted(dir.path()) +
                             " && for n in a b; do openssl req -x509 -newkey ed25519 -nodes "
                             "-keyout $n.key -out $n.pem -subj /CN=$n -days 2 2>/dev/null; done";
    ASSERT_EQ(std::system(keys.c_str()), 0);
    ASSERT_EQ(
        tsapp({"pack", sample(), "-o", "s.tsappinstall", "--sign", "a.key", "--cert", "a.pem"})
            .status,
        0);
    const std::string print = "openssl x509 -in " + quoted(dir.file("a.pem")) +
                              " -noout -fingerprint -sha256 | tr -d : | tr A-F a-f >" +
                              quoted(dir.file("print"));
    ASSERT_EQ(std::system(print.c_str()), 0);
    const auto info = nlohmann::json::parse(tsapp({"info", "--json", "s.tsappinstall"}).out);
    EXPECT_EQ(info["signature"]["signer"], "CN=a");
    EXPECT_EQ("sha256 fingerprint=" + info["signature"]["fingerprint"].get<std::string>() + "\n",
              read_file(dir.file("print")));
    EXPECT_EQ(info["signature"]["fault"], "");
    EXPECT_EQ(tsapp({"verify", "-q", "--trust", "a.pem", "s.tsappinstall"}).status, 0);
    const ToolRun other = tsapp({"verify", "--json", "--trust", "b.pem", "s.tsappinstall"});
    EXPECT_EQ(other.status, 1);
    EXPECT_EQ(nlohmann::json::parse(other.out)["faults"][0]["kind"], "untrusted-signer");
}

using TsappToolConcurrency = TsappTool;

// check and verify judge packages on a pool of threads and print the
// verdicts in the order given, each its own package's.
TEST_F(TsappToolConcurrency, VerdictsFromSeveralThreadsKeepTheirPackagesAndOrder) {
    packSample();
    Args packages;
    for (int i = 0; i < 6; ++i) {
        packages.push_back(std::to_string(i) + ".tsappinstall");
        fs::copy_file(dir.file("hello.tsappinstall"), dir.file(packages.back()));
        if (i % 2) editItem(dir.file(packages.back()), "files/main.js", "x");
    }
    for (Args args : {Args{"check", "-j", "4", "--json"},
                      Args{"verify", "-j", "4", "--json", "--allow-unsigned"}}) {
        args.insert(args.end(), packages.begin(), packages.end());
        const ToolRun run = tsapp(args);
        EXPECT_EQ(run.status, 1) << run.err;
        std::istringstream lines(run.out);
        std::string line;
        for (std::size_t i = 0; i < packages.size() && std::getline(lines, line); ++i) {
            const auto verdict = nlohmann::json::parse(line);
            EXPECT_EQ(verdict["package"], packages[i]);
            EXPECT_EQ(verdict["good"], i % 2 == 0) << args[0] << " " << i;
        }
    }
}

}  // namespace
