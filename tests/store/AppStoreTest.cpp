// The app store: what install, upgrade, rollback, audit and remove do to
// an apps root and its records, what they refuse and with which words, and
// that a root whose database is damaged or newer is never touched.

#include <fcntl.h>
#include <grp.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <functional>

#include "store/StoreTestSupport.hpp"
#include "tsappinstall/integrity/KeyRotation.hpp"
#include "tsappinstall/manifest/AppManifest.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tsapp::test;
using namespace tsappinstall::store;

using Kind = AuditFinding::Kind;

std::string findings(const AuditReport& report) {
    std::string text;
    for (const auto& f : report.findings)
        text += std::string(token(f.kind)) + " " + f.path + " (" + f.detail + ")\n";
    return text;
}

// The lines a refused call gave, joined; "" when it went through.
template <class Call>
std::string refusal(Call call) {
    try {
        call();
    } catch (const StoreError& e) {
        std::string text;
        for (const auto& line : e.lines()) text += line + "\n";
        return text;
    }
    return "";
}

// What `read` returns when run as the user nobody, in a child process.
std::string asNobody(const std::function<std::string()>& read) {
    int ends[2];
    if (::pipe(ends) != 0) return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        std::string out = "cannot become nobody";
        if (::setgroups(0, nullptr) == 0 && ::setresgid(65534, 65534, 65534) == 0 &&
            ::setresuid(65534, 65534, 65534) == 0) {
            try {
                out = read();
            } catch (const std::exception& e) {
                out = std::string("threw: ") + e.what();
            }
        }
        for (std::size_t at = 0; at < out.size();) {
            const ssize_t n = ::write(ends[1], out.data() + at, out.size() - at);
            if (n <= 0) break;
            at += static_cast<std::size_t>(n);
        }
        ::_exit(0);
    }
    ::close(ends[1]);
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = ::read(ends[0], buffer, sizeof buffer)) > 0;)
        out.append(buffer, static_cast<std::size_t>(n));
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return out;
}

class Store : public ::testing::Test {
  protected:
    std::string pack(const AppRecipe& recipe, const std::string& name) {
        return packApp(dir, recipe, name);
    }
    std::string v(const std::string& version) {
        return pack(AppRecipe(version), "hello-" + version);
    }
    std::string root() const { return dir.file("root"); }

    // A CA and the signers A, B and C below it; A2, a renewed certificate
    // of A's key, and A-2020, one of A's key that expired in 2020.
    static void SetUpTestSuite() {
        std::string script = "cd " + keys.path() + " && openssl req -x509 -newkey ed25519 -nodes " +
                             "-keyout ca.key -out ca.pem -subj /CN=CA -days 2";
        for (const char* signer : {"A", "B", "C"})
            script += std::string(" && openssl genpkey -algorithm ED25519 -out ") + signer +
                      ".key && openssl req -x509 -key " + signer +
                      ".key -CA ca.pem -CAkey ca.key " + "-days 2 -subj /CN=" + signer + " -out " +
                      signer + ".pem";
        script +=
            " && cp A.key A2.key && openssl req -x509 -key A.key -CA ca.pem -CAkey ca.key -days 3 "
            "-subj /CN=A -out A2.pem && cp A.key A-2020.key && touch index.txt && echo 01 > serial "
            "&& printf '[ca]\ndefault_ca = d\n[d]\ndatabase = index.txt\nnew_certs_dir = .\n"
            "serial = serial\ndefault_md = default\npolicy = p\n[p]\ncommonName = supplied\n' "
            "> ca.cnf && openssl req -new -key A.key -subj /CN=A -out A.csr && openssl ca -batch "
            "-config ca.cnf -cert ca.pem -keyfile ca.key -in A.csr -out A-2020.pem -notext "
            "-startdate 20200101000000Z -enddate 20200102000000Z";
        ASSERT_EQ(std::system(("(" + script + ") >/dev/null 2>&1").c_str()), 0);
    }
    AppRecipe signedBy(const std::string& signer, const std::string& version) {
        AppRecipe recipe(version);
        recipe.signer = keys.file(signer);
        return recipe;
    }
    // The first 64 hex digits `command` prints about the signer, lower case.
    std::string hexOf(const std::string& signer, const std::string& command) {
        const std::string out = dir.file(signer + ".hex");
        std::system((command + " > " + out).c_str());
        std::string text;
        for (char c : read_file(out).substr(read_file(out).find('=') + 1))
            if (std::isxdigit(static_cast<unsigned char>(c)) && text.size() < 64)
                text += static_cast<char>(std::tolower(c));
        return text;
    }
    std::string fingerprintOf(const std::string& signer) {
        return hexOf(signer, "openssl x509 -in " + keys.file(signer + ".pem") +
                                 " -noout -fingerprint -sha256");
    }
    std::string keyOf(const std::string& signer) {
        return hexOf(signer, "openssl x509 -in " + keys.file(signer + ".pem") +
                                 " -pubkey -noout | openssl pkey -pubin -outform DER | "
                                 "openssl dgst -sha256");
    }
    // The proof that `from`'s key hands over to `to`'s.
    std::string proof(const std::string& from, const std::string& to) {
        const tsappinstall::integrity::Signer old(keys.file(from + ".key"),
                                                  keys.file(from + ".pem"));
        return tsappinstall::integrity::signKeyRotation(old, keyOf(to));
    }
    AppRecipe signedWithProofs(const std::string& signer, const std::string& version,
                               const std::string& proofs) {
        AppRecipe recipe = signedBy(signer, version);
        recipe.keyRotations = proofs;
        return recipe;
    }

    static TempDir keys;
    TempDir dir;
};
TempDir Store::keys;

TEST_F(Store, InstallUpgradeRollbackAuditRemove) {
    AppStore apps(root());
    EXPECT_EQ(apps.install(v("1.2.0"), fittingHost()).kind, InstallResult::Kind::New);
    const auto upgrade = apps.install(v("1.3.0"), fittingHost());
    EXPECT_EQ(upgrade.kind, InstallResult::Kind::Upgrade);
    EXPECT_EQ(upgrade.replacedVersion, "1.2.0");
    EXPECT_EQ(read_file(root() + "/apps/" + kGuid + "/current/files/README.txt"),
              "version 1.3.0\n");
    const auto shown = apps.show("Hello Tessal");
    ASSERT_EQ(shown.previous.size(), 1u);
    EXPECT_EQ(shown.previous[0].version, "1.2.0");
    EXPECT_EQ(shown.current.packageSha256.size(), 64u);
    EXPECT_EQ(settledState(root()), std::string(kGuid) + "=1.3.0");

    // A third version drops the oldest; rollback goes back one and deletes the one it left.
    apps.install(v("1.10.0"), fittingHost());
    EXPECT_EQ(apps.show(kGuid).previous.size(), 1u);
    EXPECT_EQ(apps.rollback(kGuid).version, "1.3.0");
    EXPECT_EQ(settledState(root()), std::string(kGuid) + "=1.3.0");
    EXPECT_EQ(refusal([&] { apps.rollback(kGuid); }),
              std::string(kGuid) + " has no previous version to roll back to\n");

    const std::string folder = apps.show(kGuid).current.folder;
    writeInstalled(folder + "/files/README.txt", "edited");
    ::chmod((folder + "/icon.png").c_str(), 0600);
    fs::remove(folder + "/screenshot.png");
    write_file(folder + "/files/notes.txt", "mine");
    EXPECT_EQ(findings(apps.audit(kGuid)),
              "modified files/README.txt (size 6, recorded 14)\n"
              "extra files/notes.txt ()\n"
              "mode icon.png (0600, recorded 0444)\n"
              "missing screenshot.png ()\n");

    std::string kept;
    for (const auto& k : apps.remove("Hello Tessal").kept) kept += k.path + " ";
    EXPECT_EQ(kept, "files/README.txt files/notes.txt icon.png ");
    EXPECT_TRUE(apps.list().empty());
    EXPECT_EQ(snapshot_tree(folder).size(), 4u);  // files/, the two kept there, icon.png
    apps.install(v("1.2.0"), fittingHost());
    apps.remove(kGuid, true);
    EXPECT_FALSE(fs::exists(root() + "/apps/" + kGuid + "/current"));
}

// The files an upgrade finds unchanged are taken from the version it
// replaces: the new version is what a fresh install of it is, byte for
// byte, mode for mode and record for record (read-only files), and each
// taken file is one file with the old one unless the file system clones.
// A write into such a file shows in both versions, and the one kept for
// rollback is then not returned to.
TEST_F(Store, UpgradesTakeUnchangedFilesFromTheVersionTheyReplace) {
    AppStore fresh(dir.file("fresh"));
    fresh.install(v("1.3.0"), fittingHost());
    AppStore apps(root());
    apps.install(v("1.2.0"), fittingHost());
    const fs::path was = apps.show(kGuid).current.folder;
    const auto old = apps.files(kGuid);
    const auto upgraded = apps.install(v("1.3.0"), fittingHost());
    const fs::path now = apps.show(kGuid).current.folder;
    EXPECT_EQ(snapshot_tree(now), snapshot_tree(fresh.show(kGuid).current.folder));
    const auto text = [](const std::vector<InstalledFile>& files) {
        std::string all;
        for (const auto& f : files)
            all += f.path + " " + std::to_string(f.size) + " " + std::to_string(f.mode) + " " +
                   f.sha256 + "\n";
        return all;
    };
    EXPECT_EQ(text(apps.files(kGuid)), text(fresh.files(kGuid)));
    std::uint64_t same = 0, bytes = 0, shared = 0;
    for (const auto& file : apps.files(kGuid)) {
        EXPECT_EQ(file.mode & 0222, 0u) << file.path;
        for (const auto& before : old)
            if (before.path == file.path && before.sha256 == file.sha256) {
                ++same;
                bytes += file.size;
                struct stat a {
                }, b{};
                ::stat((was / file.path).c_str(), &a);
                ::stat((now / file.path).c_str(), &b);
                shared += a.st_ino == b.st_ino;
            }
    }
    EXPECT_GE(same, 5u);
    EXPECT_EQ(upgraded.takenFiles, same);
    EXPECT_EQ(upgraded.takenBytes, bytes);
    if (shared == 0) return;  // cloned: each version has a file of its own
    EXPECT_EQ(shared, same);

    const fs::path main = now / "files/main.js";
    const std::string recorded = std::to_string(fs::file_size(main));
    fs::permissions(main, fs::perms::owner_write, fs::perm_options::add);
    write_file(main.string(), "mine\n");
    const std::string in = "in version 1.2.0, kept for rollback, which shares the file: ";
    EXPECT_EQ(findings(apps.audit(kGuid)),
              "modified files/main.js (size 5, recorded " + recorded +
                  ")\nmode files/main.js (0644, recorded 0444)\nmodified files/main.js (" + in +
                  "size 5, recorded " + recorded + ")\nmode files/main.js (" + in +
                  "0644, recorded 0444)\n");
    EXPECT_EQ(refusal([&] {
                  apps.rollback(kGuid);
              }).rfind("version 1.2.0 is not as installed: modified files/main.js (size 5", 0),
              0u);
    // Retiring 1.2.0 removes its names for the files it shares, not the
    // files 1.3.0 holds; the one the user changed is kept in both.
    apps.install(v("1.4.0"), fittingHost());
    EXPECT_FALSE(fs::exists(was / "icon.png"));
    EXPECT_EQ(read_file((now / "icon.png").string()),
              read_file((fresh.show(kGuid).current.folder / "icon.png").string()));
    EXPECT_EQ(read_file((was / "files/main.js").string()), "mine\n");
    EXPECT_EQ(read_file(main.string()), "mine\n");

    // An upgrade reads a file again only when its inode, time, size or mode
    // moved since its record. Written in place and its time set back on
    // purpose, the icon is taken as recorded; audit, reading every byte,
    // names it all the same.
    const fs::path icon = now / "icon.png";
    struct stat stamped {};
    ASSERT_EQ(::stat(icon.c_str(), &stamped), 0);
    fs::permissions(icon, fs::perms::owner_write, fs::perm_options::add);
    std::string content = read_file(icon.string());
    content[0] = static_cast<char>(content[0] ^ 1);
    write_file(icon.string(), content);
    fs::permissions(icon, fs::perms(0444));
    const struct timespec times[2] = {stamped.st_atim, stamped.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, icon.c_str(), times, 0), 0);
    EXPECT_EQ(apps.install(v("1.5.0"), fittingHost()).takenFiles, same);
    EXPECT_EQ(findings(apps.audit(kGuid)).rfind("modified icon.png (content differs)\n", 0), 0u);
}

// A package that leaves entries out (holes, here zeros) installs only by
// taking each from the installed version, never reading it; when one
// cannot be taken, nothing changes and the refusal says which and why.
// Unchanged parts are taken whether left out or not, and a part that
// cannot be taken is unpacked, its bytes checked as ever.
TEST_F(Store, PartialPackagesTakeWhatTheyLeaveOutOrChangeNothing) {
    const std::string partial =
        zeroed(v("1.3.0"), "files/main.js", dir.file("partial.tsappinstall"));
    InstallOptions leftOut;
    leftOut.absentParts = {"files/main.js"};
    EXPECT_EQ(refusal([&] { AppStore(dir.file("new")).install(partial, fittingHost(), leftOut); }),
              "the package leaves parts out, and no version is installed to take them from\n");
    AppStore apps(root());
    apps.install(v("1.2.0"), fittingHost());
    const fs::path main = apps.show(kGuid).current.folder / "files/main.js";
    const std::string original = read_file(main.string());
    const std::string cannot =
        "cannot take files/main.js from the installed version 1.2.0: " + main.string() + " ";
    const struct {
        std::set<std::string> absent;
        std::string content;  // main.js as the user left it; empty: removed
        std::string refusal;
    } cases[] = {
        // Not left out but changed, main.js is unpacked: the zeros fail.
        {{}, std::string(original.size(), 'x'), ""},
        {{"files/README.txt", "files/main.js", "none.txt"},
         original,
         "cannot take files/README.txt from the installed version 1.2.0: the package's digest "
         "for it differs from its record\ncannot take none.txt from the installed version 1.2.0: "
         "the package has no such part\n"},
        {{"files/main.js"},
         std::string(original.size(), 'x'),
         cannot + "changed (its content differs from its record)\n"},
        {{"files/main.js"},
         "mine",
         cannot + "changed (size 4, recorded " + std::to_string(original.size()) + ")\n"},
        {{"files/main.js"}, "", cannot + "is missing\n"},
    };
    const auto history = apps.history().size();
    for (const auto& c : cases) {
        fs::remove(main);
        if (!c.content.empty()) {
            write_file(main.string(), c.content);
            fs::permissions(main, fs::perms(0444));
        }
        const Tree before = snapshot_tree(root() + "/apps");
        InstallOptions options;
        options.absentParts = c.absent;
        try {
            apps.install(partial, fittingHost(), options);
            ADD_FAILURE() << "installed";
        } catch (const std::exception& e) {
            const auto* refused = dynamic_cast<const StoreError*>(&e);
            std::string lines;
            for (const auto& line : refused ? refused->lines() : std::vector<std::string>())
                lines += line + "\n";
            if (!c.refusal.empty()) {
                EXPECT_EQ(refused ? refused->kind() : tsappinstall::FaultKind::Other,
                          tsappinstall::FaultKind::NotReusable);
                EXPECT_EQ(lines, c.refusal);
            }
        }
        EXPECT_EQ(snapshot_tree(root() + "/apps"), before);
        EXPECT_EQ(apps.history().size(), history);
    }
    fs::remove(main);
    write_file(main.string(), original);
    fs::permissions(main, fs::perms(0444));
    const auto upgraded = apps.install(partial, fittingHost(), leftOut);
    EXPECT_GE(upgraded.takenFiles, 5u);
    AppStore fresh(dir.file("fresh"));
    fresh.install(v("1.3.0"), fittingHost());
    EXPECT_EQ(snapshot_tree(apps.show(kGuid).current.folder),
              snapshot_tree(fresh.show(kGuid).current.folder));
    EXPECT_EQ(settledState(root()), std::string(kGuid) + "=1.3.0");
}

// Every change is on record, by whom and between which versions, and
// stays there once the app is gone, found by the name it had last.
TEST_F(Store, RecordsEveryChangeAndKeepsItAfterRemove) {
    AppStore apps(root());
    InstallOptions from;
    from.origin = "main";
    apps.install(v("1.2.0"), fittingHost(), from);
    apps.install(v("1.3.0"), fittingHost());
    const std::string first = apps.show(kGuid).previous.at(0).packageSha256;
    apps.rollback(kGuid);
    EXPECT_FALSE(apps.hold("Hello Tessal"));
    EXPECT_TRUE(apps.hold(kGuid));  // no change, nothing on record
    apps.hold(kGuid, false);
    write_file(apps.show(kGuid).current.folder.string() + "/files/notes.txt", "mine");
    apps.remove(kGuid);
    apps.purge("Hello Tessal");
    std::string text;
    for (const auto& e : apps.history("Hello Tessal")) {
        text += e.action + " " + e.oldVersion + ">" + e.newVersion + " " + e.origin + "\n";
        EXPECT_EQ(e.uid, static_cast<long>(::getuid()));
        EXPECT_EQ(e.guid + e.name, kGuid + std::string("Hello Tessal"));
    }
    EXPECT_EQ(text,
              "install >1.2.0 main\nupgrade 1.2.0>1.3.0 \nrollback 1.3.0>1.2.0 main\n"
              "hold 1.2.0>1.2.0 main\nunhold 1.2.0>1.2.0 main\nremove 1.2.0> main\n"
              "purge 1.2.0> \n");
    const auto all = apps.history();
    ASSERT_EQ(all.size(), 7u);
    EXPECT_EQ(all[2].packageSha256, first);
    EXPECT_EQ(refusal([&] { apps.history("Nobody"); }), "no installed app is called Nobody\n");
}

// Rollback checks the version it returns to before it touches anything;
// forced, it returns to it as it is and keeps the version it leaves. Not
// forced, it keeps what the user changed in the version it leaves.
TEST_F(Store, RollsBackOnlyToAVersionAsInstalledUnlessForced) {
    AppStore apps(root());
    apps.install(v("1.2.0"), fittingHost());
    apps.install(v("1.3.0"), fittingHost());
    const fs::path to = apps.show(kGuid).previous.at(0).folder;
    writeInstalled((to / "files/README.txt").string(), "edited");
    // 1.3.0 took icon.png from 1.2.0: a copy of its own changes 1.2.0 alone.
    fs::copy_file(to / "icon.png", dir.file("icon.png"));
    fs::remove(to / "icon.png");
    fs::copy_file(dir.file("icon.png"), to / "icon.png");
    ::chmod((to / "icon.png").c_str(), 0600);
    write_file((to / "files/notes.txt").string(), "mine");
    fs::remove(to / "files/lib/util.js");
    const std::string was = "version 1.2.0 is not as installed: ";
    const Tree before = snapshot_tree(root() + "/apps");
    EXPECT_EQ(refusal([&] { apps.rollback(kGuid); }),
              was + "modified files/README.txt (size 6, recorded 14)\n" + was +
                  "missing files/lib/util.js\n" + was + "extra files/notes.txt\n" + was +
                  "mode icon.png (0600, recorded 0444)\n" +
                  "not rolled back; --force rolls back to it as it is\n");
    EXPECT_EQ(snapshot_tree(root() + "/apps"), before);
    // Nothing to return to: refused even when forced.
    const fs::path aside = dir.file("aside");
    fs::rename(to, aside);
    const struct {
        std::function<void()> make;
        std::string problem;
    } gone[] = {{[] {}, "missing"},
                {[&] { fs::create_directory_symlink(aside, to); }, "a symbolic link"}};
    for (const auto& g : gone) {
        g.make();
        EXPECT_EQ(refusal([&] { apps.rollback(kGuid, {true}); }),
                  was + "its folder " + to.string() + " is " + g.problem + "\nnot rolled back\n");
    }
    fs::remove(to);
    fs::rename(aside, to);

    const auto forced = apps.rollback(kGuid, {true});
    EXPECT_EQ(forced.current.version, "1.2.0");
    EXPECT_TRUE(forced.kept.empty());
    ASSERT_EQ(apps.show(kGuid).previous.size(), 1u);
    EXPECT_EQ(apps.show(kGuid).previous[0].version, "1.3.0");
    EXPECT_EQ(read_file((to / "files/notes.txt").string()), "mine");
    // Back to 1.3.0, which is whole; 1.2.0 goes but for the user's files.
    const auto back = apps.rollback(kGuid, {});
    EXPECT_EQ(back.current.version, "1.3.0");
    std::string kept;
    for (const auto& k : back.kept) kept += (k.folder / k.path).string() + " " + k.version + "\n";
    EXPECT_EQ(kept, (to / "files/README.txt").string() + " 1.2.0\n" +
                        (to / "files/notes.txt").string() + " 1.2.0\n" +
                        (to / "icon.png").string() + " 1.2.0\n");
    EXPECT_EQ(settledState(root()), std::string(kGuid) + "=1.3.0");
}

// What the user changed or added in a version goes with it only when
// asked: a version an upgrade retires keeps it in place and on record,
// audit lists it without failing, remove keeps it in every version, and a
// purging remove deletes it, also once the app is gone.
TEST_F(Store, KeepsTheUsersFilesUntilPurged) {
    AppStore apps(root());
    apps.install(v("1.2.0"), fittingHost());
    const fs::path first = apps.show(kGuid).current.folder;
    write_file((first / "files/data/config.json").string(), "mine");
    write_file((first / "files/notes.txt").string(), "notes");
    EXPECT_TRUE(apps.install(v("1.3.0"), fittingHost()).kept.empty());  // 1.2.0 stays
    const auto upgrade = apps.install(v("1.4.0"), fittingHost());
    std::string kept;
    for (const auto& k : upgrade.kept) kept += (k.folder / k.path).string() + "\n";
    EXPECT_EQ(kept, (first / "files/data/config.json").string() + "\n" +
                        (first / "files/notes.txt").string() + "\n");
    EXPECT_EQ(read_file((first / "files/data/config.json").string()), "mine");
    EXPECT_EQ(snapshot_tree(first.string()).size(), 4u);  // the two and their folders
    const AuditReport audited = apps.audit(kGuid);
    EXPECT_TRUE(audited.clean());
    EXPECT_EQ(audited.kept.size(), 2u);
    EXPECT_EQ(settledState(root()), std::string(kGuid) + "=1.4.0");

    // Purging, the version retired goes whole.
    const fs::path second = apps.show(kGuid).previous.at(0).folder;
    writeInstalled((second / "files/README.txt").string(), "edited");
    InstallOptions purging;
    purging.purge = true;
    EXPECT_TRUE(apps.install(v("1.5.0"), fittingHost(), purging).kept.empty());
    EXPECT_FALSE(fs::exists(second));

    // Remove keeps the previous version's changes too; a kept file the
    // user deleted since is passed over.
    write_file((apps.show(kGuid).previous.at(0).folder / "files/extra.txt").string(), "x");
    writeInstalled((apps.show(kGuid).current.folder / "files/README.txt").string(), "edited");
    fs::remove(first / "files/notes.txt");
    EXPECT_EQ(apps.remove("Hello Tessal").kept.size(), 2u);
    EXPECT_EQ(refusal([&] { apps.remove("Hello Tessal"); }),
              "Hello Tessal is not installed; files kept from it remain (--purge removes them)\n");
    const auto reports = apps.auditAll();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_FALSE(reports[0].installed);
    EXPECT_EQ(reports[0].version.version, "1.5.0");
    EXPECT_EQ(reports[0].kept.size(), 3u);
    EXPECT_EQ(apps.kept().size(), 4u);
    const auto purged = apps.remove("Hello Tessal", true);
    EXPECT_FALSE(purged.removedApp);
    EXPECT_EQ(purged.purged.size(), 4u);
    EXPECT_FALSE(fs::exists(root() + "/apps/" + kGuid));
    EXPECT_TRUE(apps.kept().empty());
    EXPECT_EQ(refusal([&] { apps.purge(kGuid); }),
              "no app " + std::string(kGuid) + " is installed\n");
}

TEST_F(Store, RefusesWithOneLinePerReasonAndChangesNothing) {
    AppStore apps(root());
    InstallOptions trusting;
    trusting.trustAnchors = {keys.file("ca.pem")};
    apps.install(pack(signedBy("A", "1.3.0"), "a-1.3.0"), fittingHost(), trusting);
    AppRecipe picky("2.0.0");
    picky.fields = {{"minTESSALVer", "2026.10"},
                    {"supportedPlatforms", {"windows-x86_64"}},
                    {"requiredProducts",
                     {{{"identifier", "tessal.core"}, {"version", "2026.2"}},
                      {{"identifier", "tessal.maps"}, {"name", "Maps"}}}}};
    InstallOptions downgrade;
    downgrade.allowDowngrade = true;
    const std::string damaged = dir.file("damaged.tsappinstall");
    write_file(damaged, read_file(v("1.2.0")).substr(0, 2000));
    struct Case {
        std::string package;
        InstallOptions options;
        std::string lines;
    } cases[] = {
        {pack(signedBy("A", "1.3.0"), "a-1.3.0"),
         {},
         "version 1.3.0 is already installed; --reinstall replaces it\n"},
        {v("1.2.0"),
         {},
         "version 1.2.0 is older than the installed 1.3.0; --allow-downgrade installs it\n"},
        {pack(picky, "picky"),
         {},
         "does not fit this host: needs Tessal release 2026.10 or later; this host runs 2026.2\n"
         "does not fit this host: runs on windows-x86_64, not on linux-x86_64\n"
         "does not fit this host: needs product tessal.core 2026.2 or later; this host has 2026.1\n"
         "does not fit this host: needs product tessal.maps (Maps); this host does not have it\n"
         "not installed; --force installs it anyway\n"},
        {damaged, downgrade,
         "not an app package: not a ZIP file: not a usable ZIP file: no end of central directory "
         "record (not a ZIP file)\n"},
        {v("1.4.0"), trusting, "unsigned: the package carries no signature\n"},
        {pack(signedBy("B", "1.5.0"), "b-1.5.0"), trusting,
         "version 1.3.0 is signed by CN=A (key SHA-256 " + keyOf("A") +
             "); this package is signed by CN=B with another key (SHA-256 " + keyOf("B") +
             ") and carries no key rotation proof; --allow-signer-change installs it\n"},
    };
    const Tree before = snapshot_tree(root() + "/apps");
    for (const Case& c : cases) {
        EXPECT_EQ(refusal([&] { apps.install(c.package, fittingHost(), c.options); }), c.lines)
            << c.package;
        EXPECT_EQ(snapshot_tree(root() + "/apps"), before) << c.package;
    }
    InstallOptions force;
    force.force = force.allowSignerChange = true;
    apps.install(pack(picky, "picky"), fittingHost(), force);
    EXPECT_TRUE(apps.show(kGuid).current.forced);
    EXPECT_EQ(apps.show(kGuid).previous.at(0).signerSubject, "CN=A");
    EXPECT_EQ(apps.show(kGuid).current.forcedReasons.size(), 4u);
}

// The installed version's key is the signer: a renewed certificate of it
// upgrades as it is, another key only with proofs leading to it from that
// key, each by the key before, whose certificate may have long expired.
TEST_F(Store, SignerKeysCarryOverRenewalsAndRotations) {
    AppStore apps(root());
    InstallOptions trusting;
    trusting.trustAnchors = {keys.file("ca.pem")};
    apps.install(pack(signedBy("A", "1.0"), "a-1.0"), fittingHost(), trusting);
    EXPECT_EQ(apps.show(kGuid).current.signerKeyFingerprint, keyOf("A"));
    const auto renewed =
        apps.install(pack(signedBy("A2", "1.1"), "a2-1.1"), fittingHost(), trusting);
    EXPECT_EQ(renewed.installed.signerFingerprint, fingerprintOf("A2"));
    EXPECT_TRUE(renewed.installed.rotatedFrom.empty());

    const std::string was = "version 1.1 is signed by CN=A (key SHA-256 " + keyOf("A") +
                            "); this package is signed by CN=B with another key (SHA-256 " +
                            keyOf("B") + ")";
    const std::string override = "; --allow-signer-change installs it\n";
    const struct {
        std::string proofs;
        std::string problem;
    } refused[] = {
        {proof("C", "B"), "; no key rotation proof is signed by the old key " + keyOf("A")},
        {proof("A", "C"), "; the key rotation proof by the key " + keyOf("A") +
                              " does not hand over to the key " + keyOf("B")},
        {"garbage",
         "; the key rotation proofs cannot be read: no key rotation proof (a PEM "
         "block of type CMS)"},
    };
    int n = 0;
    for (const auto& r : refused)
        EXPECT_EQ(refusal([&] {
                      apps.install(pack(signedWithProofs("B", "1.2", r.proofs),
                                        "refused-" + std::to_string(++n)),
                                   fittingHost(), trusting);
                  }),
                  was + r.problem + override)
            << r.problem;

    const auto rotated = apps.install(
        pack(signedWithProofs("B", "1.2", proof("A-2020", "B")), "b-1.2"), fittingHost(), trusting);
    EXPECT_EQ(rotated.kind, InstallResult::Kind::Upgrade);
    EXPECT_EQ(apps.show(kGuid).current.rotatedFrom, std::vector<std::string>{keyOf("A")});
    EXPECT_EQ(apps.show(kGuid).current.signerKeyFingerprint, keyOf("B"));
    // A chain carried whole starts at the installed key.
    apps.install(pack(signedWithProofs("C", "1.3", proof("A", "B") + proof("B", "C")), "c-1.3"),
                 fittingHost(), trusting);
    EXPECT_EQ(apps.show(kGuid).current.rotatedFrom, std::vector<std::string>{keyOf("B")});
    InstallOptions anyone = trusting;
    anyone.allowSignerChange = true;
    apps.install(pack(signedBy("A", "1.4"), "a-1.4"), fittingHost(), anyone);
    EXPECT_EQ(apps.show(kGuid).current.signerKeyFingerprint, keyOf("A"));
}

TEST_F(Store, VersionsCompareFieldByField) {
    const struct {
        const char *a, *b;
        int order;
    } cases[] = {{"2025.10", "2025.9", 1},
                 {"1.2", "1.2.0", 0},
                 {"01.2", "1.2", 0},
                 {"1.2.beta", "1.2.9", 1},
                 {"1.2.alpha", "1.2.beta", -1},
                 {"99999999999999999999999.1", "99999999999999999999998.2", 1}};
    for (const auto& c : cases) {
        EXPECT_EQ(compareVersions(c.a, c.b), c.order) << c.a << " " << c.b;
        EXPECT_EQ(compareVersions(c.b, c.a), -c.order) << c.a << " " << c.b;
    }
}

// Both ends of an app's release range fit; the nearest releases outside
// them do not.
TEST_F(Store, FitsHostsFromTheMinimumToTheMaximumReleaseInclusive) {
    AppManifest app;
    app.minTESSALVer = u"2026.2", app.maxTESSALVer = u"2026.5";
    const std::string below = "needs Tessal release 2026.2 or later; this host runs ";
    const std::string above = "needs Tessal release 2026.5 or earlier; this host runs ";
    const struct {
        const char* release;
        std::string reason;
    } cases[] = {{"2026.1", below + "2026.1"},
                 {"2026.1.99", below + "2026.1.99"},
                 {"2026.2", ""},
                 {"2026.2.0", ""},
                 {"2026.5", ""},
                 {"2026.5.0", ""},
                 {"2026.5.1", above + "2026.5.1"},
                 {"2026.6", above + "2026.6"}};
    for (const auto& c : cases) {
        const auto reasons = incompatibilities(app, {c.release, "", {}});
        EXPECT_EQ(reasons.empty() ? "" : reasons.front(), c.reason) << c.release;
        EXPECT_LE(reasons.size(), 1u) << c.release;
    }
}

TEST_F(Store, NeverFollowsALinkOutOfTheRoot) {
    AppStore apps(root());
    apps.install(v("1.2.0"), fittingHost());
    const std::string folder = apps.show(kGuid).current.folder;
    write_file(dir.file("outside.txt"), "theirs");
    fs::create_directories(dir.file("outside"));
    write_file(dir.file("outside/util.js"), "theirs");
    fs::remove(folder + "/icon.png");
    fs::create_symlink(dir.file("outside.txt"), folder + "/icon.png");
    fs::remove_all(folder + "/files/lib");
    fs::create_directory_symlink(dir.file("outside"), folder + "/files/lib");
    const std::string found = findings(apps.audit(kGuid));
    EXPECT_NE(found.find("modified icon.png (replaced by a symbolic link)"), std::string::npos)
        << found;
    EXPECT_NE(found.find("extra files/lib ()\nmissing files/lib/util.js ()"), std::string::npos)
        << found;
    // A planted link under the name of the store's own half-made link goes
    // on recovery, and only the link.
    const fs::path app = fs::path(folder).parent_path();
    fs::create_directory_symlink(dir.file("outside"), app / "current.new");
    apps.recover();
    EXPECT_FALSE(fs::exists(fs::symlink_status(app / "current.new")));
    apps.remove(kGuid, true);
    EXPECT_EQ(read_file(dir.file("outside.txt")), "theirs");
    EXPECT_EQ(read_file(dir.file("outside/util.js")), "theirs");
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder)));
}

// The audited folder is the one that runs: `current` must name the
// recorded version's folder as the store wrote it, whatever copy of it the
// link is turned to.
TEST_F(Store, AuditsWhereCurrentPoints) {
    AppStore apps(root());
    apps.install(v("1.2.0"), fittingHost());
    const fs::path folder = apps.show(kGuid).current.folder;
    const fs::path link = folder.parent_path() / "current";
    const std::string leaf = folder.filename().string();
    const fs::path copy = folder.parent_path() / "1.2.0-copy";
    fs::copy(folder, copy, fs::copy_options::recursive);
    write_file((copy / "files/README.txt").string(), "version 6.6.6\n");
    const struct {
        std::function<void()> turn;
        std::string finding;
    } cases[] = {
        {[&] { fs::create_directory_symlink("1.2.0-copy", link); },
         "points at 1.2.0-copy, not at " + leaf},
        {[&] { fs::create_directory_symlink(folder, link); },
         "points at " + folder.string() + ", not at " + leaf},
        {[&] { fs::create_directory_symlink("../" + std::string(kGuid) + "/" + leaf, link); },
         "points at ../" + std::string(kGuid) + "/" + leaf + ", not at " + leaf},
        {[&] { fs::create_directory_symlink("1.2.0-copy/../" + leaf, link); },
         "points at 1.2.0-copy/../" + leaf + ", not at " + leaf},
        {[&] { fs::copy(copy, link, fs::copy_options::recursive); }, "not a symbolic link"},
        {[] {}, "missing"},
    };
    for (const auto& c : cases) {
        fs::remove_all(link);
        c.turn();
        EXPECT_EQ(findings(apps.audit(kGuid)), "link current (" + c.finding + ")\n");
    }
    fs::remove_all(link);
    fs::create_directory_symlink(leaf, link);
    EXPECT_TRUE(apps.audit(kGuid).clean());
}

// A root written before versions recorded their origin and their signer's
// key: the origin that was kept apart, by GUID, moves onto the versions, the
// key comes from the signature each version was unpacked with, when that
// is still the certificate on record, and the rest stays.
TEST_F(Store, MigratesOlderRecords) {
    InstallOptions trusting;
    trusting.trustAnchors = {keys.file("ca.pem")};
    {
        AppStore apps(root());
        apps.install(pack(signedBy("A", "1.2.0"), "a-1.2.0"), fittingHost(), trusting);
        apps.install(pack(signedBy("A", "1.3.0"), "a-1.3.0"), fittingHost(), trusting);
        fs::remove(apps.show(kGuid).previous.at(0).folder / "_digests/sha256sums.p7s");
    }
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(dir.file("root/store.db").c_str(), &db), SQLITE_OK);
    const std::string older =
        std::string("ALTER TABLE versions DROP COLUMN origin; ") +
        "ALTER TABLE versions DROP COLUMN signer_key; " +
        "ALTER TABLE versions DROP COLUMN rotated_from; " +
        "ALTER TABLE versions DROP COLUMN retired; DROP TABLE kept; " + "DROP TABLE history; " +
        "ALTER TABLE files DROP COLUMN inode; ALTER TABLE files DROP COLUMN modified_ns; " +
        "INSERT INTO pending(action, guid, folder, purge) VALUES('purge', '" + kGuid + "', '" +
        kGuid + "/v1.0-old', 0); " + "INSERT INTO state VALUES('app-repository', '" + kGuid +
        "', '{\"name\":\"main\"}'); PRAGMA user_version = 1";
    ASSERT_EQ(sqlite3_exec(db, older.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    // An old version marked for deletion then had lost its records: it
    // still goes whole, changed files and all.
    fs::create_directories(dir.file("root/apps/") + kGuid + "/v1.0-old/files");
    write_file(dir.file("root/apps/") + kGuid + "/v1.0-old/files/README.txt", "edited");
    const AppStore apps(root());
    EXPECT_FALSE(fs::exists(dir.file("root/apps/") + kGuid + "/v1.0-old"));
    EXPECT_TRUE(apps.kept().empty());
    const InstalledApp app = apps.show(kGuid);
    EXPECT_EQ(app.current.origin, "{\"name\":\"main\"}");
    EXPECT_EQ(app.current.version, "1.3.0");
    EXPECT_EQ(app.current.signerKeyFingerprint, keyOf("A"));
    EXPECT_EQ(app.previous.at(0).signerKeyFingerprint, "");
    EXPECT_EQ(app.previous.at(0).signerFingerprint, fingerprintOf("A"));
    EXPECT_TRUE(apps.history().empty());  // what came before is not made up
}

TEST_F(Store, LeavesADamagedOrNewerDatabaseAlone) {
    { AppStore(root()).install(v("1.2.0"), fittingHost()); }
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(dir.file("root/store.db").c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version = 7", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    const std::string newer = read_file(dir.file("root/store.db"));
    EXPECT_EQ(
        refusal([&] { AppStore apps(root()); }),
        "the database " + dir.file("root/store.db") +
            " has schema version 7, newer than this program knows (6); it was left as it is\n");
    EXPECT_EQ(read_file(dir.file("root/store.db")), newer);

    fs::remove(dir.file("root/store.db-wal"));
    fs::remove(dir.file("root/store.db-shm"));
    write_file(dir.file("root/store.db"), std::string(8192, 'x'));
    EXPECT_EQ(refusal([&] { AppStore apps(root()); }),
              "the database " + dir.file("root/store.db") +
                  " cannot be used: file is not a database; it was left as it is\n");
    EXPECT_EQ(read_file(dir.file("root/store.db")), std::string(8192, 'x'));
}

// A root its owner writes and others may only read is read whole,
// whether no writer has it open (there is no -wal to read through, and
// the reader may not make one) or one does (its last commit is in the
// -wal alone), and the reader leaves it as it was. Making a root where the
// user may not write says why.
TEST_F(Store, ReadsARootItMayNotWrite) {
    if (::geteuid() != 0) GTEST_SKIP() << "reading as another user needs root";
    fs::permissions(dir.path(), fs::perms::owner_all | fs::perms::group_read |
                                    fs::perms::group_exec | fs::perms::others_read |
                                    fs::perms::others_exec);
    { AppStore(root()).install(v("1.2.0"), fittingHost()); }
    AppStore::Options readOnly;
    readOnly.readOnly = true;
    const auto read = [&] {
        AppStore apps(root(), readOnly);
        std::string out;
        for (const auto& app : apps.list()) out += app.current.version + " ";
        out += apps.show("Hello Tessal").current.version +
               (apps.audit(kGuid).clean() && apps.auditAll().size() == 1 ? " clean\n" : "\n");
        out += refusal([&] { apps.rollback(kGuid); });
        out += refusal([&] { AppStore(dir.file("root/apps/new")); });
        return out;
    };
    const auto names = [&] {
        std::set<std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(root()))
            found.insert(entry.path().string());
        return found;
    };
    const std::string refused = root() + " is open read-only: it is not changed\n" +
                                dir.file("root/apps/new") + " cannot be made: Permission denied\n";
    const auto before = names();
    const std::string records = read_file(dir.file("root/store.db"));
    EXPECT_EQ(asNobody(read), "1.2.0 1.2.0 clean\n" + refused);
    EXPECT_EQ(names(), before);
    EXPECT_EQ(read_file(dir.file("root/store.db")), records);

    AppStore writer(root());
    writer.install(v("1.3.0"), fittingHost());
    ASSERT_TRUE(fs::exists(dir.file("root/store.db-wal")));
    EXPECT_EQ(asNobody(read), "1.3.0 1.3.0 clean\n" + refused);
}

// An unfinished operation a newer program recorded is not skipped, as if
// there were nothing to settle: the root is refused until that program
// settles it.
TEST_F(Store, RefusesAnUnfinishedOperationItDoesNotKnow) {
    { AppStore(root()).install(v("1.2.0"), fittingHost()); }
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(dir.file("root/store.db").c_str(), &db), SQLITE_OK);
    const std::string row = std::string("INSERT INTO pending(action, guid, folder, purge) ") +
                            "VALUES('relocate', '" + kGuid + "', '', 0)";
    ASSERT_EQ(sqlite3_exec(db, row.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    EXPECT_EQ(refusal([&] { AppStore apps(root()); }),
              "the database " + dir.file("root/store.db") +
                  " holds an unfinished operation \"relocate\" that this program does not "
                  "know; it was left as it is\n");
}

}  // namespace
