// Extraction under every failing file-system call and under kill -9: the
// destination is always as it was or complete, never mixed, and nothing
// stale survives the next run.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/extract/FileOps.hpp"
#include "support/PackageBuilder.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/Package.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace {

namespace fs = std::filesystem;
using opc::detail::FileCall;
using Tree = std::map<std::string, std::string>;
using namespace tsapp::test;

// Fails the n-th call of one family, and with `persistent` every later one.
struct FailingOps : opc::detail::FileOps {
    FailingOps(FileCall f, long at, bool on) : family(f), n(at), persistent(on) {}
    int fault(FileCall call) const override {
        static const int errors[] = {EIO, ENOSPC, EACCES, EMFILE, EFBIG};
        if (call != family) return 0;
        ++calls;
        return calls == n || (persistent && calls > n) ? errors[calls % 5] : 0;
    }
    FileCall family;
    long n;
    bool persistent;
    mutable long calls = 0;
};

class FaultInjection : public ::testing::Test {
  protected:
    static std::string written(const TempDir& dir) {
        PackageBuilder()
            .defaultType("txt", "text/plain")
            .defaultType("js", "text/javascript")
            .defaultType("bin", "application/octet-stream")
            .part("a.txt", "new a")
            .part("lib/b.js", "new b")
            .part("lib/sub/c.bin", std::string(300, 'c'))
            .part("img/d.png", "d", false)
            .write(dir.file("app.zip"));
        return dir.file("app.zip");
    }
    void SetUp() override { package.open(opc::interfaces::OpenMode::Read); }

    // A clean root holding, for an existing destination, the old version.
    void reset(bool existing) {
        fs::remove_all(root());
        fs::create_directories(root());
        if (!existing) return;
        fs::create_directories(dest() + "/lib");
        write_file(dest() + "/a.txt", "old a");
        write_file(dest() + "/keep.txt", "theirs");
    }

    // "" when it succeeded, else the error.
    std::string extract(const opc::detail::FileOps* ops, bool sync = false,
                        std::uint64_t maxBytes = opc::extraction::kDefaultMaxBytes) {
        opc::extraction::Options options;
        options.sync = sync;
        options.maxBytes = maxBytes;
        return error_of<opc::Exception>([&] {
            opc::extraction::Extractor(package, opc::FileSystemOpsSelector(ops), options)
                .extractAll(u16(dest()), opc::qvservices::RestoreMode::AllParts,
                            opc::qvservices::TransformMode::PercentDecode,
                            opc::qvservices::ReplaceMode::Replace);
        });
    }

    Tree recoverCleanly() {
        const auto recovery = opc::extraction::recover(dest());
        EXPECT_TRUE(recovery.leftAside.empty());
        return snapshot_tree(root());
    }

    std::string root() const { return dir.file("root"); }
    std::string dest() const { return dir.file("root/dest"); }

    TempDir dir;
    opc::zippackage::ZipPhysicalPackage physical{u16(written(dir)), true};
    opc::model::Package package{physical};
};

TEST_F(FaultInjection, EveryFailingCallLeavesTheDestinationAsItWasOrComplete) {
    const FileCall families[] = {FileCall::Open,   FileCall::Mkdir, FileCall::Rename,
                                 FileCall::Unlink, FileCall::Write, FileCall::Fsync,
                                 FileCall::Close};
    for (const bool existing : {false, true}) {
        reset(existing);
        const Tree before = snapshot_tree(root());
        ASSERT_EQ(extract(nullptr), "");
        const Tree complete = snapshot_tree(root());
        ASSERT_EQ(complete.count("dest/lib/sub/c.bin"), 1u);
        for (const FileCall family : families) {
            for (const bool persistent : {false, true}) {
                for (long n = 1;; ++n) {
                    SCOPED_TRACE(testing::Message() << "existing " << existing << ", family "
                                                    << static_cast<int>(family) << ", call " << n
                                                    << (persistent ? " on" : " alone"));
                    reset(existing);
                    FailingOps ops(family, n, persistent);
                    const int descriptors = open_descriptor_count();
                    const std::string error = extract(&ops, family == FileCall::Fsync);
                    EXPECT_EQ(open_descriptor_count(), descriptors);
                    if (ops.calls < n) break;  // past the last call of the family
                    if (!persistent) {
                        EXPECT_EQ(snapshot_tree(root()), error.empty() ? complete : before)
                            << error;
                        continue;
                    }
                    // A call that keeps failing may leave something only
                    // recovery can finish, but the error says so.
                    const Tree repaired = recoverCleanly();
                    if (error.empty())
                        EXPECT_EQ(repaired, complete);
                    else if (error.find("tsapp recover") == std::string::npos)
                        EXPECT_EQ(repaired, before) << error;
                    else
                        EXPECT_TRUE(repaired == before || repaired == complete) << error;
                }
            }
        }
    }
}

TEST_F(FaultInjection, ATotalAboveTheLimitWritesNothing) {
    reset(false);
    EXPECT_NE(extract(nullptr, false, 300), "");
    EXPECT_TRUE(snapshot_tree(root()).empty());
}

// Killed at spread-out moments of a run: a new destination is absent or
// complete, an existing one is as it was or complete once recovered, and
// the next extraction leaves exactly the complete tree.
TEST_F(FaultInjection, KillNineAtAnyMomentIsRepairedByTheNextRun) {
    for (const bool existing : {false, true}) {
        reset(existing);
        const Tree before = snapshot_tree(root());
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(extract(nullptr), "");
        const auto took = std::chrono::steady_clock::now() - start;
        const Tree complete = snapshot_tree(root());
        const Tree completeDest = snapshot_tree(dest());
        constexpr int kRuns = 30;
        for (int run = 0; run < kRuns; ++run) {
            SCOPED_TRACE(testing::Message() << "existing " << existing << ", run " << run);
            reset(existing);
            const pid_t child = ::fork();
            ASSERT_GE(child, 0);
            if (child == 0) _exit(extract(nullptr).empty() ? 0 : 1);
            // Forking takes about as long again as the extraction itself.
            std::this_thread::sleep_for(took * 2 * run / kRuns);
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
            if (!existing) {
                const Tree after = fs::exists(dest()) ? snapshot_tree(dest()) : Tree{};
                EXPECT_TRUE(!fs::exists(dest()) || after == completeDest);
            }
            const Tree recovered = recoverCleanly();
            EXPECT_TRUE(recovered == before || recovered == complete);
            ASSERT_EQ(extract(nullptr), "");
            EXPECT_EQ(snapshot_tree(root()), complete);
        }
    }
}

}  // namespace
