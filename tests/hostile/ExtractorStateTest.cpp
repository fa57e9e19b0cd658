// The extractor's own state (staging folders, journals, stamps) can come
// neither from a package nor from whoever else writes to the destination:
// planted and forged leftovers never act outside it, and recovery waits
// until the package is verified.

#include <sys/stat.h>

#include <climits>

#include "facade/FacadeFixture.hpp"
#include "platform/extract/ExtractionPaths.hpp"
#include "platform/extract/FileOps.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"

namespace tsapp::test {
namespace {

namespace fs = std::filesystem;
namespace q = opc::qvservices;
using opc::detail::FileCall;

// Fails every rename from the n-th on.
struct FailingRenames : opc::detail::FileOps {
    explicit FailingRenames(long from) : n(from) {}
    int fault(FileCall call) const override {
        return call == FileCall::Rename && ++calls >= n ? EIO : 0;
    }
    long n;
    mutable long calls = 0;
};

// Refuses the package once every part is written, as a digest check would.
struct RefusingObserver : opc::extraction::PartObserver {
    void begin(const opc::model::PartName&) override {}
    void update(const unsigned char*, std::size_t) override {}
    void end() override {}
    void beforeCommit() override { throw opc::Exception("refused"); }
};

class ExtractorState : public ::testing::Test {
  protected:
    ExtractorState() {
        fs::create_directories(dest());
        fs::create_directories(dir.file("root/outside"));
        write_file(dest() + "/a.txt", "old a");
        write_file(dir.file("root/victim-file.txt"), "the victim");
        PackageBuilder()
            .defaultType("txt", "text/plain")
            .part("a.txt", "new a")
            .part("lib/b.txt", "new b")
            .part("lib/c.txt", "new c")
            .write(pkg());
    }

    std::string pkg() const { return dir.file("app.tsappinstall"); }
    std::string root() const { return dir.file("root"); }
    std::string dest() const { return dir.file("root/a/b/victim"); }

    // "" when it succeeded, else the error; `warnings` gets what it left aside.
    std::string extract(const opc::detail::FileOps* ops = nullptr,
                        opc::extraction::PartObserver* observer = nullptr,
                        std::vector<std::string>* warnings = nullptr) {
        opc::extraction::Options options;
        options.observer = observer;
        return error_of<opc::Exception>([&] {
            opc::model::OpenedPackage package(u16(pkg()));
            auto outcome =
                opc::extraction::Extractor(package.package(), opc::FileSystemOpsSelector(ops),
                                           options)
                    .extractAll(dest(), q::RestoreMode::AllParts, q::TransformMode::PercentDecode,
                                q::ReplaceMode::Replace);
            if (warnings) *warnings = outcome.leftAside;
        });
    }

    // A real run that died half-way through its commit: its journal is
    // still there, _rels/.rels in place, a.txt and the lib folder pending.
    std::string interruptedRun() {
        FailingRenames renames(4);  // the journal, _rels/.rels and a.txt go through
        EXPECT_NE(extract(&renames).find("tsapp recover"), std::string::npos);
        for (const auto& entry : fs::directory_iterator(dest()))
            if (entry.path().filename().string().rfind(".~tsapp-", 0) == 0)
                return entry.path().string();
        ADD_FAILURE() << "no staging folder was left";
        return {};
    }

    Tree outsideDestination() {
        Tree tree = snapshot_tree(root());
        for (auto it = tree.begin(); it != tree.end();)
            it = it->first.rfind("a/b/victim", 0) == 0 ? tree.erase(it) : std::next(it);
        return tree;
    }

    TempDir dir;
};

TEST_F(ExtractorState, ReservedNamesAreRefusedBeforeAnythingIsWritten) {
    AppManifestSerializer serializer;
    Corvane::addons::apps::Tsappinstall facade;
    for (const std::string name : {".~tsapp-1-0/journal", ".~tsapp-2-0/undo", ".~tsapp-owner",
                                   "lib/.~TSAPP-3-0/n0", "a%20b/.~Tsapp-4-0", ".~tsapp"}) {
        SCOPED_TRACE(name);
        PackageBuilder()
            .defaultType("txt", "text/plain")
            .overrideType("/" + name, "text/plain")
            .part("a.txt", "a")
            .part(name, "x")
            .write(pkg());
        const Tree before = snapshot_tree(root());
        EXPECT_NE(extract().find("the extractor reserves names beginning with \".~tsapp\""),
                  std::string::npos);
        EXPECT_EQ(error_of([&] { facade.extractAppFile(u16(pkg()), u16(dest())); }),
                  extraction_error_text(pkg(), dest()));
        EXPECT_EQ(snapshot_tree(root()), before);

        const auto report = tsappinstall::inspect::checkPackage(pkg(), serializer);
        ASSERT_FALSE(report.faults.empty());
        EXPECT_EQ(report.faults.front().kind, tsappinstall::inspect::FaultKind::ReservedName);
    }
    opc::zippackage::PackageWriter writer(dir.file("out.tsappinstall"));
    EXPECT_THROW(writer.addPart(".~tsapp-1-0/journal", "text/plain", {}), opc::Exception);
}

// Leftovers someone else made (another tool unpacking a package here, a
// co-tenant, an older extractor): none proves itself ours, so none is
// replayed or removed, whatever it names, and none blocks the extraction.
TEST_F(ExtractorState, ForgedLeftoversAreLeftAloneAndNeverActOutside) {
    const std::string journal1 = std::string("tsapp-journal-1\0F0", 18);
    const std::string token(32, 'a');
    const std::string forgedStamp = "tsapp-owner-1 0 1 2 0 0 3 4 " + token + "\n";
    const std::string journal2 = std::string("tsapp-journal-2\0", 16) + token +
                                 std::string("\0F0../../escape/pwned.txt\0end\0", 30);
    const std::map<std::string, std::string> planted = {
        {".~tsapp-1-0/journal", journal1 + std::string("../../escape/pwned.txt\0", 23)},
        {".~tsapp-1-0/n0", "pwned"},
        {".~tsapp-2-0/undo", journal1 + std::string("../../../victim-file.txt\0", 25)},
        {".~tsapp-3-0/journal", "garbage"},
        {".~tsapp-4-0/index.js", "an app that happens to have this name"},
        {".~tsapp-5-0/.~tsapp-owner", forgedStamp},
        {".~tsapp-5-0/journal", journal2},
        {".~tsapp-5-0/n0", "pwned"},
        {"../.~tsapp-6-0-victim/keep.me", "beside the destination"},
    };
    for (const auto& [path, bytes] : planted) {
        fs::create_directories(fs::path(dest() + "/" + path).parent_path());
        write_file(dest() + "/" + path, bytes);
        fs::permissions(dest() + "/" + path, fs::perms::owner_read | fs::perms::owner_write);
    }
    fs::permissions(dest() + "/.~tsapp-5-0", fs::perms::owner_all);
    const Tree outside = outsideDestination();
    Tree expected = snapshot_tree(dest());

    ASSERT_EQ(extract(), "");
    EXPECT_EQ(outsideDestination(), outside);
    expected["a.txt"] = "file:420:new a";
    expected["_rels"] = expected["lib"] = "dir";
    expected["lib/b.txt"] = "file:420:new b";
    expected["lib/c.txt"] = "file:420:new c";
    expected["_rels/.rels"] = snapshot_tree(dest())["_rels/.rels"];
    EXPECT_EQ(snapshot_tree(dest()), expected);

    const auto recovery = opc::extraction::recover(dest(), {}, true);
    EXPECT_TRUE(recovery.done.empty() && recovery.leftAside.empty());
    EXPECT_EQ(recovery.skipped.size(), 6u);
    EXPECT_EQ(snapshot_tree(dest()), expected);
    EXPECT_EQ(outsideDestination(), outside);
}

// A leftover of our own is replayed only beneath the destination, never
// through a link, and only from a folder nobody else may write to; one
// whose journal cannot be read waits for `recover --discard`.
TEST_F(ExtractorState, OwnLeftoversAreRepairedOnlyBeneathTheDestination) {
    struct Case {
        const char* name;
        std::function<void(const std::string& staging)> tamper;
        bool blocks;      // the next extraction refuses to run over it
        bool unreadable;  // reported, and removed only when discarded
    };
    const Case cases[] = {
        {"a journal path rewritten to escape",
         [](const std::string& staging) {
             write_file(staging + "/journal",
                        replaced(read_file(staging + "/journal"), "lib/b.txt", "../../escape"));
         },
         false, true},
        {"a journal path rewritten to an absolute one",
         [](const std::string& staging) {
             write_file(staging + "/journal",
                        replaced(read_file(staging + "/journal"), "lib/c.txt", "/tmp/c.txt"));
         },
         false, true},
        {"garbage for a journal",
         [](const std::string& staging) { write_file(staging + "/journal", "garbage"); }, false,
         true},
        {"a link swapped in for a folder on the way",
         [this](const std::string&) {
             fs::remove_all(dest() + "/lib");
             fs::create_directory_symlink(root() + "/outside", dest() + "/lib");
         },
         true, false},
        {"a staging folder others may write to",
         [](const std::string& staging) { fs::permissions(staging, fs::perms::all); }, false,
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(dest());
        fs::create_directories(dest());
        write_file(dest() + "/a.txt", "old a");
        const std::string staging = interruptedRun();
        c.tamper(staging);
        const Tree outside = outsideDestination();
        const Tree tampered = snapshot_tree(dest());

        const auto recovery = opc::extraction::recover(dest());
        EXPECT_EQ(recovery.unreadable.size(), c.unreadable ? 1u : 0u);
        EXPECT_EQ(recovery.leftAside.empty(), !c.blocks);
        // Files beneath the destination are still completed past a link.
        if (!c.blocks) {
            EXPECT_EQ(snapshot_tree(dest()), tampered);
        }
        EXPECT_EQ(outsideDestination(), outside);

        std::vector<std::string> warnings;
        const std::string error = extract(nullptr, nullptr, &warnings);
        EXPECT_EQ(error.empty(), !c.blocks) << error;
        EXPECT_EQ(warnings.size(), c.unreadable ? 1u : 0u);
        EXPECT_EQ(outsideDestination(), outside);
        if (c.unreadable) {
            EXPECT_EQ(opc::extraction::recover(dest(), {}, true).done.size(), 2u);
            EXPECT_FALSE(fs::exists(staging));
        }
    }
}

TEST_F(ExtractorState, RecoveryWaitsUntilThePackageIsVerified) {
    const std::string staging = interruptedRun();
    const Tree interrupted = snapshot_tree(root());
    RefusingObserver refusing;
    EXPECT_EQ(extract(nullptr, &refusing), "refused");
    EXPECT_EQ(snapshot_tree(root()), interrupted);

    ASSERT_EQ(extract(), "");
    EXPECT_FALSE(fs::exists(staging));
    EXPECT_EQ(read_file(dest() + "/lib/c.txt"), "new c");
}

// The quick path from a part name to its file path must give what the
// segment-by-segment one gives, and refuse what it refuses, in its words.
TEST(ExtractionPaths, ThePlainPathIsTheSplitOneAndRefusesAlike) {
    const std::string longest(NAME_MAX, 'n');
    const auto deep = [](std::size_t size) {
        std::string name;
        while (name.size() + 101 <= size) name += "/" + std::string(100, 'd');
        return name + "/" + std::string(size - name.size() - 1, 'f');
    };
    for (const std::string& name : {std::string("/a.txt"),
                                    std::string("/lib/x/a b.js"),
                                    std::string("/a%20b/c"),
                                    std::string("/a//b"),
                                    std::string("/a/"),
                                    std::string("/"),
                                    std::string(""),
                                    std::string("a"),
                                    std::string("/."),
                                    std::string("/a/./b"),
                                    std::string("/a/../b"),
                                    std::string("/.."),
                                    std::string("/..a"),
                                    std::string("/.~tsapp"),
                                    std::string("/x/.~TSAPP-1"),
                                    std::string("/.~tsap"),
                                    std::string("/a%2Fb"),
                                    std::string("/a%00"),
                                    std::string("/a%zz"),
                                    std::string("/a\0b", 4),
                                    "/" + longest,
                                    "/" + longest + "n",
                                    deep(PATH_MAX - 1),
                                    deep(PATH_MAX)}) {
        SCOPED_TRACE(name.substr(0, 40));
        std::string split, quick;
        try {
            split = opc::detail::joinSegments(opc::detail::fileSegmentsFor(name, true));
        } catch (const opc::Exception& e) {
            split = std::string("refused: ") + e.what();
        }
        try {
            quick = opc::detail::filePathFor(name);
        } catch (const opc::Exception& e) {
            quick = std::string("refused: ") + e.what();
        }
        EXPECT_EQ(quick, split);
    }
}

}  // namespace
}  // namespace tsapp::test
