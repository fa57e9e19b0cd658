// Install, upgrade, rollback, remove, recovery and installs from a
// repository under every failing file-system call (each call of each
// family, SQLite's own and the download's included, once and from there on;
// sampled where a family makes many)
// and under kill -9, the recovery that follows a crash killed in turn too:
// once the root is opened again it holds the old state or the new one,
// files and records agree, every app audits clean and recovery leaves no
// download behind.

#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <set>

#include "platform/extract/FileOps.hpp"
#include "repository/RepositoryTestSupport.hpp"
#include "store/FileSeam.hpp"
#include "store/StoreTestSupport.hpp"
#include "tsappinstall/installer/Installer.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tsapp::test;
using namespace tsappinstall::store;
using opc::detail::FileCall;
using tsappinstall::installer::Installer;

const char* const kHello = "0123abcd-0000-4000-8000-00000000000a";

// Fails the n-th call of one family, and with `persistent` every later one.
struct FailingOps : opc::detail::FileOps {
    FailingOps(FileCall f, long at, bool on) : family(f), n(at), persistent(on) {}
    int fault(FileCall call) const override {
        if (call != family) return 0;
        ++calls;
        return calls == n || (persistent && calls > n) ? (calls % 2 ? EIO : ENOSPC) : 0;
    }
    FileCall family;
    long n;
    bool persistent;
    mutable long calls = 0;
};

// Dies as a crash would (SIGKILL) just before the n-th call of one family
// (of any, without one), or just after it.
struct DyingOps : opc::detail::FileOps {
    enum When { Before, After };
    DyingOps(std::optional<FileCall> f, long at, When w = Before) : family(f), n(at), when(w) {}
    int fault(FileCall call) const override {
        if ((!family || call == *family) && ++calls == n && when == Before) ::raise(SIGKILL);
        return 0;
    }
    void returned(FileCall call) const override {
        if ((!family || call == *family) && calls == n && when == After) ::raise(SIGKILL);
    }
    std::optional<FileCall> family;
    long n;
    When when;
    mutable long calls = 0;
};

// Dies just after the rename that publishes a new `current` link, before
// the records that name its version commit (a step that makes no call).
struct DiesAfterLinkSwitch : opc::detail::FileOps {
    int fault(FileCall call) const override {
        linked = linked || call == FileCall::Symlink;
        return 0;
    }
    void returned(FileCall call) const override {
        if (linked && call == FileCall::Rename) ::raise(SIGKILL);
    }
    mutable bool linked = false;
};

// Counts the calls of each family, failing none.
struct CountingOps : opc::detail::FileOps {
    int fault(FileCall call) const override {
        ++counts[static_cast<std::size_t>(call)];
        return 0;
    }
    mutable std::array<long, opc::detail::kFileCallFamilies> counts{};
};

// Runs `step` in a process of its own, as a crash may end it; true when
// it was killed.
template <class Step>
bool killedWhile(Step step) {
    const pid_t child = ::fork();
    if (child < 0) ADD_FAILURE() << "fork: " << std::strerror(errno);
    if (child == 0) {
        try {
            step();
        } catch (...) {
        }
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFSIGNALED(status);
}

detail::FileSeam seam(const opc::detail::FileOps& ops) {
    return {opc::FileSystemOpsSelector(&ops)};
}

// Installs `version` of the app the root's one recorded repository
// offers, as a host's installer does: index, download, install. Over an
// installed version the download is ranged: the only line that may say it
// came whole is the fallback for installed files that a fault kept from
// being read.
void installFromRepository(AppStore& apps, const std::string& version) {
    std::vector<std::string> notes;
    tsappinstall::installer::InstallerOptions options;
    options.note = [&](const std::string& line) { notes.push_back(line); };
    Installer installer(apps, options);
    const auto remote = installer.remotes().at(0);
    const auto repository = installer.fetch(remote);
    const bool upgrade = version != "1.0";  // 1.0 is what the roots get first
    for (const auto& entry : repository->index().packages)
        if (entry.guid == kHello && entry.version == version) {
            installer.install({remote, repository, &entry}, fittingHost(), {});
            for (const std::string& note : notes)
                EXPECT_TRUE(upgrade && note.find("whole: the installed files cannot be reused (") !=
                                           std::string::npos)
                    << note;
            return;
        }
    throw std::runtime_error("the repository offers no version " + version);
}

// What is left in the root's download folder once recovery ran.
std::vector<std::string> downloadsAfterRecovery(const std::string& root) {
    AppStore(root).recover();
    const std::string folder = root + "/.downloads";
    return fs::exists(folder) ? filesIn(folder) : std::vector<std::string>();
}

// The changes on record in the root's database (its write-ahead log
// included); 0 without a database.
long historyRows(const std::string& root) {
    const std::string file = root + "/store.db";
    if (!fs::exists(file)) return 0;
    sqlite3* db = nullptr;
    long rows = -1;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK)
        sqlite3_exec(
            db, "SELECT COUNT(*) FROM history",
            [](void* out, int, char** values, char**) {
                *static_cast<long*>(out) = std::atol(values[0]);
                return 0;
            },
            &rows, nullptr);
    sqlite3_close(db);
    return rows;
}

struct Operation {
    const char* name;
    const char* start;  // the template root it starts from
    std::function<void(AppStore&, const TempDir&)> run;
    std::string before, after;  // settledState() of either outcome
    std::string mine = {};      // a file the user changed (below the root), kept in both
    bool fromRepository = false;
};

// Whether the n-th call of a family that makes `count` is tried. With
// SQLite's reads, locks and page writes in the seam a family may make
// hundreds of calls, and an install from a repository hundreds more (the
// index's check, the download): up to 48 of a store operation's calls (24
// of a repository install's) are all tried; beyond that the first third of
// those, the last four and the rest evenly between, so that each loop
// stays within a minute or two.
// Under a sanitizer every call costs several times as much, and the run
// is there for memory faults: half as many moments are taken.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kMostTried = 24;
#else
constexpr long kMostTried = 48;
#endif

bool tried(const Operation& op, long n, long count) {
    const long most = op.fromRepository ? kMostTried / 2 : kMostTried;
    if (count <= most) return true;
    const long first = most / 3, last = 4;
    const long stride = (count - first - last) / (most - first - last);
    return n <= first || n > count - last || (n - first) % stride == 0;
}

class StoreFaults : public ::testing::Test {
  protected:
    // Thousands of roots are made and settled: in memory where there is
    // some, since every database close flushes.
    static void SetUpTestSuite() {
        if (fs::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
        templatesDir = std::make_unique<TempDir>();
        AppStore one(templates().file("one"));
        one.install(package("1.2.0"), fittingHost());
        AppStore two(templates().file("two"));
        two.install(package("1.2.0"), fittingHost());
        two.install(package("1.3.0"), fittingHost());
        // Two versions, the older changed by the user, which an upgrade retires.
        fs::copy(templates().file("two"), templates().file("changed"),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        changedFile() = "apps/" + std::string(kGuid) + "/" +
                        AppStore(templates().file("changed"))
                            .show(kGuid)
                            .previous.at(0)
                            .folder.filename()
                            .string() +
                        "/files/README.txt";
        writeInstalled(templates().file("changed/" + changedFile()), "mine");
        // Made here, not first by an operation a test kills halfway.
        package("1.4.0");
        zeroed(package("1.3.0"), "files/main.js", templates().file("partial.tsappinstall"));
        fs::create_directories(templates().file("empty"));
        fs::copy(templates().file("one"), templates().file("crashed"),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        killedWhile([] {
            DiesAfterLinkSwitch ops;
            AppStore(templates().file("crashed"), {1}, seam(ops))
                .install(package("1.3.0"), fittingHost());
        });
        published = std::make_unique<Published>();
        tsappinstall::repository::indexFolder(published->repo(), published->signing());
        {
            AppStore apps(templates().file("repo-empty"));
            // A file: URL, as a host names a repository on a shared drive.
            Installer(apps).add(
                {"main", "file://" + published->repo(), {published->dir.file("ca.pem")}, ""});
        }
        fs::copy(templates().file("repo-empty"), templates().file("repo-one"),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        AppStore installed(templates().file("repo-one"));
        installFromRepository(installed, "1.0");
    }
    static void TearDownTestSuite() {
        templatesDir.reset();
        published.reset();
    }
    static const TempDir& templates() { return *templatesDir; }
    static std::string& changedFile() {
        static std::string path;
        return path;
    }
    // The state is the old or the new one, with the change on record
    // exactly when it is the new one, and the user's file is there.
    void expectOutcome(const Operation& op, const std::string& at) {
        const std::string state = settledState(work());
        EXPECT_TRUE(state == op.before || state == op.after) << op.name << at << ": " << state;
        // A change is on record exactly when it committed.
        const bool changed = state == op.after && op.before != op.after;
        EXPECT_EQ(historyRows(work()), startRows(op.start) + changed) << op.name << at;
        if (!op.mine.empty()) {
            EXPECT_EQ(read_file(work() + "/" + op.mine), "mine") << op.name << at;
        }
    }
    // A template's rows, read from a copy: a reader may leave files
    // beside a database, which the template must not gain.
    long startRows(const std::string& start) {
        static std::map<std::string, long> rows;
        if (const auto found = rows.find(start); found != rows.end()) return found->second;
        const std::string copy = dir.file("count");
        fs::copy(templates().file(start), copy,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        const long count = historyRows(copy);
        fs::remove_all(copy);
        return rows[start] = count;
    }
    static std::string package(const std::string& version) {
        return packApp(templates(), AppRecipe(version), "hello-" + version);
    }
    void reset(const std::string& from) {
        fs::remove_all(work());
        fs::copy(templates().file(from), work(),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    std::string work() const { return dir.file("root"); }

    // The calls of each family `op` makes, from its start.
    std::array<long, opc::detail::kFileCallFamilies> countCalls(const Operation& op) {
        reset(op.start);
        CountingOps ops;
        try {
            AppStore apps(work(), {1}, seam(ops));
            op.run(apps, dir);
        } catch (const std::exception& e) {
            ADD_FAILURE() << op.name << ": " << e.what();
        }
        return ops.counts;
    }

    // Of the calls `run` makes on the work root (left as it leaves it)
    // in the families that change what is on disk, each family's first,
    // middle and last.
    std::vector<std::pair<FileCall, long>> changingCalls(
        const std::function<void(AppStore&)>& run) {
        CountingOps ops;
        {
            AppStore apps(work(), {1}, seam(ops));
            run(apps);
        }
        std::vector<std::pair<FileCall, long>> calls;
        for (const FileCall family : {FileCall::Mkdir, FileCall::Rename, FileCall::Unlink,
                                      FileCall::Write, FileCall::Symlink, FileCall::Link}) {
            const long count = ops.counts[static_cast<std::size_t>(family)];
            for (const long n : std::set<long>{1, count / 2, count})
                if (n >= 1 && n <= count) calls.emplace_back(family, n);
        }
        return calls;
    }

    const std::string one = std::string(kGuid) + "=1.2.0", two = std::string(kGuid) + "=1.3.0";
    void killBeforeEachCall(std::size_t part);
    // The operations from a repository or not; of those, every other one
    // from `first` on, so that a loop splits into tests that each stay
    // within a test's time under sanitizers.
    void killDuringRecovery(bool fromRepository, std::size_t first = 0, std::size_t step = 1);

    const std::vector<Operation> operations = {
        {"install", "empty",
         [](AppStore& s, const TempDir&) { s.install(package("1.2.0"), fittingHost()); }, "", one},
        {"upgrade", "one",
         [](AppStore& s, const TempDir&) { s.install(package("1.3.0"), fittingHost()); }, one, two},
        // Most files taken from 1.2.0, one of them left out of the package.
        {"upgrade from a partial package", "one",
         [](AppStore& s, const TempDir&) {
             InstallOptions partial;
             partial.absentParts = {"files/main.js", "icon.png"};
             s.install(templates().file("partial.tsappinstall"), fittingHost(), partial);
         },
         one, two},
        {"remove", "two", [](AppStore& s, const TempDir&) { s.remove(kGuid); }, two, ""},
        {"rollback", "two", [](AppStore& s, const TempDir&) { s.rollback(kGuid); }, two, one},
        {"rollback --force", "two", [](AppStore& s, const TempDir&) { s.rollback(kGuid, {true}); },
         two, one},
        {"upgrade keeping", "changed",
         [](AppStore& s, const TempDir&) { s.install(package("1.4.0"), fittingHost()); }, two,
         std::string(kGuid) + "=1.4.0", changedFile()},
        // An upgrade killed between its link's switch and its records' commit.
        {"recover", "crashed", [](AppStore& s, const TempDir&) { s.recover(); }, one, one},
        {"repository install", "repo-empty",
         [](AppStore& s, const TempDir&) { installFromRepository(s, "1.0"); }, "",
         std::string(kHello) + "=1.0", "", true},
        {"repository upgrade", "repo-one",
         [](AppStore& s, const TempDir&) { installFromRepository(s, "1.10"); },
         std::string(kHello) + "=1.0", std::string(kHello) + "=1.10", "", true},
    };
    static std::unique_ptr<TempDir> templatesDir;
    static std::unique_ptr<Published> published;
    TempDir dir;
};
std::unique_ptr<TempDir> StoreFaults::templatesDir;
std::unique_ptr<Published> StoreFaults::published;

TEST_F(StoreFaults, EveryFailingCallLeavesTheOldStateOrTheNew) {
    for (const Operation& op : operations) {
        const auto counts = countCalls(op);
        for (int family = 0; family < opc::detail::kFileCallFamilies; ++family) {
            for (bool persistent : {false, true}) {
                for (long n = 1; n < 400; ++n) {
                    if (!tried(op, n, counts[static_cast<std::size_t>(family)])) continue;
                    SCOPED_TRACE(std::string(op.name) + " family " + std::to_string(family) +
                                 " call " + std::to_string(n) + (persistent ? " on" : ""));
                    reset(op.start);
                    FailingOps ops(static_cast<FileCall>(family), n, persistent);
                    try {
                        AppStore apps(work(), {1}, seam(ops));
                        op.run(apps, dir);
                    } catch (const std::exception&) {
                    }
                    expectOutcome(op, " family " + std::to_string(family) + " call " +
                                          std::to_string(n) + (persistent ? "+" : ""));
                    if (op.fromRepository) {
                        EXPECT_EQ(downloadsAfterRecovery(work()), std::vector<std::string>());
                    }
                    if (ops.calls < n) break;  // every call of the family went through
                }
            }
        }
    }
}

// Killed before each call of each family in turn, so that every step of
// an operation is a moment of the crash, including the steps between two
// calls that make no call of their own (a link made before the rename that
// publishes it). The operations are taken in three parts, each a test of
// its own, so that each stays well within a test's time under sanitizers.
void StoreFaults::killBeforeEachCall(std::size_t part) {
    for (std::size_t index = part; index < operations.size(); index += 3) {
        const Operation& op = operations[index];
        const auto counts = countCalls(op);
        for (int family = 0; family < opc::detail::kFileCallFamilies; ++family) {
            for (long n = 1; n < 400; ++n) {
                if (!tried(op, n, counts[static_cast<std::size_t>(family)])) continue;
                reset(op.start);
                const bool killed = killedWhile([&] {
                    DyingOps ops(static_cast<FileCall>(family), n);
                    AppStore apps(work(), {1}, seam(ops));
                    op.run(apps, dir);
                });
                expectOutcome(op,
                              " family " + std::to_string(family) + " call " + std::to_string(n));
                if (op.fromRepository) {
                    EXPECT_EQ(downloadsAfterRecovery(work()), std::vector<std::string>());
                }
                if (!killed) break;  // the family has no n-th call
            }
        }
    }
}

TEST_F(StoreFaults, KilledBeforeAnyCallLeavesTheOldStateOrTheNew) {
    killBeforeEachCall(0);
}
TEST_F(StoreFaults, KilledBeforeAnyCallLeavesTheOldStateOrTheNewToo) {
    killBeforeEachCall(1);
}
TEST_F(StoreFaults, KilledBeforeAnyCallLeavesTheOldStateOrTheNewAsWell) {
    killBeforeEachCall(2);
}

// Killed just after a call that changes what is on disk (where the next
// step may be a commit, which makes no call), then killed again just after
// such a call of the recovery that follows: the next recovery still
// converges on the old state or the new. Each family's first, middle and
// last calls are taken, the operation's and the recovery's, where their
// steps begin and end: every pair of moments would take minutes. The
// installs from a repository, whose recovery drops downloads besides, are
// a test of their own, for time.
void StoreFaults::killDuringRecovery(bool fromRepository, std::size_t first, std::size_t step) {
    const auto recover = [&](AppStore& apps) { apps.recover(); };
    std::size_t index = 0;
    for (const Operation& op : operations) {
        if (op.fromRepository != fromRepository) continue;
        const std::size_t at = index++;
        if (at < first || (at - first) % step != 0) continue;
        const auto run = [&](AppStore& apps) { op.run(apps, dir); };
        reset(op.start);
        for (const auto& [family, n] : changingCalls(run)) {
            SCOPED_TRACE(std::string(op.name) + " family " +
                         std::to_string(static_cast<int>(family)) + " call " + std::to_string(n));
            // Made again for each run, not copied: a copy's staging
            // folders no longer prove themselves the extractor's.
            const auto crash = [&, f = family, at = n] {
                reset(op.start);
                killedWhile([&] {
                    DyingOps ops(f, at, DyingOps::After);
                    AppStore apps(work(), {1}, seam(ops));
                    run(apps);
                });
            };
            crash();
            const auto recoveryCalls = changingCalls(recover);  // not killed, this once
            expectOutcome(op, "");
            for (const auto& [again, m] : recoveryCalls) {
                SCOPED_TRACE("then recovery family " + std::to_string(static_cast<int>(again)) +
                             " call " + std::to_string(m));
                crash();
                killedWhile([&, f = again, at = m] {
                    DyingOps ops(f, at, DyingOps::After);
                    AppStore apps(work(), {1}, seam(ops));
                    recover(apps);
                });
                expectOutcome(op, "");
            }
        }
    }
}

TEST_F(StoreFaults, KilledAgainWhileRecoveringStillConverges) {
    killDuringRecovery(false, 0, 2);
}
TEST_F(StoreFaults, KilledAgainWhileRecoveringStillConvergesToo) {
    killDuringRecovery(false, 1, 2);
}
TEST_F(StoreFaults, KilledAgainWhileRecoveringARepositoryInstallStillConverges) {
    killDuringRecovery(true);
}

TEST_F(StoreFaults, KillNineLeavesTheOldStateOrTheNew) {
    for (const Operation& op : operations) {
        for (int moment = 0; moment < 12; ++moment) {
            reset(op.start);
            const pid_t child = ::fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                AppStore apps(work());
                op.run(apps, dir);
                ::_exit(0);
            }
            ::usleep(static_cast<useconds_t>(moment * 3000));
            ::kill(child, SIGKILL);
            int status = 0;
            ::waitpid(child, &status, 0);
            expectOutcome(op, " at " + std::to_string(moment));
        }
    }
}

// A `current`, a `current.new` or a version's folder planted as a link out
// of the root is never followed: whatever remove, audit, rollback or
// recovery make of it (and the recovery after them), a copy of the
// version's files where it leads, which a follower would take for the
// version's own, is left byte for byte.
TEST_F(StoreFaults, PlantedLinksOutOfTheRootAreNeverFollowed) {
    const TempDir outside;
    const std::string target = outside.file("target");
    const std::vector<std::pair<const char*, std::function<void(AppStore&)>>> runs = {
        {"remove", [](AppStore& s) { s.remove(kGuid); }},
        {"purge", [](AppStore& s) { s.remove(kGuid, true); }},
        {"audit", [](AppStore& s) { s.audit(kGuid); }},
        {"rollback", [](AppStore& s) { s.rollback(kGuid); }},
        {"recover", [](AppStore& s) { s.recover(); }},
    };
    for (const std::string planted : {"current", "current.new", "current version", "previous"}) {
        for (const auto& [name, run] : runs) {
            SCOPED_TRACE(planted + " then " + name);
            reset("two");
            const std::string app = work() + "/apps/" + kGuid;
            AppStore shown(work());
            const auto versions = shown.show(kGuid);
            const std::string current = versions.current.folder.string();
            const std::string previous = versions.previous.at(0).folder.string();
            fs::remove_all(target);
            fs::copy(planted == "previous" ? previous : current, target,
                     fs::copy_options::recursive);
            const Tree before = snapshot_tree(outside.path());
            const std::string at = planted == "current version" ? current
                                   : planted == "previous"      ? previous
                                                                : app + "/" + planted;
            fs::remove_all(at);
            fs::create_directory_symlink(target, at);
            for (const auto& step : {run, runs.back().second}) {
                try {
                    AppStore apps(work());
                    step(apps);
                } catch (const std::exception&) {
                }
            }
            EXPECT_EQ(snapshot_tree(outside.path()), before);
            EXPECT_TRUE(fs::is_symlink(fs::symlink_status(at)) ||
                        !fs::exists(fs::symlink_status(at)));
        }
    }
}

// Calls per "SYSCALL FILE" on the root's database files (store.db,
// store.db-wal...), from the lines `strace -f -y` wrote:
// "PID pwrite64(5</ROOT/store.db-wal>, ...".
std::map<std::string, long> databaseCalls(const std::string& traced, const std::string& root) {
    std::map<std::string, long> calls;
    std::ifstream in(traced);
    const std::string folder = root + "/";
    for (std::string line; std::getline(in, line);) {
        const auto open = line.find('(');
        if (open == std::string::npos) continue;
        const auto fd = line.find_first_not_of("0123456789", open + 1);
        if (fd == std::string::npos || line[fd] != '<' ||
            line.compare(fd + 1, folder.size(), folder) != 0)
            continue;
        const auto start = fd + 1 + folder.size();
        const std::string file = line.substr(start, line.find('>', start) - start);
        if (file.rfind("store.db", 0) != 0) continue;
        const auto space = line.rfind(' ', open);
        const auto from = space == std::string::npos ? 0 : space + 1;
        ++calls[line.substr(from, open - from) + " " + file];
    }
    return calls;
}

// The seam sees SQLite's I/O as the kernel does: during a remove and a
// rollback (which write nothing but the database), each of SQLite's writes
// and truncations of the database and its WAL is one Write of the seam,
// and each flush of either one Fsync. The operation runs in a child of its
// own under strace, on a root this process made.
TEST(StoreSeam, SeesEveryWriteAndFlushOfTheDatabase) {
    if (const char* root = std::getenv("TSAPP_COUNTED_ROOT")) {
        CountingOps ops;
        {
            AppStore apps(root, {1}, seam(ops));
            if (std::string(std::getenv("TSAPP_COUNTED_RUN")) == "remove")
                apps.remove(kGuid);
            else
                apps.rollback(kGuid);
        }
        std::ofstream(std::getenv("TSAPP_COUNTED_OUT"))
            << ops.counts[static_cast<std::size_t>(FileCall::Write)] << " "
            << ops.counts[static_cast<std::size_t>(FileCall::Fsync)];
        std::_Exit(0);
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's runtime makes file-system calls of its own";
#endif
    if (std::system("strace -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "strace is missing";
    const TempDir dir;
    for (const std::string run : {"remove", "rollback"}) {
        SCOPED_TRACE(run);
        const std::string root = fs::canonical(dir.path()).string() + "/" + run;
        {
            AppStore apps(root);
            apps.install(packApp(dir, AppRecipe("1.2.0"), "a"), fittingHost());
            apps.install(packApp(dir, AppRecipe("1.3.0"), "b"), fittingHost());
        }
        // The child ends with _Exit: folders its statics make go under ours.
        const std::string command =
            "TMPDIR=" + dir.path() + " TSAPP_COUNTED_ROOT=" + root + " TSAPP_COUNTED_RUN=" + run +
            " TSAPP_COUNTED_OUT=" + dir.file("seam") +
            " strace -f -y -e trace=write,pwrite64,pwritev,ftruncate,fsync,fdatasync -o " +
            dir.file("strace") + " /proc/" + std::to_string(::getpid()) +
            "/exe --gtest_filter=StoreSeam.SeesEveryWriteAndFlushOfTheDatabase >/dev/null 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
        long writes = -1, flushes = -1;
        std::ifstream(dir.file("seam")) >> writes >> flushes;
        long kernelWrites = 0, kernelFlushes = 0;
        for (const auto& [call, count] : databaseCalls(dir.file("strace"), root)) {
            const std::string name = call.substr(0, call.find(' '));
            const std::string file = call.substr(call.find(' ') + 1);
            if (name == "fsync" || name == "fdatasync")
                kernelFlushes += count;
            else if (file == "store.db" || file == "store.db-wal")
                kernelWrites += count;  // not the -shm index, grown by mapping it
        }
        EXPECT_GT(writes, 0);
        EXPECT_GT(flushes, 0);
        EXPECT_EQ(kernelWrites, writes);
        EXPECT_EQ(kernelFlushes, flushes);
    }
}

}  // namespace
