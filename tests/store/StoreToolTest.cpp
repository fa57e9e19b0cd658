// The store session of docs/store.md, run as written: every command's
// output must be what the page shows; a publisher's move to a new key as
// the tool makes and takes it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <regex>

#include "store/StoreTestSupport.hpp"

namespace {

using namespace tsapp::test;

// `text` with `dir` as "$PWD" and each folder token ("-" and 16 hex
// digits) as "-…".
std::string masked(std::string text, const std::string& dir) {
    for (auto at = text.find(dir); at != std::string::npos; at = text.find(dir))
        text.replace(at, dir.size(), "$PWD");
    for (std::size_t at = text.find('-'); at != std::string::npos; at = text.find('-', at + 1)) {
        const std::string token = text.substr(at + 1, 16);
        if (token.size() == 16 && token.find_first_not_of("0123456789abcdef") == std::string::npos)
            text.replace(at + 1, 16, "…");
    }
    return text;
}

// The lines of the block after "<!-- store session -->" in docs/store.md.
std::string readmeSession() {
    const std::string readme = read_file(std::string(TSAPP_SOURCE_DIR) + "/docs/store.md");
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
    // Install times: the page shows one, the run has its own.
    const std::regex minute("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}");
    EXPECT_EQ(std::regex_replace(masked(read_file(out), dir.path()), minute, "DATE"),
              std::regex_replace(expected, minute, "DATE"));
}

struct ToolRun {
    int status;
    std::string out;
};

// The tool in `dir` with the root `root`, stdout and stderr together.
ToolRun tsappIn(const TempDir& dir, const std::string& args) {
    const std::string command =
        "cd '" + dir.path() + "' && TSAPP_ROOT=root '" TSAPP_TOOL "' " + args + " > out.txt 2>&1";
    const int status = std::system(command.c_str());
    return {WEXITSTATUS(status), read_file(dir.file("out.txt"))};
}

TEST(StoreTool, FailuresAndJson) {
    TempDir dir;
    const std::string package = packApp(dir, AppRecipe("1.2.0"), "hello");
    ASSERT_EQ(tsappIn(dir, "install --product tessal.core=2026.1 hello.tsappinstall").status, 0);
    writeInstalled(dir.file("root/apps/") + kGuid + "/current/icon.png", "changed");
    const std::string root = dir.file("root");
    const struct {
        std::string args;
        int status;
        std::string out;  // the whole of it, or its first line for JSON
    } cases[] = {
        {"remove nosuch", 1, "tsapp: nosuch: no installed app is called nosuch\n"},
        {"show 'hello tesal'", 1,
         "tsapp: hello tesal: no installed app is called hello tesal; did you mean \"Hello "
         "Tessal\"?\n"},
        {"show --json 'Hello Tessal' | head -c 68", 0,
         "{\"guid\":\"" + std::string(kGuid) + "\",\"name\":\"Hello Tessal\""},
        {"rollback hello", 1, "tsapp: hello: no installed app is called hello\n"},
        {"files --json 'Hello Tessal' | grep '\"icon.png\"' | sed 's/,.sha256.*//'", 0,
         "{\"path\":\"" + root + "/apps/" + kGuid +
             "/current/icon.png\",\"file\":\"icon.png\",\"size\":248,\"mode\":\"0444\"\n"},
        {"owner root/apps/" + std::string(kGuid) + "/current/icon.png", 0,
         "root/apps/" + std::string(kGuid) + "/current/icon.png: Hello Tessal 1.2.0 (" + kGuid +
             ")\n"},
        {"owner hello.tsappinstall", 1, "tsapp: hello.tsappinstall: no installed app owns it\n"},
        {"rollback 'Hello Tessal'", 1,
         "tsapp: Hello Tessal: " + std::string(kGuid) +
             " has no previous version to roll back to\n"},
        {"install --product core hello.tsappinstall", 2,
         "tsapp: install: --product: not of the form ID=VERSION: \"core\" (see 'tsapp install "
         "--help')\n"},
        {"audit --json | sed 's/.*findings//'", 0,
         "\":[{\"kind\":\"modified\",\"path\":\"icon.png\",\"detail\":\"size 7, recorded "
         "248\"}]}\n"},
        {"audit", 1,
         "Hello Tessal 1.2.0 (" + std::string(kGuid) +
             "): 1 difference\n  modified icon.png (size 7, recorded 248)\n"},
        // The record names standard input, not the temporary copy made of it.
        {"install --reinstall --product tessal.core=2026.1 - < hello.tsappinstall >/dev/null && "
         "TSAPP_ROOT=root '" TSAPP_TOOL "' show 'Hello Tessal' | grep '^package:'",
         0, "package: stdin\n"},
    };
    for (const auto& c : cases) {
        const ToolRun run = tsappIn(dir, c.args);
        EXPECT_EQ(run.status, c.status) << c.args;
        EXPECT_EQ(run.out, c.out) << c.args;
    }
    write_file(dir.file("root/host.json"), "[]");
    EXPECT_EQ(tsappIn(dir, "install hello.tsappinstall").out,
              "tsapp: " + root + "/host.json: is not a JSON object\n");
}

// A publisher moves to a new key: rotate makes the proof with the old one,
// pack carries it, install takes the new key over the recorded one and
// show tells which key handed over.
TEST(StoreTool, RotatedKeyUpgradesWithItsProof) {
    TempDir dir;
    std::string keys =
        "openssl req -x509 -newkey ed25519 -nodes -keyout ca.key -out ca.pem "
        "-subj /CN=CA -days 2";
    for (const std::string n : {"a", "b"})
        keys += " && openssl genpkey -algorithm ED25519 -out " + n +
                ".key && openssl req -x509 -key " + n + ".key -CA ca.pem -CAkey ca.key -days 2 " +
                "-subj /CN=" + n + " -out " + n + ".pem";
    ASSERT_EQ(std::system(("cd '" + dir.path() + "' && (" + keys + ") 2>/dev/null").c_str()), 0);
    for (const std::string version : {"1.2.0", "1.3.0"}) {
        const std::string src = dir.file(version);
        std::filesystem::copy(std::string(TSAPP_SOURCE_DIR) + "/sample/app", src,
                              std::filesystem::copy_options::recursive);
        auto fields = nlohmann::json::parse(read_file(src + "/tsapp.json"));
        fields["version"] = version;
        write_file(src + "/tsapp.json", fields.dump());
    }
    const std::string pack = std::string("pack -q --guid ") + kGuid;
    const ToolRun rotated =
        tsappIn(dir, "rotate --old-key a.key --old-cert a.pem --new-cert b.pem");
    EXPECT_EQ(rotated.status, 0) << rotated.out;
    EXPECT_EQ(rotated.out.rfind("-----BEGIN CMS-----\n", 0), 0u);
    write_file(dir.file("ab.pem"), rotated.out);
    const struct {
        std::string args;
        int status;
        std::string out;  // its start
    } steps[] = {
        {"rotate --old-key a.key --old-cert a.pem --new-cert a.pem", 1,
         "tsapp: a.pem: the new certificate has the old key; a renewed certificate keeps its key "
         "and needs no proof\n"},
        {pack + " 1.3.0 --rotation-proof ab.pem -o x.tsappinstall", 2,
         "tsapp: pack: --rotation-proof: needs --sign"},
        {pack + " 1.3.0 --sign b.key --cert b.pem --rotation-proof ca.pem -o x.tsappinstall", 1,
         "tsapp: ca.pem: a PEM block that is not CMS among the proofs\n"},
        {pack + " 1.2.0 --sign a.key --cert a.pem -o a.tsappinstall", 0, ""},
        {pack + " 1.3.0 --sign b.key --cert b.pem --rotation-proof ab.pem -o b.tsappinstall", 0,
         ""},
        {"install --trust ca.pem --product tessal.core=2026.1 a.tsappinstall", 0, "installed"},
        {"install --trust ca.pem --product tessal.core=2026.1 b.tsappinstall", 0, "upgraded"},
    };
    for (const auto& step : steps) {
        const ToolRun run = tsappIn(dir, step.args);
        EXPECT_EQ(run.status, step.status) << step.args << "\n" << run.out;
        EXPECT_EQ(run.out.substr(0, step.out.size()), step.out) << step.args;
    }
    const auto signer =
        nlohmann::json::parse(tsappIn(dir, "show --json " + std::string(kGuid)).out)["signer"];
    ASSERT_EQ(signer["rotatedFrom"].size(), 1u);
    const std::string fromKey = signer["rotatedFrom"][0];
    const std::string shown = tsappIn(dir, "show " + std::string(kGuid)).out;
    EXPECT_NE(shown.find("\nsigner key: SHA-256 " + signer["keyFingerprint"].get<std::string>() +
                         "\nhanded over by key: SHA-256 " + fromKey + "\n"),
              std::string::npos)
        << shown;
    EXPECT_NE(fromKey, signer["keyFingerprint"]);
}

// The user's files outlive the versions that held them, each kept with a
// warning, listed by audit without failing it, and go with a purge; a
// rollback to a version that is not as installed waits for --force.
TEST(StoreTool, KeepsTheUsersFiles) {
    TempDir dir;
    for (const std::string version : {"1.2.0", "1.3.0", "1.4.0"})
        packApp(dir, AppRecipe(version), version);
    const std::string app = "$PWD/root/apps/" + std::string(kGuid);
    const std::string was = "tsapp: Hello Tessal: version 1.3.0 is not as installed: ";
    const struct {
        std::string args;
        int status;
        std::string out;
    } steps[] = {
        {"install --product tessal.core=2026.1 1.2.0.tsappinstall", 0,
         "installed Hello Tessal 1.2.0 (" + std::string(kGuid) + ") in " + app + "/v1.2.0-…\n"},
        {"install --keep 0 --product tessal.core=2026.1 1.3.0.tsappinstall", 0,
         "upgraded Hello Tessal 1.2.0 -> 1.3.0 (" + std::string(kGuid) + ") in " + app +
             "/v1.3.0-…\n  6 files unchanged, taken from 1.2.0\ntsapp: warning: kept " + app +
             "/v1.2.0-…/files/notes.txt: changed or added since the install (--purge removes "
             "it)\n"},
        {"install --product tessal.core=2026.1 1.4.0.tsappinstall", 0,
         "upgraded Hello Tessal 1.3.0 -> 1.4.0 (" + std::string(kGuid) + ") in " + app +
             "/v1.4.0-…\n  6 files unchanged, taken from 1.3.0\n"},
        {"rollback 'Hello Tessal'", 1,
         was + "missing icon.png\ntsapp: Hello Tessal: not rolled back; --force rolls back to "
               "it as it is\n"},
        {"rollback --force 'Hello Tessal'", 0,
         "rolled Hello Tessal back to 1.3.0 (" + std::string(kGuid) + ") in " + app +
             "/v1.3.0-…\n"},
        {"audit", 1,
         "Hello Tessal 1.3.0 (" + std::string(kGuid) +
             "): 1 difference\n  missing icon.png\n  kept " + app +
             "/v1.2.0-…/files/notes.txt (remove --purge deletes it)\n"},
        {"remove --purge " + std::string(kGuid), 0,
         "removed Hello Tessal 1.3.0 (" + std::string(kGuid) + ")\n"},
    };
    for (const auto& step : steps) {
        if (step.args.rfind("install --keep", 0) == 0)
            write_file(dir.file("root/apps/") + kGuid + "/current/files/notes.txt", "mine");
        if (step.args.rfind("rollback 'Hello", 0) == 0)
            for (const auto& entry :
                 std::filesystem::directory_iterator(dir.file("root/apps/") + kGuid))
                if (entry.path().filename().string().rfind("v1.3.0-", 0) == 0)
                    std::filesystem::remove(entry.path() / "icon.png");
        const ToolRun run = tsappIn(dir, step.args);
        EXPECT_EQ(run.status, step.status) << step.args << "\n" << run.out;
        EXPECT_EQ(masked(run.out, dir.path()), step.out) << step.args;
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir.file("root/apps")));
}

// Each --dry-run prints the plan and leaves every byte of the root as it
// was; the real run then does what the plan said (versions, kept files) or
// refuses as the plan refused.
TEST(StoreTool, DryRunPlansWhatTheRunDoes) {
    TempDir dir;
    for (const std::string version : {"1.2.0", "1.3.0", "1.4.0"})
        packApp(dir, AppRecipe(version), version);
    const std::string core = " --product tessal.core=2026.1 ";
    ASSERT_EQ(tsappIn(dir, "install" + core + "1.2.0.tsappinstall").status, 0);
    const std::string guid = kGuid;
    const std::string app = "$PWD/root/apps/" + guid;
    const std::string keeps = "/files/notes.txt (changed or added since the install)\n";
    const struct {
        std::string args;
        int status;
        std::string plan;  // the dry run's text, disk bytes as "N"; files the user adds are kept
    } steps[] = {
        {"install --keep 0" + core + "1.3.0.tsappinstall", 0,
         "would upgrade Hello Tessal 1.2.0 -> 1.3.0 (" + guid +
             ")\n  signer: no verified signer (unchanged)\n  disk: uses N bytes\n  keeps " + app +
             "/v1.2.0-…" + keeps},
        {"install" + core + "1.2.0.tsappinstall", 1,
         "tsapp: 1.2.0.tsappinstall: version 1.2.0 is older than the installed 1.3.0; "
         "--allow-downgrade installs it\n"},
        {"install" + core + "1.4.0.tsappinstall", 0,
         "would upgrade Hello Tessal 1.3.0 -> 1.4.0 (" + guid +
             ")\n  signer: no verified signer (unchanged)\n  disk: uses N bytes\n"},
        {"rollback 'Hello Tessal'", 0,
         "would roll back Hello Tessal 1.4.0 -> 1.3.0 (" + guid +
             ")\n  signer: no verified signer (unchanged)\n  disk: frees N bytes\n  keeps " + app +
             "/v1.4.0-…" + keeps},
        {"remove " + guid, 0,
         "would remove Hello Tessal 1.3.0 (" + guid + ")\n  disk: frees N bytes\n  keeps " + app +
             "/v1.3.0-…" + keeps},
        {"rollback 'Hello Tessal'", 1,
         "tsapp: Hello Tessal: no installed app is called Hello "
         "Tessal\n"},
    };
    const std::regex bytes("disk: (uses|frees) [0-9]+ bytes");
    for (const auto& step : steps) {
        if (step.plan.find("keeps") != std::string::npos)
            write_file(dir.file("root/apps/") + guid + "/current/files/notes.txt", "mine");
        const Tree before = snapshot_tree(dir.file("root"));
        const ToolRun dry = tsappIn(dir, step.args + " --dry-run");
        EXPECT_EQ(dry.status, step.status) << step.args << "\n" << dry.out;
        EXPECT_EQ(std::regex_replace(masked(dry.out, dir.path()), bytes, "disk: $1 N bytes"),
                  step.plan)
            << step.args;
        const ToolRun json = tsappIn(dir, step.args + " --dry-run --json");
        EXPECT_EQ(snapshot_tree(dir.file("root")), before) << step.args;
        const ToolRun run = tsappIn(dir, step.args + " --json");
        EXPECT_EQ(run.status, step.status) << step.args << "\n" << run.out;
        if (step.status != 0) {
            EXPECT_EQ(run.out, json.out) << step.args;  // the same refusal
            continue;
        }
        // Warnings share the output; the object is the line that starts with "{".
        const auto object = [](const std::string& out) {
            const auto start = out.rfind('{', 0) == 0 ? 0 : out.find("\n{") + 1;
            return nlohmann::json::parse(out.substr(start, out.find('\n', start) - start));
        };
        const auto planned = object(json.out);
        const auto done = object(run.out);
        EXPECT_EQ(planned["dryRun"], true);
        EXPECT_EQ(done["dryRun"], false);
        for (const char* key : {"action", "guid", "name", "from", "to", "kept"})
            EXPECT_EQ(planned[key], done[key]) << step.args << " " << key;
        EXPECT_EQ(planned["signer"]["changes"], false) << step.args;
        EXPECT_EQ(planned["kept"].size(), step.plan.find("keeps") == std::string::npos ? 0u : 1u);
    }
}

// A root that holds nothing is read as empty and never made: a mistyped
// --root must leave no folder behind, and neither may a first command that
// fails before it records anything. Audit has no clean answer for a root
// that is not there, and no command takes a file for a root.
TEST(StoreTool, ReadersLeaveAMissingRootAsItIs) {
    TempDir dir;
    packApp(dir, AppRecipe("1.2.0"), "hello");
    write_file(dir.file("bad.pem"), "no certificate\n");
    write_file(dir.file("file"), "");
    const std::string missing = dir.file("missing");
    const std::string nothing = ": nothing is installed in " + missing + "\n";
    const std::string notAFolder = "tsapp: " + dir.file("file") + ": not an apps root: ";
    const struct {
        std::string args;
        int status;
        std::string out;
    } cases[] = {
        {"installed --json", 0, ""},
        {"audit", 1, "tsapp: " + missing + ": not an apps root: No such file or directory\n"},
        {"show hello", 1, "tsapp: hello" + nothing},
        {"remove hello x", 1, "tsapp: hello" + nothing + "tsapp: x" + nothing},
        {"rollback hello", 1, "tsapp: hello" + nothing},
        {"recover", 1, "tsapp: " + missing + ": No such file or directory\n"},
        {"repo list", 0, ""},
        {"repo remove r", 1, "tsapp: r: no repository of that name\n"},
        {"outdated", 0, ""},
        {"install nosuch.tsappinstall", 1,
         "tsapp: nosuch.tsappinstall: not an app package: cannot be read: cannot open \"" +
             dir.file("nosuch.tsappinstall") + "\": No such file or directory\n"},
        {"install --trust bad.pem hello.tsappinstall", 2,
         "tsapp: bad.pem: cannot load trust anchors: no PEM certificate or revocation list in it "
         "(error:05800088:x509 certificate routines::no certificate or crl found)\n"},
        {"repo add r nosuch --trust nosuch.pem", 2,
         "tsapp: nosuch.pem: cannot load trust anchors: No such file or directory\n"},
        {"installed --root file", 1, notAFolder + "Not a directory\n"},
        {"audit --root file", 1, notAFolder + "Not a directory\n"},
        {"install hello.tsappinstall --root file", 1, notAFolder + "Not a directory\n"},
    };
    for (const auto& c : cases) {
        const bool rooted = c.args.find("--root") != std::string::npos;
        const ToolRun run = tsappIn(dir, c.args + (rooted ? "" : " --root missing"));
        EXPECT_EQ(run.status, c.status) << c.args;
        EXPECT_EQ(run.out, c.out) << c.args;
        EXPECT_FALSE(std::filesystem::exists(missing)) << c.args;
    }
}

// A writer that finds the root busy says so once and waits as long as
// --wait says, or not at all with --no-wait; readers of the snapshot do
// not wait.
TEST(StoreTool, WaitsForABusyRootAsTold) {
    TempDir dir;
    packApp(dir, AppRecipe("1.2.0"), "hello");
    ASSERT_EQ(tsappIn(dir, "install --product tessal.core=2026.1 hello.tsappinstall").status, 0);
    const std::string root = dir.file("root");
    const std::string pid = std::to_string(::getpid());
    write_file(root + "/.lock", pid + "\n");
    const int holder = ::open((root + "/.lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(holder, LOCK_EX), 0);
    const std::string busy = root + " is in use by another process (pid " + pid + ")";
    const struct {
        std::string args;
        int status;
        std::string out;
    } cases[] = {
        {"remove --no-wait hello", 1, "tsapp: hello: " + busy + "\n"},
        {"audit --wait 1", 1,
         "tsapp: waiting for " + root + " (held by pid " + pid + ")\ntsapp: " + root + ": " + busy +
             "; gave up after 1 second\n"},
        {"installed | sed 1d | cut -c1-21", 0, "Hello Tessal  1.2.0  \n"},
        {"audit --wait 1 --no-wait", 2,
         "tsapp: audit: --wait excludes --no-wait (see 'tsapp audit --help')\n"},
    };
    for (const auto& c : cases) {
        const ToolRun run = tsappIn(dir, c.args);
        EXPECT_EQ(run.status, c.status) << c.args;
        EXPECT_EQ(run.out, c.out) << c.args;
    }
    ::close(holder);
}

// A database that is damaged, from a newer program, or no file of the
// root's own is refused by every command with the reason, and left
// exactly as it was.
TEST(StoreTool, LeavesADamagedDatabaseAlone) {
    TempDir dir;
    packApp(dir, AppRecipe("1.2.0"), "hello");
    const std::string install = "install --product tessal.core=2026.1 hello.tsappinstall";
    ASSERT_EQ(tsappIn(dir, install + " --root good").status, 0);
    const std::string good = dir.file("good/store.db");
    const std::string valid = read_file(good);
    const std::string root = dir.file("root");
    const std::string db = root + "/store.db";
    const struct {
        std::string name;
        std::function<void()> make;
        std::string reason;
    } cases[] = {
        {"garbage", [&] { write_file(db, std::string(8192, 'x')); }, "file is not a database"},
        {"truncated", [&] { write_file(db, valid.substr(0, valid.size() / 2)); },
         "database disk image is malformed"},
        {"newer",
         [&] {
             std::string newer = valid;
             newer[63] = 9;  // the header's user version, big-endian at 60
             write_file(db, newer);
         },
         "has schema version 9, newer than this program knows"},
        {"a link", [&] { std::filesystem::create_symlink(good, db); }, "is a symbolic link"},
        {"a dangling link", [&] { std::filesystem::create_symlink(dir.file("nowhere.db"), db); },
         "is a symbolic link"},
    };
    for (const auto& c : cases) {
        std::filesystem::remove_all(root);
        std::filesystem::create_directory(root);
        c.make();
        const std::string before = std::filesystem::is_symlink(db) ? "" : read_file(db);
        for (const std::string& command :
             std::vector<std::string>{"installed", "audit", install, "recover root"}) {
            const ToolRun run = tsappIn(dir, command);
            EXPECT_EQ(run.status, 1) << c.name << ": " << command;
            EXPECT_NE(run.out.find(c.reason), std::string::npos) << c.name << ": " << run.out;
            EXPECT_NE(run.out.find("; it was left as it is\n"), std::string::npos) << run.out;
            if (!before.empty()) {
                EXPECT_EQ(read_file(db), before) << c.name << ": " << command;
            }
        }
        EXPECT_EQ(read_file(good), valid) << c.name;
        EXPECT_FALSE(std::filesystem::exists(dir.file("nowhere.db"))) << c.name;
    }
}

}  // namespace
