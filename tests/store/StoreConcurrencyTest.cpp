// Several writers and readers on one apps root at once, each with its own
// AppStore: the writers serialize, every record comes out right, and no
// reader ever sees an app half installed.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "store/StoreTestSupport.hpp"

namespace {

using namespace tsapp::test;
using namespace tsappinstall::store;

TEST(StoreConcurrency, WritersAndReadersOnOneRoot) {
    TempDir dir;
    const std::string root = dir.file("root");
    const std::vector<std::string> guids = {"0123abcd-0000-4000-8000-000000000002",
                                            "0123abcd-0000-4000-8000-000000000003",
                                            "0123abcd-0000-4000-8000-000000000004"};
    const auto package = [&](std::size_t writer, const std::string& version) {
        AppRecipe recipe(version);
        recipe.guid = guids[writer];
        recipe.name = "App " + std::to_string(writer);
        return packApp(dir, recipe, recipe.name + "-" + version);
    };
    for (std::size_t w = 0; w < guids.size(); ++w) package(w, "1.2.0"), package(w, "1.3.0");
    AppStore(root).install(package(2, "1.2.0"), fittingHost());

    std::atomic<int> running{static_cast<int>(guids.size())};
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    for (std::size_t w = 0; w < guids.size(); ++w) {
        threads.emplace_back([&, w] {
            AppStore apps(root);
            for (int round = 0; round < 3; ++round) {
                if (w < 2) apps.install(package(w, "1.2.0"), fittingHost());
                apps.install(package(w, "1.3.0"), fittingHost());
                apps.rollback(guids[w]);
                if (w < 2) apps.remove(guids[w]);
            }
            --running;
        });
    }
    for (int r = 0; r < 2; ++r) {
        threads.emplace_back([&] {
            AppStore apps(root);
            for (int i = 0; i < 400 && running > 0; ++i) {
                for (const auto& app : apps.list()) {
                    try {
                        if (!apps.audit(app.current.guid).clean()) ++torn;
                    } catch (const StoreError& e) {  // removed since the list was read
                        if (e.kind() != tsappinstall::FaultKind::NotInstalled) ++torn;
                    }
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(settledState(root), guids[2] + "=1.2.0");
}

// Writers that find no root make it one at a time: none meets the other's
// half-made database. Processes, since SQLite's locks between the
// connections of one process are not the ones between processes.
TEST(StoreConcurrency, FirstWritersCreateTheRootOneAtATime) {
    TempDir dir;
    const std::string package = packApp(dir, AppRecipe("1.0"), "app");
    for (int round = 0; round < 4; ++round) {
        const std::string root = dir.file("root" + std::to_string(round));
        std::vector<pid_t> writers;
        for (int w = 0; w < 3; ++w) {
            const std::string failure = root + "-failure-" + std::to_string(w);
            const pid_t pid = ::fork();
            if (pid == 0) {
                try {
                    InstallOptions options;
                    options.reinstall = true;
                    AppStore(root).install(package, fittingHost(), options);
                    ::_exit(0);
                } catch (const std::exception& e) {
                    write_file(failure, e.what());
                    ::_exit(1);
                }
            }
            writers.push_back(pid);
        }
        for (std::size_t w = 0; w < writers.size(); ++w) {
            int status = 0;
            ::waitpid(writers[w], &status, 0);
            const std::string failure = root + "-failure-" + std::to_string(w);
            EXPECT_EQ(status, 0) << (file_exists(failure) ? read_file(failure) : "");
        }
        EXPECT_EQ(settledState(root), std::string(kGuid) + "=1.0");
    }
}

// A writer that finds the root's lock held says so once, naming the holder
// when the note in the lock file is the number of a live process, and
// waits as long as it was told to.
TEST(StoreConcurrency, WaitsForTheLockAsToldAndSaysWhoHoldsIt) {
    TempDir dir;
    const std::string root = dir.file("root");
    const std::string package = packApp(dir, AppRecipe("1.0"), "app");
    { AppStore made(root); }
    const pid_t gone = ::fork();
    if (gone == 0) ::_exit(0);
    ::waitpid(gone, nullptr, 0);
    const long self = ::getpid();
    const std::string busy = root + " is in use by another process";
    const std::string bySelf = " (pid " + std::to_string(self) + ")";
    const struct {
        std::string note;
        long waitMillis;  // -1: as long as it takes; the holder lets go when told
        std::string refusal;
        std::vector<long> told;
    } cases[] = {
        {std::to_string(self) + "\n", 0, busy + bySelf, {}},
        {"junk\n", 0, busy, {}},
        {std::to_string(gone) + "\n", 0, busy, {}},
        {"123456789012345678901234567890", 0, busy, {}},
        {std::to_string(self) + "\n", 50, busy + bySelf + "; gave up after 0.05 seconds", {self}},
        {std::to_string(self), -1, "", {self}},
    };
    for (const auto& c : cases) {
        write_file(root + "/.lock", c.note);
        int holder = ::open((root + "/.lock").c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_EQ(::flock(holder, LOCK_EX), 0);
        AppStore::Options options;
        if (c.waitMillis >= 0) options.lockWait = std::chrono::milliseconds(c.waitMillis);
        std::vector<long> told;
        options.lockWaiting = [&](long pid) {
            told.push_back(pid);
            if (c.waitMillis < 0) ::close(std::exchange(holder, -1));
        };
        std::string refusal;
        try {
            AppStore(root, options).install(package, fittingHost());
        } catch (const StoreError& e) {
            refusal = e.what();
        }
        EXPECT_EQ(refusal, c.refusal) << c.note;
        EXPECT_EQ(told, c.told) << c.note;
        if (holder >= 0) ::close(holder);
    }
    EXPECT_EQ(read_file(root + "/.lock"), "");  // the note goes as its writer lets go
}

}  // namespace
