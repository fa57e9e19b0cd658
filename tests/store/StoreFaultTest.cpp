// Install, upgrade and remove under every failing file-system call (each
// call of each family, once and from there on) and under kill -9: once
// the root is opened again it holds the old state or the new one, files
// and records agree and every app audits clean.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

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

// Dies as a crash would (SIGKILL) just before the n-th call of one family.
struct DyingOps : opc::detail::FileOps {
    DyingOps(FileCall f, long at) : family(f), n(at) {}
    int fault(FileCall call) const override {
        if (call == family && ++calls == n) ::raise(SIGKILL);
        return 0;
    }
    FileCall family;
    long n;
    mutable long calls = 0;
};

struct Operation {
    const char* name;
    const char* start;  // the template root it starts from
    std::function<void(AppStore&, const TempDir&)> run;
    std::string before, after;  // settledState() of either outcome
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
        fs::create_directories(templates().file("empty"));
    }
    static void TearDownTestSuite() { templatesDir.reset(); }
    static const TempDir& templates() { return *templatesDir; }
    static std::string package(const std::string& version) {
        return packApp(templates(), AppRecipe(version), "hello-" + version);
    }
    void reset(const std::string& from) {
        fs::remove_all(work());
        fs::copy(templates().file(from), work(),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    std::string work() const { return dir.file("root"); }

    const std::string one = std::string(kGuid) + "=1.2.0", two = std::string(kGuid) + "=1.3.0";
    const std::vector<Operation> operations = {
        {"install", "empty",
         [](AppStore& s, const TempDir&) { s.install(package("1.2.0"), fittingHost()); }, "", one},
        {"upgrade", "one",
         [](AppStore& s, const TempDir&) { s.install(package("1.3.0"), fittingHost()); }, one, two},
        {"remove", "two", [](AppStore& s, const TempDir&) { s.remove(kGuid); }, two, ""},
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
                        AppStore apps(work(), {1},
                                      detail::FileSeam{opc::FileSystemOpsSelector(&ops)});
                        op.run(apps, dir);
                    } catch (const std::exception&) {
                    }
                    const std::string state = settledState(work());
                    EXPECT_TRUE(state == op.before || state == op.after)
                        << op.name << " family " << family << " call " << n
                        << (persistent ? "+" : "") << ": " << state;
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
                const pid_t child = ::fork();
                ASSERT_GE(child, 0);
                if (child == 0) {
                    DyingOps ops(static_cast<FileCall>(family), n);
                    try {
                        AppStore apps(work(), {1},
                                      detail::FileSeam{opc::FileSystemOpsSelector(&ops)});
                        op.run(apps, dir);
                    } catch (...) {
                    }
                    ::_exit(0);
                }
                int status = 0;
                ::waitpid(child, &status, 0);
                const std::string state = settledState(work());
                EXPECT_TRUE(state == op.before || state == op.after)
                    << op.name << " family " << family << " call " << n << ": " << state;
                if (!WIFSIGNALED(status)) break;  // the family has no n-th call
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
            const std::string state = settledState(work());
            EXPECT_TRUE(state == op.before || state == op.after)
                << op.name << " at " << moment << ": " << state;
        }
    }
}

}  // namespace
