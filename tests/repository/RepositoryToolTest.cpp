// The tool over a repository: indexing and searching a folder, and
// installing and upgrading from a recorded repository, as people run it.

#include <sqlite3.h>

#include <cstdio>

#include "facade/FacadeFixture.hpp"
#include "manifest/ManifestTestSupport.hpp"
#include "repository/RepositoryTestSupport.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/repository/Index.hpp"

namespace {

using namespace tsapp::test;
using namespace tsappinstall::repository;
namespace fs = std::filesystem;

TEST(RepositoryTool, IndexesAFolderAndSearchesIt) {
    Published published;
    const std::string tool = std::string(TSAPP_TOOL) + " ";
    const std::string out = published.dir.file("out");
    // A manifest in XML 1.1 is one more bad package, not the end of the run.
    const std::string xml11 = published.repo() + "/xml11.tsappinstall";
    app_package(replaced(signed_manifest(fullRecord()), "version=\"1.0\"", "version=\"1.1\""))
        .write(xml11);
    const std::string notXml10 = "XML 1.1, not XML 1.0";
    // The gallery's URL and title, given once, are kept.
    for (const std::string skip :
         {"--url https://apps.example.org/test/ --title 'Example & Co' ", "--skip-bad "}) {
        EXPECT_EQ(WEXITSTATUS(std::system((tool + "repo index --id test --valid-for 2d " + skip +
                                           published.repo() + " >" + out + " 2>&1")
                                              .c_str())),
                  skip[2] == 'u' ? 1 : 0);
        EXPECT_NE(read_file(out).find("bad.tsappinstall: left out: not an app package"),
                  std::string::npos);
        EXPECT_NE(read_file(out).find("xml11.tsappinstall: left out: "), std::string::npos);
        EXPECT_NE(read_file(out).find(notXml10), std::string::npos);
    }
    EXPECT_NE(read_file(out).find("index version " + std::to_string(versionOf(published.repo())) +
                                  ": 4 packages listed, 0 read, 2 bad\n"),
              std::string::npos);
    const std::string gallery = read_file(published.repo() + "/index.html");
    EXPECT_NE(gallery.find("<title>Example &amp; Co</title>"), std::string::npos);
    EXPECT_NE(gallery.find("tsapp repo add test https://apps.example.org/test/ <span"),
              std::string::npos);
    EXPECT_EQ(WEXITSTATUS(std::system((tool + "check " + xml11 + " >" + out).c_str())), 1);
    EXPECT_NE(read_file(out).find(notXml10), std::string::npos) << read_file(out);
    ASSERT_EQ(std::system((tool + "search OTHER --unsigned --json --repo file://" +
                           published.repo() + " >" + out)
                              .c_str()),
              0);
    const auto found = nlohmann::json::parse(read_file(out));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]["name"], "<b>Other</b>");
}

// The tool's exit status and everything it printed; `environment` is
// prefixed to the command ("NAME=value ").
std::pair<int, std::string> runTool(const std::string& arguments, const std::string& out,
                                    const std::string& environment = {}) {
    const int status =
        std::system((environment + TSAPP_TOOL + " " + arguments + " >" + out + " 2>&1").c_str());
    return {WEXITSTATUS(status), read_file(out)};
}

TEST(RepositoryTool, InstallsAndUpgradesFromARecordedRepositoryAndRefusesWhatItMustNot) {
    Published published;
    const std::string repo = published.dir.file("apps"), out = published.dir.file("out");
    const std::string root = " --root " + published.dir.file("root");
    const std::string guid = "0123abcd-0000-4000-8000-00000000000a";
    fs::create_directory(repo);
    packApp(repo, "hello-1.0.tsappinstall", {{"version", "1.0"}, {"guid", guid}});
    indexFolder(repo, published.signing());
    const Server http(repo, published.dir.file("http.port"));
    const auto installed = [&] {
        return runTool("installed" + root + " | sed 1d | tr -s ' ' | cut -d' ' -f1-3", out).second;
    };

    // The root keeps its own copy of the anchors given.
    const std::string given = published.dir.file("given.pem");
    fs::copy(published.dir.file("ca.pem"), given);
    EXPECT_EQ(
        runTool("repo add main " + http.url("http", "ok") + " --trust " + given + root, out).first,
        0);
    fs::remove(given);
    EXPECT_EQ(runTool("search hello" + root, out).second.substr(0, 17), "Hello Tessal 1.0 ");
    // The index, its signature and the package over one connection.
    const std::size_t connections = http.connections();
    EXPECT_EQ(runTool("install 'Hello Tessal'" + root, out).first, 0) << read_file(out);
    EXPECT_EQ(http.connections(), connections + 1);
    // Refusals and usage errors: one line each, exit 1 or 2.
    const std::string rogue = " --trust " + published.dir.file("rogue.pem");
    const struct {
        std::string arguments;
        int status;
        std::string line;
    } refusals[] = {
        {"repo add main /elsewhere" + rogue, 1,
         "tsapp: main: a repository of that name is recorded already (" + http.url("http", "ok") +
             ")\n"},
        {"repo add other " + http.url("http", "ok") + rogue, 1,
         "tsapp: other: the index's signature: the signer is not trusted"},
        {"repo remove other", 1, "tsapp: other: no repository of that name\n"},
        {"repo set-url other /elsewhere", 1, "tsapp: other: no repository of that name\n"},
        {"install Nothing", 1, "tsapp: Nothing: no repository lists an app called \"Nothing\"\n"},
        {"install 'hello tesal'", 1,
         "tsapp: hello tesal: no repository lists an app called \"hello tesal\"; did you mean "
         "\"Hello Tessal\"?\n"},
        {"install 'Hello Tessal@9'", 1,
         "tsapp: Hello Tessal@9: no repository lists version 9 of it (it lists 1.0)\n"},
        {"install 'Hello Tessal' --host-release 2020.1", 1,
         "tsapp: Hello Tessal: no version of it fits this host (the newest, 1.0: "},
        {"install typo.tsappinstall", 1,
         "tsapp: typo.tsappinstall: not an app package: cannot be read: cannot open "},
        {"install hello.tsappinstall --trust /dev/null", 2, "tsapp: /dev/null: "},
        {"search hello --trust /dev/null", 2, "tsapp: /dev/null: "},
        {"search hello --repo " + repo, 2,
         "tsapp: " + repo + ": give --trust FILE, the publisher's CA certificate"},
        {"search hello --unsigned --repo htp://example.org/apps", 1,
         "tsapp: htp://example.org/apps: the URL scheme htp: is not one of http:, https: and "
         "file:\n"},
        {"repo add 'a\tb' " + repo + rogue, 2,
         "tsapp: repo add: NAME: a repository name may not hold control characters (such as a "
         "tab) (see 'tsapp repo add --help')\n"},
        {"repo add '' " + repo + rogue, 2,
         "tsapp: repo add: NAME: must not be empty (see 'tsapp repo add --help')\n"},
        {"repo index --valid-for 0s " + repo, 2,
         "tsapp: repo index: --valid-for: not a time to stay valid: \"0s\" (a number above 0 "
         "followed by d, h, m or s, such as 30d) (see 'tsapp repo index --help')\n"},
        {"upgrade", 2, "tsapp: upgrade: name the apps, or give --all\n"},
        {"upgrade --all hello", 2, "tsapp: upgrade: give --all or name the apps, not both\n"},
        {"audit ''", 2, "tsapp: audit: APP: must not be empty (see 'tsapp audit --help')\n"},
        {"recover " + repo, 2, "tsapp: --root: give DIR or --root, not both\n"},
    };
    for (const auto& r : refusals) {
        const auto [status, text] = runTool(r.arguments + root, out);
        EXPECT_EQ(status, r.status) << r.arguments;
        EXPECT_EQ(text.substr(0, r.line.size()), r.line) << r.arguments;
    }
    // libcurl is loaded on the first transfer: when it cannot be (missing,
    // or a library without its functions), a fetch over http: fails as a
    // transfer does, naming the library and the loader's reason, and a
    // folder, which needs none, is read as ever.
    for (const auto& [library, reason] :
         {std::pair<std::string, std::string>{"libcurl-missing.so.4",
                                              ": cannot open shared object file"},
          {"libz.so.1", "libz.so.1: undefined symbol: curl_global_init\n"}}) {
        const std::string environment = "TSAPP_LIBCURL=" + library + " ";
        const auto [status, text] = runTool("search hello" + root, out, environment);
        EXPECT_EQ(status, 1);
        const std::string line = "tsapp: main: index.json: cannot load " + library;
        EXPECT_EQ(text.substr(0, line.size()), line) << text;
        EXPECT_NE(text.find(reason), std::string::npos) << text;
        EXPECT_EQ(runTool("search hello --unsigned --repo file://" + repo, out, environment).first,
                  0)
            << read_file(out);
    }
    const std::string list = runTool("repo list" + root, out).second;
    const std::string pinned = "main  " + http.url("http", "ok") +
                               "\n  repository stable, index signed by the key SHA-256 ";
    EXPECT_EQ(list.substr(0, pinned.size()), pinned);
    EXPECT_NE(list.find(" CN=CA\n  package trust: as the index\n"), std::string::npos) << list;

    fs::copy(repo + "/index.json", published.dir.file("index-1.json"));
    fs::copy(repo + "/index.json.p7s", published.dir.file("index-1.json.p7s"));
    packApp(repo, "hello-1.10.tsappinstall", {{"version", "1.10"}, {"guid", guid}},
            published.dir.file("signer"));
    indexFolder(repo, published.signing());
    const std::uint64_t seen = versionOf(repo);
    EXPECT_EQ(
        runTool("outdated --json" + root, out),
        std::make_pair(
            100,
            std::string("{\"guid\":\"" + guid +
                        "\",\"name\":\"Hello Tessal\",\"installed\":\"1.0\",\"available\":\"1.10\","
                        "\"repository\":\"main\",\"held\":false}\n")));
    EXPECT_EQ(runTool("outdated" + root, out).second,
              "NAME          INSTALLED  AVAILABLE  REPOSITORY\nHello Tessal  1.0        1.10       "
              "main\n");
    // Held, it is listed as such and passed by, unless told.
    EXPECT_EQ(runTool("hold 'Hello Tessal'" + root, out),
              std::make_pair(0, std::string("held Hello Tessal 1.0\n")));
    EXPECT_EQ(
        runTool("outdated" + root, out),
        std::make_pair(0, std::string("NAME          INSTALLED  AVAILABLE  REPOSITORY\n"
                                      "Hello Tessal  1.0        1.10       main        held\n")));
    EXPECT_EQ(runTool("upgrade --all" + root, out),
              std::make_pair(0, std::string("tsapp: Hello Tessal: held at version 1.0; 1.10 is not "
                                            "installed (tsapp unhold lets it go)\n")));
    EXPECT_EQ(runTool("upgrade 'Hello Tessal'" + root, out),
              std::make_pair(1, std::string("tsapp: Hello Tessal 1.10: Hello Tessal is held at "
                                            "version 1.0; --ignore-hold replaces it\n")));
    EXPECT_EQ(runTool("unhold 'Hello Tessal'" + root, out),
              std::make_pair(0, std::string("let go of Hello Tessal 1.0\n")));
    EXPECT_EQ(runTool("upgrade --all" + root, out).first, 0) << read_file(out);
    EXPECT_EQ(installed(), "Hello Tessal 1.10\n");

    // An older index, then a package whose bytes are not the indexed ones:
    // one line each, nothing installed, nothing left in the downloads.
    packApp(repo, "hello-1.11.tsappinstall", {{"version", "1.11"}, {"guid", guid}});
    indexFolder(repo, published.signing());
    const std::string newest = read_file(repo + "/index.json");
    const std::string newestSignature = read_file(repo + "/index.json.p7s");
    fs::copy(published.dir.file("index-1.json"), repo + "/index.json",
             fs::copy_options::overwrite_existing);
    fs::copy(published.dir.file("index-1.json.p7s"), repo + "/index.json.p7s",
             fs::copy_options::overwrite_existing);
    const auto apps = snapshot_tree(published.dir.file("root/apps"));
    const std::string rollback = "the index is version " +
                                 std::to_string(tsappinstall::repository::parseIndex(
                                                    read_file(published.dir.file("index-1.json")))
                                                    .version) +
                                 ", older than version " + std::to_string(seen) + " seen before";
    EXPECT_EQ(runTool("upgrade --all --json" + root, out),
              std::make_pair(1, "tsapp: main: " + rollback +
                                    "\n{\"error\":{\"kind\":\"index-rollback\",\"item\":\"main\","
                                    "\"detail\":\"" +
                                    rollback + "\"}}\n"));
    write_file(repo + "/index.json", newest);
    write_file(repo + "/index.json.p7s", newestSignature);
    std::string bytes = read_file(repo + "/hello-1.11.tsappinstall");
    bytes[bytes.size() / 2] ^= 1;
    write_file(repo + "/hello-1.11.tsappinstall", bytes);
    // Whole, the package fails its SHA-256; in ranges, the item the byte
    // lies in fails the digest list.
    for (const auto& [options, refusal] :
         {std::pair<std::string, std::string>{" --full", "its SHA-256 is"}, {"", "the item \""}}) {
        const auto [status, text] = runTool("upgrade Hello\\ Tessal" + options + root, out);
        EXPECT_EQ(status, 1);
        EXPECT_EQ(text.rfind("tsapp: main: hello-1.11.tsappinstall: " + refusal, 0), 0u) << text;
        EXPECT_EQ(snapshot_tree(published.dir.file("root/apps")), apps);
        EXPECT_EQ(installed(), "Hello Tessal 1.10\n");
        EXPECT_TRUE(filesIn(published.dir.file("root/.downloads")).empty());
    }
}

// Where `text` holds a raw control character (C0 but the line feed, DEL,
// C1) or a byte that is not part of UTF-8, as "\xNN at N"; empty when
// nowhere.
std::string rawControl(const std::string& text) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const auto next = at + 1 < text.size() ? static_cast<unsigned char>(text[at + 1]) : 0;
        std::size_t length = byte < 0x80                   ? 1
                             : byte >= 0xC2 && byte < 0xE0 ? 2
                             : byte >= 0xE0 && byte < 0xF0 ? 3
                             : byte >= 0xF0 && byte < 0xF5 ? 4
                                                           : 0;
        for (std::size_t i = 1; i < length; ++i)
            if (at + i >= text.size() || (static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80)
                length = 0;
        if ((byte < 0x20 && byte != '\n') || byte == 0x7F || (byte == 0xC2 && next < 0xA0) ||
            length == 0) {
            char shown[32];
            std::snprintf(shown, sizeof shown, "\\x%02x at %zu", byte, at);
            return shown;
        }
        at += length - 1;
    }
    return {};
}

// Text from a package (CR, LF and C1's CSI in the name), a signed index
// (ESC) and the database (ESC, a byte that is not UTF-8) reaches the
// terminal escaped, from every command that prints it: none can forge a
// line or drive the terminal.
TEST(RepositoryTool, PrintsNoRawControlFromAPackageAnIndexOrTheDatabase) {
    Published published;
    const std::string repo = published.dir.file("evil"), out = published.dir.file("out");
    const std::string guid = "0123abcd-0000-4000-8000-0000000000ee";
    fs::create_directory(repo);
    for (const std::string version : {"1.0", "2.0"})
        packApp(repo, "evil-" + version + ".tsappinstall", {{"version", version}, {"guid", guid}},
                "", "", [](tsappinstall::pack::PackPlan& plan) {
                    plan.manifest.name = u"Evil\r\n0123abcd  9.9  Fake\u009b2J";
                    plan.manifest.summary = plan.manifest.description = u"\u009b31mred";
                });
    indexFolder(repo, published.signing());
    auto index = nlohmann::json::parse(read_file(repo + "/index.json"));
    for (auto& entry : index["packages"]) entry["summary"] = "\x1b]0;title\x07\x1b[2J";
    const std::string text = index.dump();
    write_file(repo + "/index.json", text);
    const auto signature = tsappinstall::integrity::Signer(published.dir.file("signer.key"),
                                                           published.dir.file("signer.pem"))
                               .sign(text);
    write_file(repo + "/" +
                   tsappinstall::repository::signatureFileOf(index["version"].get<std::uint64_t>()),
               std::string(signature.begin(), signature.end()));

    const std::string evil = " " + repo + "/evil-", root = " --root " + published.dir.file("root");
    const struct {
        std::string args;
        int status;
    } steps[] = {{"repo add main " + repo + " --trust " + published.dir.file("ca.pem") + root, 0},
                 {"info" + evil + "1.0.tsappinstall", 0},
                 {"check --all" + evil + "1.0.tsappinstall", 0},
                 {"install" + evil + "1.0.tsappinstall" + root, 0},
                 {"install" + evil + "2.0.tsappinstall" + root, 0},
                 {"rollback " + guid + root, 0},
                 {"search evil" + root, 0},
                 {"installed" + root, 0},
                 {"show " + guid + root, 0},
                 {"audit" + root, 1},
                 {"outdated" + root, 100},
                 {"remove " + guid + root, 0}};
    for (const auto& step : steps) {
        if (step.args == "installed" + root) {
            sqlite3* db = nullptr;
            ASSERT_EQ(sqlite3_open(published.dir.file("root/store.db").c_str(), &db), SQLITE_OK);
            const char* taint =
                "UPDATE versions SET name = name || char(27) || '[2J' || CAST(X'FF' AS TEXT);"
                "UPDATE files SET path = path || char(27) || '[2J' WHERE path = 'icon.png'";
            EXPECT_EQ(sqlite3_exec(db, taint, nullptr, nullptr, nullptr), SQLITE_OK);
            sqlite3_close(db);
        }
        const auto [status, printed] = runTool(step.args, out);
        EXPECT_EQ(status, step.status) << step.args << ":\n" << printed;
        EXPECT_EQ(rawControl(printed), "") << step.args << ":\n" << printed;
    }
}

}  // namespace
