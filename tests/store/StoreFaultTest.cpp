// Install, upgrade, rollback, remove and recovery under every failing
// file-system call (each call of each family, once and from there on) and
// under kill -9, the recovery that follows a crash killed in turn too: once
// the root is opened again it holds the old state or the new one, files
// and records agree and every app audits clean.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>
#include <set>

#include "platform/extract/FileOps.hpp"
#include "store/FileSeam.hpp"
#include "store/StoreTestSupport.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tsapp::test;
using namespace tsappinstall::store;
using opc::detail::FileCall;

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

struct Operation {
    const char* name;
    const char* start;  // the template root it starts from
    std::function<void(AppStore&, const TempDir&)> run;
    std::string before, after;  // settledState() of either outcome
    std::string mine = {};      // a file the user changed (below the root), kept in both
};

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
        write_file(templates().file("changed/" + changedFile()), "mine");
        fs::create_directories(templates().file("empty"));
        fs::copy(templates().file("one"), templates().file("crashed"),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        killedWhile([] {
            DiesAfterLinkSwitch ops;
            AppStore(templates().file("crashed"), {1}, seam(ops))
                .install(package("1.3.0"), fittingHost());
        });
    }
    static void TearDownTestSuite() { templatesDir.reset(); }
    static const TempDir& templates() { return *templatesDir; }
    static std::string& changedFile() {
        static std::string path;
        return path;
    }
    // The state is the old or the new one, and the user's file is there.
    void expectOutcome(const Operation& op, const std::string& at) {
        const std::string state = settledState(work());
        EXPECT_TRUE(state == op.before || state == op.after) << op.name << at << ": " << state;
        if (!op.mine.empty()) {
            EXPECT_EQ(read_file(work() + "/" + op.mine), "mine") << op.name << at;
        }
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

    // Of the calls `run` makes on the work root (left as it leaves it)
    // in the families that change what is on disk, each family's first
    // two, middle and last two.
    std::vector<std::pair<FileCall, long>> changingCalls(
        const std::function<void(AppStore&)>& run) {
        CountingOps ops;
        {
            AppStore apps(work(), {1}, seam(ops));
            run(apps);
        }
        std::vector<std::pair<FileCall, long>> calls;
        for (const FileCall family : {FileCall::Mkdir, FileCall::Rename, FileCall::Unlink,
                                      FileCall::Write, FileCall::Symlink}) {
            const long count = ops.counts[static_cast<std::size_t>(family)];
            for (const long n : std::set<long>{1, 2, count / 2, count - 1, count})
                if (n >= 1 && n <= count) calls.emplace_back(family, n);
        }
        return calls;
    }

    const std::string one = std::string(kGuid) + "=1.2.0", two = std::string(kGuid) + "=1.3.0";
    const std::vector<Operation> operations = {
        {"install", "empty",
         [](AppStore& s, const TempDir&) { s.install(package("1.2.0"), fittingHost()); }, "", one},
        {"upgrade", "one",
         [](AppStore& s, const TempDir&) { s.install(package("1.3.0"), fittingHost()); }, one, two},
        {"remove", "two", [](AppStore& s, const TempDir&) { s.remove(kGuid); }, two, ""},
        {"rollback", "two", [](AppStore& s, const TempDir&) { s.rollback(kGuid); }, two, one},
        {"rollback --force", "two", [](AppStore& s, const TempDir&) { s.rollback(kGuid, {true}); },
         two, one},
        {"upgrade keeping", "changed",
         [](AppStore& s, const TempDir&) { s.install(package("1.4.0"), fittingHost()); }, two,
         std::string(kGuid) + "=1.4.0", changedFile()},
        // An upgrade killed between its link's switch and its records' commit.
        {"recover", "crashed", [](AppStore& s, const TempDir&) { s.recover(); }, one, one},
    };
    static std::unique_ptr<TempDir> templatesDir;
    TempDir dir;
};
std::unique_ptr<TempDir> StoreFaults::templatesDir;

TEST_F(StoreFaults, EveryFailingCallLeavesTheOldStateOrTheNew) {
    for (const Operation& op : operations) {
        for (int family = 0; family < opc::detail::kFileCallFamilies; ++family) {
            for (bool persistent : {false, true}) {
                for (long n = 1; n < 400; ++n) {
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
                    if (ops.calls < n) break;  // every call of the family went through
                }
            }
        }
    }
}

// Killed before each call of each family in turn, so that every step of
// an operation is a moment of the crash, including the steps between two
// calls that make no call of their own (a link made before the rename that
// publishes it).
TEST_F(StoreFaults, KilledBeforeAnyCallLeavesTheOldStateOrTheNew) {
    for (const Operation& op : operations) {
        for (int family = 0; family < opc::detail::kFileCallFamilies; ++family) {
            for (long n = 1; n < 400; ++n) {
                reset(op.start);
                const bool killed = killedWhile([&] {
                    DyingOps ops(static_cast<FileCall>(family), n);
                    AppStore apps(work(), {1}, seam(ops));
                    op.run(apps, dir);
                });
                expectOutcome(op,
                              " family " + std::to_string(family) + " call " + std::to_string(n));
                if (!killed) break;  // the family has no n-th call
            }
        }
    }
}

// Killed just after a call that changes what is on disk (where the next
// step may be a commit, which makes no call), then killed again just after
// such a call of the recovery that follows: the next recovery still
// converges on the old state or the new. Each family's first two, middle
// and last two calls are taken, where an operation's steps begin and end:
// every pair of moments would take minutes.
TEST_F(StoreFaults, KilledAgainWhileRecoveringStillConverges) {
    const auto recover = [&](AppStore& apps) { apps.recover(); };
    for (const Operation& op : operations) {
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

}  // namespace
