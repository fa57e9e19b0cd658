// Extraction: staged files never follow links, clash or lose a file that
// appears meanwhile; under every failing file-system call and under kill -9
// the destination is always as it was or complete, never mixed, and nothing
// stale survives the next run.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "platform/extract/ExtractionPaths.hpp"
#include "platform/extract/FileOps.hpp"
#include "platform/extract/StagedExtraction.hpp"
#include "support/PackageBuilder.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/Package.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace {

namespace fs = std::filesystem;
using opc::detail::FileCall;
using opc::detail::FileSegments;
using opc::detail::StagedExtraction;
using namespace tsapp::test;

std::function<void(int)> writes(const std::string& bytes) {
    return [bytes](int fd) {
        ASSERT_EQ(opc::detail::posixFileOps().writeAll(fd, bytes.data(), bytes.size()), 0);
    };
}

// Fails the n-th call of one family, and with `persistent` every later one.
struct FailingOps : opc::detail::FileOps {
    FailingOps(FileCall f, long at, bool on) : family(f), n(at), persistent(on) {}
    int fault(FileCall call) const override {
        static const int errors[] = {EIO, ENOSPC, EACCES, EMFILE, EFBIG};
        if (call != family) return 0;
        const long now = ++calls;
        return now == n || (persistent && now > n) ? errors[now % 5] : 0;
    }
    FileCall family;
    long n;
    bool persistent;
    mutable std::atomic<long> calls{0};
};

class Extraction : public ::testing::Test {
  protected:
    static std::string written(const TempDir& dir) {
        PackageBuilder()
            .defaultType("txt", "text/plain")
            .part("a.txt", "new a")
            .part("lib/b.txt", "new b")
            .part("lib/sub/c.txt", std::string(300, 'c'))
            .part("img/d.png", "d", false)
            .part("big.txt", std::string(3u << 20, 'b'))
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
                        std::uint64_t maxBytes = 0, unsigned threads = 1) {
        opc::extraction::Options options;
        options.sync = sync;
        options.maxBytes = maxBytes;
        options.threads = threads;
        return error_of<opc::Exception>([&] {
            opc::extraction::Extractor(package, opc::FileSystemOpsSelector(ops), options)
                .extractAll(dest(), opc::qvservices::RestoreMode::AllParts,
                            opc::qvservices::TransformMode::PercentDecode,
                            opc::qvservices::ReplaceMode::Replace);
        });
    }

    Tree recoverCleanly() {
        const auto recovery = opc::extraction::recover(dest());
        EXPECT_TRUE(recovery.leftAside.empty());
        for (auto& s : recovery.skipped) ADD_FAILURE() << "skipped " << s;
        for (auto& s : recovery.unreadable) ADD_FAILURE() << "unreadable " << s;
        return snapshot_tree(root());
    }

    std::string root() const { return dir.file("root"); }
    std::string dest() const { return dir.file("root/dest"); }

    TempDir dir;
    opc::zippackage::ZipPhysicalPackage physical{u16(written(dir)), true};
    opc::model::Package package{physical};
};

TEST_F(Extraction, CommitReplacesALinkWithoutFollowingIt) {
    fs::create_directories(dest());
    fs::create_directories(dir.file("outside"));
    write_file(dir.file("outside/target"), "outside");
    fs::create_symlink(dir.file("outside/target"), dest() + "/link.txt");
    {
        StagedExtraction extraction(dest(), StagedExtraction::Existing::Replace);
        extraction.stage({"link.txt"}, writes("file now"));
        extraction.commit();
    }
    EXPECT_FALSE(fs::is_symlink(dest() + "/link.txt"));
    EXPECT_EQ(read_file(dest() + "/link.txt"), "file now");
    EXPECT_EQ(read_file(dir.file("outside/target")), "outside");
    EXPECT_EQ(snapshot_tree(dest()).size(), 1u);
}

TEST_F(Extraction, ClashesAreErrorsNotOverwrites) {
    fs::create_directories(dest() + "/taken");
    write_file(dest() + "/exists", "x");
    const auto before = snapshot_tree(dest());
    auto attempt = [&](std::vector<FileSegments> paths, StagedExtraction::Existing existing) {
        return error_of<opc::Exception>([&] {
            StagedExtraction extraction(dest(), existing);
            for (const auto& path : paths) extraction.stage(path, writes("x"));
            extraction.commit();
        });
    };
    const auto replace = StagedExtraction::Existing::Replace;
    EXPECT_EQ(attempt({{"taken"}}, replace), "a folder is in the way of the file \"taken\"");
    EXPECT_EQ(attempt({{"Doc.txt"}, {"doc.TXT"}}, replace),
              "the package names \"doc.TXT\" twice, or as both a file and a folder");
    EXPECT_EQ(attempt({{"a"}, {"A", "b"}}, replace),
              "the package names \"A\" as both a file and a folder");
    EXPECT_EQ(attempt({{"a", "b"}, {"a"}}, replace),
              "the package names \"a\" twice, or as both a file and a folder");
    EXPECT_EQ(attempt({{"exists", "x"}}, replace),
              "\"exists\" in the destination is not a folder (a file or a symbolic link)");
    EXPECT_EQ(attempt({{"new"}, {"exists"}}, StagedExtraction::Existing::Refuse),
              "the file \"exists\" already exists");
    EXPECT_EQ(snapshot_tree(dest()), before);
}

// Folders missing when a file is staged are not searched for files in the
// way; a file someone else puts there before commit() must still never be lost.
TEST_F(Extraction, AFileThatAppearsInAFolderTheCallMadeIsNeverLost) {
    auto stageThenIntrude = [&](StagedExtraction::Existing existing) {
        return error_of<opc::Exception>([&] {
            fs::create_directories(dest());
            StagedExtraction extraction(dest(), existing);
            extraction.stage({"lib", "a.js"}, writes("ours"));
            fs::create_directories(dest() + "/lib");
            write_file(dest() + "/lib/a.js", "theirs");
            extraction.commit();
        });
    };
    EXPECT_EQ(stageThenIntrude(StagedExtraction::Existing::Refuse),
              "the file \"lib/a.js\" already exists");
    EXPECT_EQ(read_file(dest() + "/lib/a.js"), "theirs");
    EXPECT_EQ(snapshot_tree(dest()).size(), 2u);  // and no temporary file beside it

    fs::remove_all(dest());
    EXPECT_EQ(stageThenIntrude(StagedExtraction::Existing::Replace), "");
    EXPECT_EQ(read_file(dest() + "/lib/a.js"), "ours");
    EXPECT_EQ(snapshot_tree(dest()).size(), 2u);  // the old copy is not left behind
}

TEST_F(Extraction, EveryFailingCallLeavesTheDestinationAsItWasOrComplete) {
    for (const auto& [existing, threads] :
         {std::pair{false, 1u}, {true, 1u}, {false, 3u}, {true, 3u}}) {
        reset(existing);
        const Tree before = snapshot_tree(root());
        ASSERT_EQ(extract(nullptr), "");
        const Tree complete = snapshot_tree(root());
        ASSERT_EQ(complete.count("dest/lib/sub/c.txt"), 1u);
        for (int f = 0; f < opc::detail::kFileCallFamilies; ++f) {
            const auto family = static_cast<FileCall>(f);
            for (const bool persistent : {false, true}) {
                for (long n = 1;; ++n) {
                    SCOPED_TRACE(testing::Message()
                                 << "existing " << existing << ", threads " << threads
                                 << ", family " << static_cast<int>(family) << ", call " << n
                                 << (persistent ? " on" : " alone"));
                    reset(existing);
                    FailingOps ops(family, n, persistent);
                    const int descriptors = open_descriptor_count();
                    const std::string error = extract(&ops, family == FileCall::Fsync, 0, threads);
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

// Counts every call the seam sees, failing none.
struct CountingOps : opc::detail::FileOps {
    int fault(FileCall call) const override {
        ++counts[static_cast<std::size_t>(call)];
        return 0;
    }
    mutable std::array<std::atomic<long>, opc::detail::kFileCallFamilies> counts{};
};

// Calls per system call name, from `strace -c -o FILE`.
std::map<std::string, long> straceCounts(const std::string& file) {
    std::map<std::string, long> calls;
    std::istringstream in(read_file(file));
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::vector<std::string> f{std::istream_iterator<std::string>(fields), {}};
        if (f.size() >= 5 && f.back() != "total" &&
            std::isdigit(static_cast<unsigned char>(f[3][0])))
            calls[f.back()] = std::stol(f[3]);
    }
    return calls;
}

// The seam is only as good as what bypasses it: the kernel's count of
// file-system calls during one extraction into an existing folder must be
// exactly what the seam saw (data writes and reads at least as many: the
// decoder writes a file's bytes in pieces, and reads the package itself).
// The test runs itself twice under strace, once without the extraction,
// and compares the difference.
TEST_F(Extraction, TheSeamSeesEveryFileSystemCall) {
    if (const char* counted = std::getenv("TSAPP_COUNTED_RUN")) {
        reset(true);
        CountingOps ops;
        if (std::string(counted) == "extract") {
            ASSERT_EQ(extract(&ops, false, 0, 3), "");
        }
        std::string text;
        for (long n : ops.counts) text += std::to_string(n) + " ";
        write_file(std::getenv("TSAPP_COUNTED_OUT"), text);
        // Cleaning up would differ between the runs; the parent's folder
        // holds this one's and removes it.
        std::_Exit(0);
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's runtime makes file-system calls of its own";
#endif
    if (std::system("strace -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "strace is missing";
    std::map<std::string, long> kernel[2];
    std::vector<long> seam;
    for (const int run : {0, 1}) {
        const std::string mode = run ? "extract" : "setup";
        const std::string command =
            "TMPDIR=" + dir.path() + " TSAPP_COUNTED_RUN=" + mode +
            " TSAPP_COUNTED_OUT=" + dir.file("seam") + " strace -f -c -o " + dir.file("strace") +
            " /proc/" + std::to_string(::getpid()) +
            "/exe --gtest_filter=Extraction.TheSeamSeesEveryFileSystemCall >/dev/null 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
        kernel[run] = straceCounts(dir.file("strace"));
        std::istringstream counts(read_file(dir.file("seam")));
        seam.assign(std::istream_iterator<long>(counts), {});
    }
    const auto sum = [&](std::initializer_list<const char*> names) {
        long total = 0;
        for (const char* name : names) total += kernel[1][name] - kernel[0][name];
        return total;
    };
    const auto seen = [&](FileCall call) { return seam.at(static_cast<std::size_t>(call)); };
    EXPECT_EQ(sum({"openat", "openat2", "open", "fcntl"}), seen(FileCall::Open));
    EXPECT_EQ(sum({"mkdir", "mkdirat"}), seen(FileCall::Mkdir));
    EXPECT_EQ(sum({"rename", "renameat", "renameat2"}), seen(FileCall::Rename));
    EXPECT_EQ(sum({"unlink", "unlinkat", "rmdir"}), seen(FileCall::Unlink));
    EXPECT_EQ(sum({"fsync", "fdatasync"}), seen(FileCall::Fsync));
    EXPECT_EQ(sum({"close"}), seen(FileCall::Close));
    EXPECT_EQ(sum({"newfstatat", "fstat", "statx", "statfs", "lstat", "stat"}),
              seen(FileCall::Stat));
    EXPECT_EQ(sum({"flock"}), seen(FileCall::Lock));
    EXPECT_EQ(sum({"symlink", "symlinkat"}), seen(FileCall::Symlink));
    EXPECT_EQ(sum({"readlink", "readlinkat"}), seen(FileCall::Readlink));
    EXPECT_GE(sum({"write", "writev", "pwrite64"}), seen(FileCall::Write));
    EXPECT_GE(sum({"getdents64"}), seen(FileCall::List));
    EXPECT_GE(sum({"pread64", "read"}), seen(FileCall::Read));
}

// Parts written by several threads at once land as one thread writes
// them; the progress, called by one thread at a time, only grows, and
// moves inside the big part too; every file is reported once as it landed.
TEST_F(Extraction, ConcurrentWritersLeaveWhatOneWouldLeave) {
    for (const bool existing : {false, true}) {
        reset(existing);
        ASSERT_EQ(extract(nullptr), "");
        const Tree one = snapshot_tree(root());
        reset(existing);
        std::vector<std::uint64_t> done;
        opc::extraction::Options options;
        options.threads = 4;
        options.progress = [&](std::uint64_t bytes, std::uint64_t total, std::size_t, std::size_t) {
            done.push_back(bytes);
            EXPECT_LE(bytes, total);
        };
        std::mutex mutex;
        std::map<std::string, opc::extraction::LandedFile> landed;
        options.landed = [&](const opc::model::PartName&, const std::string& path,
                             const opc::extraction::LandedFile& file) {
            const std::lock_guard<std::mutex> lock(mutex);
            EXPECT_TRUE(landed.emplace(path, file).second) << path;
        };
        opc::extraction::Extractor(package, opc::FileSystemOpsSelector(), options)
            .extractAll(dest(), opc::qvservices::RestoreMode::AllParts,
                        opc::qvservices::TransformMode::PercentDecode,
                        opc::qvservices::ReplaceMode::Replace);
        EXPECT_EQ(snapshot_tree(root()), one);
        EXPECT_EQ(landed.size(), package.getPartNames().size());
        for (const auto& [path, file] : landed) {
            struct stat info {};
            ASSERT_EQ(::lstat((dest() + "/" + path).c_str(), &info), 0) << path;
            EXPECT_EQ(file.size, static_cast<std::uint64_t>(info.st_size)) << path;
            EXPECT_EQ(file.mode, info.st_mode & 07777) << path;
            EXPECT_EQ(file.inode, info.st_ino) << path;
            EXPECT_EQ(file.modifiedNs, info.st_mtim.tv_sec * 1000000000 + info.st_mtim.tv_nsec)
                << path;
        }
        EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
        EXPECT_EQ(done.size(), package.getPartNames().size() + 3);  // a call per MiB of big.txt
    }
}

// Files are made and linked outside the staging lock, in folders held
// open meanwhile: more folders than the folder cache keeps (it starts
// afresh past 512) on four threads, half written, half linked from a
// source, each lands in its own folder with its own bytes.
TEST_F(Extraction, ThreadsStagingIntoMoreFoldersThanTheCacheKeepsLandEachFileInPlace) {
    constexpr int kFolders = 700, kThreads = 4;
    write_file(dir.file("source"), "shared");
    const int source = ::open(dir.file("source").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(source, 0);
    {
        StagedExtraction staging(dest(), StagedExtraction::Existing::Refuse);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                for (int i = t; i < kFolders; i += kThreads) {
                    const FileSegments path{"d" + std::to_string(i), "f"};
                    struct stat info {};
                    const std::string error = error_of<opc::Exception>([&] {
                        if (i % 2)
                            staging.stageFrom(path, source, info);
                        else
                            staging.stage(path, writes(std::to_string(i)));
                    });
                    EXPECT_EQ(error, "") << i;
                }
            });
        for (auto& thread : threads) thread.join();
        staging.commit();
    }
    ::close(source);
    const Tree tree = snapshot_tree(dest());
    EXPECT_EQ(tree.size(), 2u * kFolders);
    for (int i = 0; i < kFolders; ++i)
        EXPECT_EQ(read_file(dest() + "/d" + std::to_string(i) + "/f"),
                  i % 2 ? "shared" : std::to_string(i))
            << i;
}

TEST_F(Extraction, ATotalAboveTheLimitWritesNothing) {
    reset(false);
    EXPECT_NE(extract(nullptr, false, 300), "");
    EXPECT_TRUE(snapshot_tree(root()).empty());
}

// Killed at spread-out moments of a run: a new destination is absent or
// complete, an existing one is as it was or complete once recovered, and
// the next extraction leaves exactly the complete tree.
TEST_F(Extraction, KillNineAtAnyMomentIsRepairedByTheNextRun) {
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
            if (child == 0) _exit(extract(nullptr, false, 0, 3).empty() ? 0 : 1);
            // Forking takes about as long again as the extraction itself.
            std::this_thread::sleep_for(took * 2 * run / kRuns);
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
            if (!existing) {
                // Killed between renaming the new folder into place and
                // removing its stamp, it holds the stamp as well.
                Tree after = fs::exists(dest()) ? snapshot_tree(dest()) : Tree{};
                after.erase(".~tsapp-owner");
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
