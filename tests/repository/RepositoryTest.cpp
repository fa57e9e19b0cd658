// Publishing a repository and fetching from it: the indexer against real
// packages, the gallery in a real browser, and the client against a
// loopback server that misbehaves on purpose.

#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <random>
#include <thread>

#include "repository/Download.hpp"
#include "repository/RepositoryTestSupport.hpp"
#include "store/RootState.hpp"
#include "tsappinstall/installer/Installer.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/repository/Client.hpp"
#include "tsappinstall/timeconv/UtcText.hpp"

namespace {

using namespace tsapp::test;
using namespace tsappinstall::repository;
using namespace tsappinstall::installer;
using tsappinstall::Error;
using tsappinstall::FaultKind;
using tsappinstall::store::detail::RootStateAccess;
namespace fs = std::filesystem;

// Four workers over five packages: the TSan build runs this one.
TEST(RepositoryIndexerConcurrency, ListsGoodPackagesStoresEachImageOnceAndRereadsOnlyChangedFiles) {
    Published published;
    const std::string repo = published.repo();
    const auto before = static_cast<std::uint64_t>(std::time(nullptr));
    const IndexOutcome first = indexFolder(repo, published.signing());
    // Numbered by the clock, then one up each run however fast they come.
    EXPECT_GE(first.version, before);
    EXPECT_LE(first.version, static_cast<std::uint64_t>(std::time(nullptr)));
    EXPECT_EQ(first.read, 5u);
    ASSERT_EQ(first.badPackages.size(), 1u);
    EXPECT_EQ(first.badPackages[0].file, "bad.tsappinstall");
    ASSERT_EQ(first.leftOutImages.size(), 1u);
    EXPECT_EQ(first.leftOutImages[0].file, "scripted.tsappinstall");
    EXPECT_EQ(first.leftOutImages[0].what, "the icon (image/svg+xml) is no PNG, JPEG or inert SVG");
    // One icon and one screenshot, shared by every app.
    EXPECT_EQ(filesIn(repo + "/images").size(), 2u);

    const Index index = parseIndex(read_file(repo + "/index.json"));
    ASSERT_EQ(index.packages.size(), 4u);
    EXPECT_EQ(index.packages[0].file, "hello-1.0.tsappinstall");
    EXPECT_EQ(index.packages[0].sha256.size(), 64u);
    EXPECT_EQ(index.packages[1].signer, "CN=Publisher");
    EXPECT_EQ(index.packages[1].signerFingerprint.size(), 64u);
    EXPECT_EQ(index.packages[2].description, kHostile);
    EXPECT_TRUE(index.packages[3].icon.empty());
    EXPECT_FALSE(index.packages[3].screenshot.empty());

    // Unchanged, then only touched: nothing read; changed bytes: that file.
    EXPECT_EQ(indexFolder(repo, published.signing()).read, 0u);
    fs::last_write_time(repo + "/other.tsappinstall", fs::file_time_type::clock::now());
    const IndexOutcome touched = indexFolder(repo, published.signing());
    EXPECT_EQ(touched.read, 0u);
    EXPECT_GE(touched.version, first.version + 2);
    fs::copy_file(repo + "/hello-1.0.tsappinstall", repo + "/other.tsappinstall",
                  fs::copy_options::overwrite_existing);
    const IndexOutcome changed = indexFolder(repo, published.signing());
    EXPECT_EQ(changed.read, 1u);
    ASSERT_EQ(changed.badPackages.size(), 2u);
    EXPECT_EQ(changed.badPackages[1].what, "another file holds version 1.0 of this app");
    // Nothing temporary is left beside what was published; the signatures
    // of this index and the one before it stay.
    for (const std::string& name : filesIn(repo))
        EXPECT_EQ(name.find(".tmp."), std::string::npos) << name;
    EXPECT_EQ(filesIn(repo + "/signatures"),
              (std::vector<std::string>{std::to_string(changed.version - 1) + ".p7s",
                                        std::to_string(changed.version) + ".p7s"}));
    EXPECT_EQ(parseIndex(read_file(repo + "/index.json")).repository, "stable");
    // The identifier is kept; a folder that never had one needs one.
    tsappinstall::repository::IndexOptions unnamed = published.signing("");
    EXPECT_GT(indexFolder(repo, unnamed).version, changed.version);
    EXPECT_EQ(parseIndex(read_file(repo + "/index.json")).repository, "stable");
    fs::create_directory(published.dir.file("new"));
    EXPECT_EQ(error_of<Error>([&] { indexFolder(published.dir.file("new"), unnamed); }),
              "a new repository needs an identifier (such as \"stable\") that its index names");
    unnamed.title = "two\nlines";
    EXPECT_EQ(error_of<Error>([&] { indexFolder(repo, unnamed); }),
              "the gallery's title holds a control character");
    // What the indexer reads back of its own is read only as a regular
    // file: FIFOs planted in their place are replaced, never waited on.
    for (const char* planted : {"index.json", ".tsapp-index-cache.json", "index.html"})
        ASSERT_EQ(::mkfifo((published.dir.file("new") + "/" + planted).c_str(), 0600), 0);
    EXPECT_GE(indexFolder(published.dir.file("new"), published.signing("fresh")).version,
              first.version);
    EXPECT_TRUE(fs::is_regular_file(published.dir.file("new/index.html")));
}

// The gallery as visitors see it at a desktop's and a phone's width:
// nothing wider than the window, icons kept small, the install box on
// every page, every manifest text escaped. The screenshots are copied to
// build/gallery-screenshots/ for people to look at.
TEST(RepositoryGallery, FitsEveryWidthShowsHowToInstallAndEscapesEveryManifestText) {
    if (sh("command -v chromium") != 0) GTEST_SKIP() << "chromium is not installed";
    Published published;
    const std::string repo = published.repo(), empty = published.dir.file("empty");
    packApp(repo, "long.tsappinstall",
            {{"guid", "0123abcd-0000-4000-8000-00000000000d"},
             {"name", "\xC3\x84rger-mit-einem-sehr-langen-Namen-ohne-jede-Gelegenheit-zum-Umbruch"},
             {"description", "First paragraph,\r\nits second line.\n\n\nSecond <paragraph>."}},
            "",
            "<svg xmlns='http://www.w3.org/2000/svg' width='512' height='512'>"
            "<rect width='512' height='512' fill='#3060c0'/></svg>");
    IndexOptions options = published.signing();
    options.url = "https://apps.example.org/stable/";
    options.now = 1767225600;  // 2026-01-01T00:00:00Z
    indexFolder(repo, options);
    fs::create_directory(empty);
    indexFolder(empty, published.signing("empty"));
    const std::string signerKey =
        tsappinstall::integrity::readCertificate(published.dir.file("signer.pem")).keyFingerprint;

    // A copy of each page beside it whose script reports, once loaded, what
    // the visitor would see; on the front page it also filters by a name
    // in another case than the card's, outside ASCII. They are loaded in
    // frames of the widths tested (a headless window is never narrower
    // than 500 px), all at once, and each frame's page then takes the
    // frame's place, to be read in the one page dumped.
    const std::string probe = R"(<script>addEventListener('load',function(){
var q=document.getElementById('q');if(q){q.value='\u00e4RGER';q.dispatchEvent(new Event('input'));}
var icon=0;document.querySelectorAll('img.icon').forEach(function(i){icon=Math.max(icon,i.getBoundingClientRect().width);});
document.body.setAttribute('data-probe','fits='+(document.documentElement.scrollWidth<=innerWidth)+
' icon='+icon+' shown='+[].filter.call(document.querySelectorAll('.card'),function(c){
return c.getClientRects().length>0;}).length);});</script>)";
    std::string frames = "<!DOCTYPE html><body>";
    const struct {
        std::string page;  // below the temporary folder
        std::string shot;
        std::string shown;  // cards left by the filter
    } pages[] = {{"repo/index.html", "front", " shown=1"},
                 {"repo/apps/0123abcd-0000-4000-8000-00000000000b.html", "hostile-app", " shown=0"},
                 {"repo/apps/0123abcd-0000-4000-8000-00000000000d.html", "long-app", " shown=0"},
                 {"empty/index.html", "empty", " shown=0"}};
    const int widths[] = {1280, 360};
    for (const auto& c : pages) {
        const std::string page = published.dir.file(c.page);
        write_file(page + ".probe.html", replaced(read_file(page), "</body>", probe + "</body>"));
        for (const int width : widths)
            frames += "<iframe data-key=\"" + c.page + " " + std::to_string(width) + "\" src=\"" +
                      c.page + ".probe.html\" width=\"" + std::to_string(width) +
                      "\" height=\"900\"></iframe>";
    }
    write_file(published.dir.file("frames.html"), frames + R"(<script>
addEventListener('load',function(){document.querySelectorAll('iframe').forEach(function(f){
var s=document.createElement('section');s.setAttribute('data-key',f.getAttribute('data-key'));
s.appendChild(document.importNode(f.contentDocument.documentElement,true));f.replaceWith(s);});});
</script>)");
    const std::string chromium =
        "TZ=UTC timeout 120 chromium --headless --no-sandbox --disable-gpu --hide-scrollbars "
        "--allow-file-access-from-files --window-size=";
    sh(chromium + "1300,900 --dump-dom file://" + published.dir.file("frames.html") + " >" +
       published.dir.file("frames.dom"));
    const std::string all = read_file(published.dir.file("frames.dom"));
    const std::string shots = std::string(TSAPP_BINARY_DIR) + "/gallery-screenshots";
    fs::create_directories(shots);
    std::map<std::string, std::string> doms;
    for (const auto& c : pages) {
        for (const int width : widths) {
            const std::string key = c.page + " " + std::to_string(width);
            const auto from = all.find("<section data-key=\"" + key + "\">");
            ASSERT_NE(from, std::string::npos) << key;
            const std::string dom =
                all.substr(from, all.find("<section data-key=", from + 1) - from);
            EXPECT_NE(dom.find("data-probe=\"fits=true icon="), std::string::npos) << key;
            const auto icon = dom.find(" icon=");
            EXPECT_LE(icon == std::string::npos ? 999 : std::stoi(dom.substr(icon + 6)), 96) << key;
            EXPECT_NE(dom.find(c.shown + "\""), std::string::npos) << key;
            EXPECT_NE(dom.find("<section class=\"install\""), std::string::npos) << key;
            EXPECT_NE(dom.find("it should read SHA-256 <code class=\"token\">" + signerKey),
                      std::string::npos)
                << key;
            doms[c.page] = dom;
            const std::string page = published.dir.file(c.page), shot = page + ".png";
            sh(chromium + std::to_string(width) + ",900 --screenshot=" + shot + " file://" + page);
            EXPECT_GT(fs::exists(shot) ? fs::file_size(shot) : 0, 1000u) << key;
            fs::copy_file(shot, shots + "/" + c.shot + "-" + std::to_string(width) + ".png",
                          fs::copy_options::overwrite_existing);
        }
    }
    const std::string& gallery = doms["repo/index.html"];
    std::size_t cards = 0;
    for (auto at = gallery.find("class=\"card\""); at != std::string::npos;
         at = gallery.find("class=\"card\"", at + 1))
        ++cards;
    EXPECT_EQ(cards, 4u);
    EXPECT_NE(gallery.find("<title>Apps of the \xE2\x80\x9Cstable\xE2\x80\x9D repository</title>"),
              std::string::npos);
    EXPECT_NE(gallery.find("tsapp repo add stable https://apps.example.org/stable/ <span"),
              std::string::npos);
    EXPECT_NE(gallery.find("<time datetime=\"2026-01-01T00:00:00Z\""), std::string::npos);
    EXPECT_NE(gallery.find("&lt;b&gt;Other&lt;/b&gt;</a>"), std::string::npos);
    EXPECT_NE(gallery.find("Version 1.10 by Sample Author"), std::string::npos);
    EXPECT_NE(gallery.find("Works with releases 2025.1 to 2027.4, on linux-x86_64, "),
              std::string::npos);
    EXPECT_NE(gallery.find("Signed by CN=Publisher"), std::string::npos);
    EXPECT_NE(gallery.find("href=\"hello-1.10.tsappinstall\""), std::string::npos);
    // A hostile name never reaches the command to copy: the app's GUID does.
    const std::string& other = doms["repo/apps/0123abcd-0000-4000-8000-00000000000b.html"];
    EXPECT_NE(other.find("&lt;script&gt;document.title='owned'&lt;/script&gt;"), std::string::npos);
    EXPECT_NE(other.find("<title>&lt;b&gt;Other&lt;/b&gt; \xE2\x80\x93 Apps of the "),
              std::string::npos);
    EXPECT_NE(other.find("tsapp install 0123abcd-0000-4000-8000-00000000000b</code>"),
              std::string::npos);
    EXPECT_NE(doms["repo/apps/0123abcd-0000-4000-8000-00000000000d.html"].find(
                  "<p class=\"description\">First paragraph,<br>its second line.</p>\n"
                  "<p class=\"description\">Second &lt;paragraph&gt;.</p>"),
              std::string::npos);
    const std::string& none = doms["empty/index.html"];
    EXPECT_NE(none.find("No apps yet."), std::string::npos);
    EXPECT_NE(none.find("tsapp repo add empty URL <span"), std::string::npos);
    EXPECT_NE(none.find("For URL, take the address of this page"), std::string::npos);
}

TEST(RepositoryIndex, RefusesHostileIndexes) {
    const std::string entry = R"({"file":"a.tsappinstall","size":1,"sha256":")" +
                              std::string(64, 'a') +
                              R"(","guid":"g","name":"A","version":"1","platforms":[])";
    const auto index = [&](const std::string& packages) {
        return R"({"schema":1,"version":1,"generated":"2026-01-01T00:00:00Z",)"
               R"("expires":"2026-02-01T00:00:00Z","packages":[)" +
               packages + "]}";
    };
    const struct {
        std::string text;
        std::string refusal;
    } cases[] = {
        {"{", "the index is not JSON"},
        {replaced(index(""), "\"schema\":1", "\"schema\":2"), "unknown schema version 2"},
        {index(entry + "}," + entry + "}"), "the file a.tsappinstall is listed twice"},
        {index(entry + "}," + replaced(entry, "a.tsapp", "b.tsapp") + "}"),
         "version 1 of g is listed twice"},
        {index(replaced(entry, "a.tsapp", "../a.tsapp") + "}"),
         "the file name \"../a.tsappinstall\" is not a plain package name"},
        {index(entry + R"(,"icon":"images/../../etc/passwd"})"),
         "the image path \"images/../../etc/passwd\" is not one of the repository's images"},
        {index(replaced(entry, "\"size\":1", "\"size\":-1") + "}"),
         "the member \"size\" has the wrong type"},
        {index("") + std::string(MAX_INDEX_BYTES, ' '), "the index is larger than 67108864 bytes"},
        {replaced(index(""), "\"schema\":1", "\"schema\":1,\"repository\":\"../x\""),
         "the repository's identifier \"../x\" is not"},
        {index(entry + R"(,"digests":{"item":"_digests/sha256sums","sha256":"A"}})"),
         "the digest list of a.tsappinstall is not pinned by an item and 64 hex digits"},
        {index(entry + R"(,"digests":{"sha256":")" + std::string(64, 'a') + "\"}}"),
         "the digest list of a.tsappinstall is not pinned"},
    };
    for (const auto& c : cases) {
        try {
            parseIndex(c.text);
            ADD_FAILURE() << "accepted: " << c.refusal;
        } catch (const Error& e) {
            EXPECT_EQ(e.kind(), FaultKind::BadIndex);
            EXPECT_EQ(std::string(e.what()).substr(0, c.refusal.size()), c.refusal);
        }
    }
}

TEST(RepositoryIndex, PicksTheHighestCompatibleVersion) {
    Index index;
    const auto add = [&](const std::string& version, const std::string& max,
                         const std::string& core) {
        PackageEntry e;
        e.guid = "G", e.name = "App", e.version = version, e.maxRelease = max;
        e.platforms = {"linux-x86_64"};
        e.requiredProducts = {{"core", "", core}};
        index.packages.push_back(e);
    };
    add("1.9", "", "1"), add("1.10", "", "3"), add("1.11", "2025.9", "1");
    const HostProfile host{"2025.10", "linux-x86_64", {{"core", "2.5"}}};
    ASSERT_NE(pickNewest(index, "g", host), nullptr);
    EXPECT_EQ(pickNewest(index, "App", host)->version, "1.9");
    EXPECT_EQ(pickNewest(index, "App", {"2025.10", "windows-x86_64", {{"core", "9"}}}), nullptr);
    EXPECT_EQ(search(index, "aPP").size(), 3u);
}

TEST(RepositoryClient, RefusesWhatAServerOrItsIndexMustNotHandOver) {
    Published published;
    indexFolder(published.repo(), published.signing());
    const Server http(published.repo(), published.dir.file("http.port"));
    const Server https(published.repo(), published.dir.file("https.port"),
                       {published.dir.file("tls.pem"), published.dir.file("tls.key")});
    ClientOptions trusting;
    trusting.trustAnchors = {published.dir.file("ca.pem")};
    // Long enough for a TLS handshake on a busy machine under the
    // sanitizers (the stall time bounds connecting too); the stall case
    // shortens it.
    trusting.stallSeconds = 10;
    trusting.attempts = 2;
    const Index index = parseIndex(read_file(published.repo() + "/index.json"));
    const PackageEntry& hello = index.packages[1];
    const std::string downloads = published.dir.file("downloads");
    fs::create_directory(downloads);
    // Folders where a FIFO stands for the index, or for a package.
    const auto withFifo = [&](const std::string& name, const std::string& file) {
        const std::string folder = published.dir.file(name);
        fs::copy(published.repo(), folder, fs::copy_options::recursive);
        fs::remove(folder + "/" + file);
        EXPECT_EQ(::mkfifo((folder + "/" + file).c_str(), 0644), 0);
        return folder;
    };

    const struct {
        std::string name, location;
        std::function<void(ClientOptions&, PackageEntry&)> change;
        FaultKind kind;
        std::string refusal;  // the start of the line
    } cases[] = {
        {"rogue anchor", http.url("http", "ok"),
         [&](ClientOptions& o, PackageEntry&) {
             o.trustAnchors = {published.dir.file("rogue.pem")};
         },
         FaultKind::UntrustedSigner, "the index's signature: the signer is not trusted"},
        {"expired", http.url("http", "ok"),
         [&](ClientOptions& o, PackageEntry&) { o.now = index.expires + 86400 * 3; },
         FaultKind::ExpiredIndex,
         "the index expired at " + tsappinstall::formatUtc(index.expires) + ", 3 days ago"},
        {"expired a second ago", http.url("http", "ok"),
         [&](ClientOptions& o, PackageEntry&) { o.now = index.expires + 1; },
         FaultKind::ExpiredIndex,
         "the index expired at " + tsappinstall::formatUtc(index.expires) + ", 1 second ago"},
        {"rollback", http.url("http", "ok"),
         [&](ClientOptions& o, PackageEntry&) { o.highestSeen = index.version + 1; },
         FaultKind::IndexRollback,
         "the index is version " + std::to_string(index.version) + ", older than version " +
             std::to_string(index.version + 1) + " seen before"},
        {"other host", http.url("http", "redirect"), nullptr, FaultKind::DownloadFailed,
         "index.json: redirected to another host (http://localhost:"},
        // Worded by the TLS library libcurl is built on.
        {"unknown CA", https.url("https", "ok"), nullptr, FaultKind::DownloadFailed,
         "index.json: "},
        {"closes early", http.url("http", "short"), nullptr, FaultKind::DownloadFailed,
         "hello-1.10.tsappinstall: transfer closed with"},
        {"stalls", http.url("http", "stall"),
         [](ClientOptions& o, PackageEntry&) { o.attempts = 1, o.stallSeconds = 1; },
         FaultKind::DownloadFailed, "hello-1.10.tsappinstall: Operation too slow"},
        {"endless", http.url("http", "more"), nullptr, FaultKind::SizeMismatch,
         "hello-1.10.tsappinstall: the source sent more than the"},
        {"other bytes", http.url("http", "same"),
         [](ClientOptions&, PackageEntry& e) { e.sha256 = std::string(64, '0'); },
         FaultKind::DigestMismatch, "hello-1.10.tsappinstall: its SHA-256 is "},
        {"other app", published.repo(), [&](ClientOptions&, PackageEntry& e) { e.version = "9"; },
         FaultKind::BadIndex, "hello-1.10.tsappinstall: the package is "},
        {"drips", http.url("http", "drip"),
         [](ClientOptions& o, PackageEntry&) { o.downloadSeconds = 1, o.minimumRate = 0; },
         FaultKind::DownloadFailed, "hello-1.10.tsappinstall: not received within 1 second"},
        {"drips the index", http.url("http", "dripall"),
         [](ClientOptions& o, PackageEntry&) { o.indexSeconds = 1; }, FaultKind::DownloadFailed,
         "index.json: not received within 1 second"},
        {"FIFO index", withFifo("fifo-index", "index.json"), nullptr, FaultKind::CannotRead,
         "index.json: not a regular file"},
        {"FIFO package", withFifo("fifo-package", hello.file), nullptr, FaultKind::CannotRead,
         "hello-1.10.tsappinstall: not a regular file"},
        {"other repository", http.url("http", "ok"),
         [](ClientOptions& o, PackageEntry&) { o.repository = "testing"; },
         FaultKind::WrongRepository,
         "the index is of the repository \"stable\", not of \"testing\""},
        {"other key", http.url("http", "ok"),
         [](ClientOptions& o, PackageEntry&) { o.signerKey = std::string(64, '0'); },
         FaultKind::WrongRepository, "the index is signed by the key SHA-256 "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ClientOptions options = trusting;
        PackageEntry entry = hello;
        if (c.change) c.change(options, entry);
        try {
            const Repository repo(c.location, options);
            repo.download(entry, downloads);
            ADD_FAILURE() << "accepted";
        } catch (const Error& e) {
            EXPECT_EQ(e.kind(), c.kind) << e.what();
            EXPECT_EQ(std::string(e.what()).substr(0, c.refusal.size()), c.refusal);
            if (c.name == "unknown CA") {
                EXPECT_NE(std::string(e.what()).find("certificate"), std::string::npos) << e.what();
            }
        }
        EXPECT_TRUE(filesIn(downloads).empty());
    }
    ClientOptions lastSecond = trusting;  // of the index's validity
    lastSecond.now = index.expires - 1;
    EXPECT_EQ(Repository(http.url("http", "ok"), lastSecond).index().version, index.version);

    // Over TLS with the test CA; a partial file is resumed where the server
    // takes ranges (its wrong first half then fails the digest) and started
    // over where it does not.
    ClientOptions tls = trusting;
    tls.serverCa = published.dir.file("ca.pem");
    const Repository secure(https.url("https", "ok"), tls);
    EXPECT_EQ(secure.signer(), "CN=Publisher");
    EXPECT_EQ(search(secure.index(), "sample author").size(), 4u);
    const std::string part = downloads + "/" + hello.file + ".part";
    write_file(part, std::string(hello.size / 2, 'x'));
    EXPECT_EQ(error_of<Error>([&] { secure.download(hello, downloads); }).substr(0, 34),
              "hello-1.10.tsappinstall: its SHA-2");
    write_file(part, std::string(hello.size / 2, 'x'));
    const Repository norange(http.url("http", "norange"), trusting);
    const std::string whole = read_file(published.repo() + "/" + hello.file);
    const fs::path restarted = norange.download(hello, downloads);
    EXPECT_EQ(read_file(restarted), whole);
    fs::remove(restarted);
    // A partial file that holds the true first half: its bytes count
    // towards the digest once, and the rest is fetched by range. The
    // finished file has a name of its own, ending in the package's.
    write_file(part, whole.substr(0, hello.size / 2));
    const std::string resumed = secure.download(hello, downloads).filename().string();
    EXPECT_EQ(read_file(downloads + "/" + resumed), whole);
    EXPECT_EQ(filesIn(downloads), std::vector<std::string>{resumed});
    EXPECT_EQ(resumed.substr(resumed.size() - hello.file.size() - 1), "-" + hello.file);

    // A partial file's name taken by a link (to a file elsewhere), a folder
    // or a FIFO: that is no download of ours; it goes, the file it points
    // at untouched, and the download starts afresh.
    fs::remove(downloads + "/" + resumed);
    const std::string elsewhere = published.dir.file("elsewhere");
    write_file(elsewhere, "theirs");
    for (const auto& plant : std::vector<std::function<void()>>{
             [&] { fs::create_symlink(elsewhere, part); }, [&] { fs::create_directory(part); },
             [&] { ASSERT_EQ(::mkfifo(part.c_str(), 0600), 0); }}) {
        plant();
        const fs::path fetched = secure.download(hello, downloads);
        EXPECT_EQ(read_file(fetched), whole);
        fs::remove(fetched);
        EXPECT_TRUE(filesIn(downloads).empty());
    }
    EXPECT_EQ(read_file(elsewhere), "theirs");
}

// A reader that comes while the publisher renames the signature and the
// index into place reads the old pair or the new one, and an index an
// older publisher signed beside index.json alone is read as before.
TEST(RepositoryClient, ReadsTheIndexAndItsSignatureAsOnePairWhileTheyArePublished) {
    Published published;
    const std::string repo = published.repo();
    indexFolder(repo, published.signing());
    const std::string first = read_file(repo + "/index.json");
    const std::string firstSignature = read_file(repo + "/index.json.p7s");
    indexFolder(repo, published.signing());
    const std::string second = read_file(repo + "/index.json");
    ClientOptions options;
    options.trustAnchors = {published.dir.file("ca.pem")};
    const struct {
        std::string moment;
        std::function<void()> make;
        int read;  // the first index or the second
    } moments[] = {
        {"the signatures in place, the index not yet",
         [&] { write_file(repo + "/index.json", first); }, 0},
        {"the index in place, the older signature beside it",
         [&] {
             write_file(repo + "/index.json", second);
             write_file(repo + "/index.json.p7s", firstSignature);
         },
         1},
        {"an older publisher's pair",
         [&] {
             fs::remove_all(repo + "/signatures");
             write_file(repo + "/index.json", first);
         },
         0},
    };
    for (const auto& m : moments) {
        SCOPED_TRACE(m.moment);
        m.make();
        EXPECT_EQ(Repository(repo, options).index().version,
                  parseIndex(m.read == 0 ? first : second).version);
    }
}

// Two installs of one app at once, each its own download of the same
// package into the root: one partial file at a time, and finished files
// apart. The root does not exist yet; both make it.
TEST(RepositoryConcurrency, TwoInstallsOfOneAppDownloadApart) {
    Published published;
    indexFolder(published.repo(), published.signing());
    const Server http(published.repo(), published.dir.file("http.port"));
    const std::string root = published.dir.file("root");
    const Remote slow{"", http.url("http", "slow"), {published.dir.file("ca.pem")}, ""};
    const tsappinstall::store::HostProfile host{
        "2026.2", "linux-x86_64", {{"tessal.core", "2026.1"}}};
    std::vector<std::string> failures(2);
    std::vector<std::thread> installs;
    for (std::string& failure : failures)
        installs.emplace_back([&] {
            try {
                tsappinstall::store::AppStore apps(root);
                Installer installer(apps);
                tsappinstall::store::InstallOptions options;
                options.reinstall = true;
                installer.install(
                    *installer.find("0123abcd-0000-4000-8000-00000000000a", host, {slow}), host,
                    options);
            } catch (const std::exception& e) {
                failure = e.what();
            }
        });
    for (auto& install : installs) install.join();
    EXPECT_EQ(failures, std::vector<std::string>(2));
    EXPECT_TRUE(filesIn(root + "/.downloads").empty());
}

// A host's round trip through the library alone: record a repository,
// install by name, read the origin back, find a newer version in it, forget
// it. Each refusal has its kind and names the repository.
TEST(RepositoryInstaller, KeepsItsRecordsInTheRootAndNamesTheRepositoryOfEachRefusal) {
    Published published;
    const std::string repo = published.dir.file("apps");
    const std::string guid = "0123abcd-0000-4000-8000-00000000000a";
    fs::create_directory(repo);
    packApp(repo, "hello-1.0.tsappinstall", {{"version", "1.0"}, {"guid", guid}});
    indexFolder(repo, published.signing());
    const tsappinstall::store::HostProfile host{
        "2026.2", "linux-x86_64", {{"tessal.core", "2026.1"}}};
    tsappinstall::store::AppStore apps(published.dir.file("root"));
    const auto refusal = [](auto call) {
        try {
            call();
        } catch (const Error& e) {
            return std::string(tsappinstall::token(e.kind())) + " " + e.fault().item;
        }
        return std::string("none");
    };
    const Remote main{"main", repo, {published.dir.file("ca.pem")}, ""};

    Installer installer(apps);
    installer.add(main);
    EXPECT_EQ(refusal([&] {
                  installer.add({"main", "/elsewhere", main.trust, ""});
              }),
              "repository-exists main");
    EXPECT_EQ(refusal([&] {
                  installer.add({"rogue", repo, {published.dir.file("rogue.pem")}, ""});
              }),
              "untrusted-signer rogue");
    const auto offer = installer.find("Hello Tessal", host);
    ASSERT_TRUE(offer);
    EXPECT_EQ(originOf(installer.install(*offer, host, {}).installed)->name, "main");
    EXPECT_EQ(originOf(apps.show(guid).current)->location, repo);
    EXPECT_TRUE(filesIn(published.dir.file("root/.downloads")).empty());

    for (const char* file : {"index.json", "index.json.p7s"})
        fs::copy(repo + "/" + file, published.dir.file(std::string("old-") + file));
    packApp(repo, "hello-1.10.tsappinstall", {{"version", "1.10"}, {"guid", guid}});
    indexFolder(repo, published.signing());
    Installer later(apps);  // indexes are fetched once per installer
    const auto outdated = later.outdated({}, host);
    ASSERT_EQ(outdated.size(), 1u);
    EXPECT_EQ(outdated.front().offer.entry->version, "1.10");
    EXPECT_EQ(later.highestSeen(later.remotes().front()), versionOf(repo));
    // Moved elsewhere: followed only to an index as new as the one seen.
    const std::string moved = published.dir.file("moved");
    fs::copy(repo, moved, fs::copy_options::recursive);
    for (const char* file : {"index.json", "index.json.p7s"})
        fs::copy(published.dir.file(std::string("old-") + file), moved + "/" + file,
                 fs::copy_options::overwrite_existing);
    EXPECT_EQ(refusal([&] { Installer(apps).move("main", moved); }), "index-rollback main");
    for (const char* file : {"index.json", "index.json.p7s"})
        fs::copy(repo + "/" + file, moved + "/" + file, fs::copy_options::overwrite_existing);
    Installer(apps).move("main", moved);
    EXPECT_EQ(later.remotes().front().location, moved);
    EXPECT_EQ(Installer(apps).outdated({}, host).front().offer.remote.location, moved);
    // Rebuilt in a fresh folder an hour on, with no earlier index there, it
    // still moves past every index seen: its version is its time.
    const std::string fresh = published.dir.file("fresh");
    fs::create_directory(fresh);
    for (const std::string& file : filesIn(repo))
        if (file.find(".tsappinstall") != std::string::npos)
            fs::copy(repo + "/" + file, fresh + "/" + file);
    auto anHourOn = published.signing();
    anHourOn.now = static_cast<std::int64_t>(std::time(nullptr)) + 3600;
    indexFolder(fresh, anHourOn);
    EXPECT_GT(Installer(apps).move("main", fresh)->index().version, versionOf(moved));
    later.remove("main");
    EXPECT_TRUE(later.remotes().empty());
    EXPECT_EQ(refusal([&] { later.remove("main"); }), "unknown-repository main");
    // Its repository forgotten and none other recorded, nothing is looked in.
    EXPECT_TRUE(Installer(apps).outdated({}, host).empty());
    // Forgotten with its name, highest version included: the publisher's
    // repository rebuilt at an older index version is added afresh.
    const std::string rebuilt = published.dir.file("rebuilt");
    fs::copy(moved, rebuilt, fs::copy_options::recursive);
    for (const char* file : {"index.json", "index.json.p7s"})
        fs::copy(published.dir.file(std::string("old-") + file), rebuilt + "/" + file,
                 fs::copy_options::overwrite_existing);
    EXPECT_EQ(Installer(apps).add({"main", rebuilt, main.trust, ""})->index().version,
              versionOf(rebuilt));

    // Of several repositories, one that cannot be read is told once and
    // left out, and the others answer; alone, it fails.
    std::vector<std::string> told;
    InstallerOptions reporting;
    reporting.unreachable = [&](const Remote& remote, const Error& e) {
        told.push_back(remote.key() + ": " + e.what());
    };
    Installer looking(apps, reporting);
    const Remote gone{"", published.dir.file("gone"), main.trust, ""};
    const std::vector<Remote> some = {gone, {"", rebuilt, main.trust, ""}};
    EXPECT_EQ(looking.find(guid, host, some)->entry->version, "1.0");
    EXPECT_EQ(looking.whyNotFound("helo tesal", host, some),
              "no repository lists an app called \"helo tesal\"; did you mean \"Hello Tessal\"?");
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told.front().rfind(gone.location + ": index.json: cannot open ", 0), 0u)
        << told.front();
    EXPECT_EQ(refusal([&] { looking.find(guid, host, {gone}); }), "cannot-read " + gone.location);
}

// The publisher's stable and testing repositories, signed with one key:
// each index names its repository, a root holds each to the highest
// version seen of it however its location is spelled, and an index of the
// other one is refused where one was recorded. The trust anchors live in
// the root, and a package's signer may be held to other anchors than the
// index's. A name that two apps share installs neither.
TEST(RepositoryInstaller, HoldsEachRepositoryToItsIdentityWhereverItIsRead) {
    Published published;
    const std::string stable = published.dir.file("stable"),
                      testing = published.dir.file("testing");
    const std::string guid = "0123abcd-0000-4000-8000-00000000000a";
    for (const std::string& folder : {stable, testing}) fs::create_directory(folder);
    packApp(stable, "hello-1.0.tsappinstall", {{"version", "1.0"}, {"guid", guid}});
    indexFolder(stable, published.signing("stable"));
    fs::copy(stable, published.dir.file("old"), fs::copy_options::recursive);
    packApp(stable, "hello-1.10.tsappinstall", {{"version", "1.10"}, {"guid", guid}},
            published.dir.file("signer"));
    indexFolder(stable, published.signing("stable"));
    packApp(testing, "impostor.tsappinstall",
            {{"version", "9.0"}, {"guid", "0123abcd-0000-4000-8000-00000000000f"}});
    auto early = published.signing("testing");  // numbered below stable's versions
    early.now = 1000;
    early.validFor = std::int64_t{100} * 365 * 86400;
    indexFolder(testing, early);
    const tsappinstall::store::HostProfile host{
        "2026.2", "linux-x86_64", {{"tessal.core", "2026.1"}}};
    tsappinstall::store::AppStore apps(published.dir.file("root"));
    const std::string ca = published.dir.file("ca.pem"), given = published.dir.file("given.pem");
    fs::copy(ca, given);
    Installer(apps).add({"main", stable, {given}, "", {published.dir.file("rogue.pem")}});
    fs::remove(given);  // the root holds its own copy
    const Remote main = Installer(apps).remotes().front();
    EXPECT_EQ(main.repository, "stable");
    EXPECT_EQ(main.signerKey.size(), 64u);
    EXPECT_EQ(main.trust.front().rfind(published.dir.file("root/trust/main-"), 0), 0u);
    EXPECT_EQ(Installer(apps).highestSeen(main), versionOf(stable));

    const auto refusal = [](auto call) {
        try {
            call();
        } catch (const Error& e) {
            return std::string(tsappinstall::token(e.kind())) + " " + e.fault().item + ": " +
                   e.what();
        }
        return std::string("none");
    };
    const std::string old = published.dir.file("old"),
                      rollback = ": the index is version " + std::to_string(versionOf(old)) +
                                 ", older than version " + std::to_string(versionOf(stable)) +
                                 " seen before";
    const Remote byLocation{"", "file://" + old, {ca}, ""};
    EXPECT_EQ(refusal([&] { Installer(apps).fetch(byLocation); }),
              "index-rollback file://" + old + rollback);
    EXPECT_EQ(refusal([&] {
                  Installer(apps).add({"again", old + "/", {ca}, ""});
              }),
              "index-rollback again" + rollback);
    EXPECT_EQ(refusal([&] { Installer(apps).move("main", testing); }),
              "wrong-repository main: the index is of the repository \"testing\", not of "
              "\"stable\"");
    // The testing repository is another: its lower version is no rollback.
    EXPECT_EQ(Installer(apps).fetch({"", testing, {ca}, ""})->index().version, versionOf(testing));

    const std::vector<Remote> both = {main, {"", testing, {ca}, ""}};
    EXPECT_EQ(refusal([&] { Installer(apps).find("Hello Tessal", host, both); }),
              "ambiguous-name Hello Tessal: Hello Tessal names 2 apps (" + guid +
                  " in main; 0123abcd-0000-4000-8000-00000000000f in " + testing +
                  "); give the GUID of the one to install");
    // 1.10 is signed: its signer leads to the index's anchor, not to the
    // packages' one.
    Installer installer(apps);
    const auto offer = installer.find(guid, host, both);
    EXPECT_EQ(refusal([&] { installer.install(*offer, host, {}); }).substr(0, 17),
              "untrusted-signer ");
    installer.install(*installer.find(guid, host, {{"", stable, {ca}, ""}}), host, {});
    // Installed, the name stands for its GUID.
    EXPECT_EQ(Installer(apps).find("Hello Tessal", host, both)->entry->version, "1.10");
    Installer(apps).remove("main");
    EXPECT_TRUE(filesIn(published.dir.file("root/trust")).empty());

    // A root that recorded "main" before pins, and its mark by name: the
    // mark is the floor of the next index read under the name, then moves
    // to the identity, and the record is pinned with its anchors copied in.
    tsappinstall::store::AppStore older(published.dir.file("older"));
    const auto record = [&](const char* scope, const char* key, const std::string& value) {
        RootStateAccess::update(older, scope, key,
                                [&](const auto&) { return std::optional<std::string>(value); });
    };
    const auto recordMain = [&](const std::string& location) {
        record("repositories", "recorded",
               R"([{"name":"main","location":")" + location + R"(","trust":[")" + ca + "\"]}]");
    };
    recordMain(old);
    record("repository-highest-index", "main", std::to_string(versionOf(stable)));
    EXPECT_EQ(refusal([&] { Installer(older).indexes(); }), "index-rollback main" + rollback);
    recordMain(stable);
    Installer(older).indexes();
    const Remote pinned = Installer(older).remotes().front();
    EXPECT_EQ(pinned.repository + " " + pinned.signerKey, main.repository + " " + main.signerKey);
    EXPECT_EQ(pinned.trust.front().rfind(published.dir.file("older/trust/main-"), 0), 0u);
    EXPECT_EQ(Installer(older).highestSeen(pinned), versionOf(stable));
    EXPECT_FALSE(RootStateAccess::read(older, "repository-highest-index", "main"));
}

// A publisher revokes an author's key in the signed index: the indexer
// leaves out what it signed from then on, in every later index too; a root
// that read the index refuses to install what the key signed, from any
// source, and its audit names what is installed already.
TEST(RepositoryInstaller, RefusesAndReportsWhatARevokedKeySigned) {
    Published published;
    ASSERT_EQ(sh("cd " + published.dir.path() +
                 " && openssl genpkey -algorithm ED25519 -out author.key && openssl req -x509 "
                 "-key author.key -CA ca.pem -CAkey ca.key -days 2 -subj /CN=Author -out "
                 "author.pem"),
              0);
    const std::string repo = published.dir.file("apps"),
                      guid = "0123abcd-0000-4000-8000-00000000000a";
    fs::create_directory(repo);
    packApp(repo, "hello-1.0.tsappinstall", {{"version", "1.0"}, {"guid", guid}},
            published.dir.file("author"));
    indexFolder(repo, published.signing());
    const tsappinstall::store::HostProfile host{
        "2026.2", "linux-x86_64", {{"tessal.core", "2026.1"}}};
    tsappinstall::store::AppStore apps(published.dir.file("root"));
    const std::string ca = published.dir.file("ca.pem");
    Installer installer(apps);
    installer.add({"main", repo, {ca}, ""});
    installer.install(*installer.find(guid, host), host, {});

    const std::string key =
        tsappinstall::integrity::readCertificate(published.dir.file("author.pem")).keyFingerprint;
    IndexOptions revoking = published.signing();
    revoking.revoke = {key};
    const auto outcome = indexFolder(repo, revoking);
    ASSERT_EQ(outcome.badPackages.size(), 1u);
    EXPECT_EQ(outcome.badPackages.front().what, "signed by a revoked key (SHA-256 " + key + ")");
    indexFolder(repo, published.signing());  // revoked once, revoked for good
    const auto index = Installer(apps).fetch(Installer(apps).remotes().front())->index();
    EXPECT_EQ(index.revokedKeys, std::vector<std::string>{key});
    EXPECT_TRUE(index.packages.empty());

    const auto report = apps.audit(guid);
    ASSERT_EQ(report.findings.size(), 1u);
    EXPECT_EQ(std::string(tsappinstall::store::token(report.findings.front().kind)) + " " +
                  report.findings.front().path + ": " + report.findings.front().detail,
              "revoked _digests/sha256sums.p7s: its signer's key (SHA-256 " + key +
                  ") was revoked by the repository main");
    tsappinstall::store::InstallOptions trusting;
    trusting.trustAnchors = {ca};
    trusting.reinstall = true;
    try {
        apps.install(repo + "/hello-1.0.tsappinstall", host, trusting);
        ADD_FAILURE() << "installed what a revoked key signed";
    } catch (const Error& e) {
        EXPECT_EQ(e.kind(), FaultKind::RevokedSigner);
    }
}

// Items to fetch become one request where the bytes between them are no
// more than the gap, two where they are one more; each item's bytes lie in
// a span whatever the joining.
TEST(RepositoryRanged, JoinsItemsAtMostTheGapApart) {
    using tsappinstall::repository::ByteSpan;
    using tsappinstall::repository::detail::kRangeGap;
    using Item = tsappinstall::repository::detail::RangedPlan::Item;
    struct Case {
        std::vector<std::pair<std::uint64_t, std::uint64_t>> items;  // header, end
        std::vector<std::pair<std::uint64_t, std::uint64_t>> spans;
    };
    const std::uint64_t g = kRangeGap;
    const std::vector<Case> cases = {
        {{}, {}},
        {{{0, 100}}, {{0, 100}}},
        {{{0, 100}, {100, 200}}, {{0, 200}}},
        {{{0, 100}, {100 + g, 200 + g}}, {{0, 200 + g}}},
        {{{0, 100}, {101 + g, 200 + g}}, {{0, 100}, {101 + g, 200 + g}}},
        {{{10, 20}, {20 + g, 30 + g}, {31 + 2 * g, 40 + 2 * g}},
         {{10, 30 + g}, {31 + 2 * g, 40 + 2 * g}}},
    };
    for (const Case& c : cases) {
        std::vector<Item> items;
        for (const auto& [header, end] : c.items) {
            items.emplace_back();
            items.back().header = header;
            items.back().end = end;
        }
        std::vector<const Item*> pointers;
        for (const Item& item : items) pointers.push_back(&item);
        std::vector<std::pair<std::uint64_t, std::uint64_t>> spans;
        for (const ByteSpan& span : tsappinstall::repository::detail::coalesced(pointers))
            spans.emplace_back(span.from, span.to);
        EXPECT_EQ(spans, c.spans) << c.items.size() << " items";
    }
}

// Bytes deflate cannot shrink, the same for the same seed.
std::string noise(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

// An upgrade over an installed version fetches the package's tail, its
// digest list and the items that changed, over one connection, and no
// more than its dry run said; each lie of a server is refused with its
// reason before anything changes, and where ranges cannot be used the
// package comes whole with a line saying why.
TEST(RepositoryRanged, FetchesOnlyWhatChangedAndRefusesEveryLie) {
    Published published;
    const std::string repo = published.dir.file("ranged");
    fs::create_directory(repo);
    const std::string guid = "0123abcd-0000-4000-8000-0000000000aa";
    const std::string big = noise(3u << 20, 7);
    // The file that changes lies before the big one, so that it is not in
    // the tail fetched for the directory.
    const auto pack = [&](const std::string& version) {
        packApp(repo, "app-" + version + ".tsappinstall", {{"version", version}, {"guid", guid}},
                published.dir.file("signer"), "", {},
                {{"a.txt", "version " + version + "\n"}, {"z.bin", big}});
        indexFolder(repo, published.signing());
    };
    pack("1.0");
    const Server http(repo, published.dir.file("http.port"));
    const tsappinstall::store::HostProfile host{
        "2026.2", "linux-x86_64", {{"tessal.core", "2026.1"}}};
    std::vector<std::string> notes;
    const auto installer = [&](tsappinstall::store::AppStore& apps, bool full = false) {
        InstallerOptions options;
        options.note = [&](const std::string& line) { notes.push_back(line); };
        options.full = full;
        return std::make_unique<Installer>(apps, options);
    };
    const auto from = [&](const std::string& mode) {
        return Remote{"", http.url("http", mode), {published.dir.file("ca.pem")}, ""};
    };
    const auto install = [&](const std::string& root, const std::string& mode,
                             tsappinstall::store::InstallOptions options = {}) {
        tsappinstall::store::AppStore apps(root);
        const auto in = installer(apps);
        return in->install(*in->find(guid, host, {from(mode)}), host, options);
    };
    const std::string root = published.dir.file("root"), whole = published.dir.file("whole");
    for (const std::string& at : {root, whole}) install(at, "ok");
    EXPECT_TRUE(notes.empty());  // a first install has nothing to range over
    notes.clear();
    pack("2.0");
    const std::string file = "app-2.0.tsappinstall";
    const std::uint64_t size = fs::file_size(repo + "/" + file);

    const Tree before = snapshot_tree(root + "/apps");
    const std::vector<std::pair<std::string, std::string>> lies = {
        {"alter", ": the item \""},
        {"cut", "the server sent 8191 of the 8192 bytes of the range"},
        {"other", "the server answered the range"},
        {"switch", "the server's file is no longer the one the index lists"}};
    for (const auto& [mode, reason] : lies) {
        const std::string refusal = error_of<Error>([&, mode = mode] { install(root, mode); });
        EXPECT_NE(refusal.find(reason), std::string::npos) << mode << ": " << refusal;
        EXPECT_EQ(snapshot_tree(root + "/apps"), before) << mode;
        EXPECT_TRUE(filesIn(root + "/.downloads").empty()) << mode;
    }
    EXPECT_TRUE(notes.empty());

    // The dry run fetches the tail alone and tells what the upgrade will.
    tsappinstall::store::AppStore apps(root);
    const auto planning = installer(apps);
    const Offer offer = *planning->find(guid, host, {from("ok")});
    const auto plan = planning->plan(offer, host, {});
    EXPECT_LT(plan.download, size / 50);
    EXPECT_GT(plan.diskChange, 0);
    EXPECT_LT(static_cast<std::uint64_t>(plan.diskChange), big.size());
    // Retiring the installed version frees none of what the new one shares.
    tsappinstall::store::AppStore::Options keepNone;
    keepNone.keepPrevious = 0;
    tsappinstall::store::AppStore retiring(root, keepNone);
    EXPECT_LT(std::llabs(installer(retiring)->plan(offer, host, {}).diskChange),
              static_cast<long long>(big.size() / 2));

    // Forced whole, the plan says the package's size; an index that does
    // not pin the list, or a server that ignores ranges, makes it whole too.
    EXPECT_EQ(installer(apps, true)->plan(offer, host, {}).download, size);
    PackageEntry unpinned = *offer.entry;
    unpinned.digestList.clear();
    EXPECT_EQ(planning->plan({offer.remote, offer.repository, &unpinned}, host, {}).download, size);
    install(whole, "norange");
    EXPECT_EQ(notes, (std::vector<std::string>{
                         "downloading " + file +
                             " whole: the index does not pin the package's digest list",
                         "downloading " + file +
                             " whole: the server does not serve ranges (it sent the whole file)"}));
    notes.clear();

    // A directory that lies about where it is is refused from the tail
    // alone.
    const std::string good = read_file(repo + "/" + file);
    std::string bytes = good;
    bytes[bytes.rfind(std::string("PK\x05\x06", 4)) + 19] = '\x7f';
    write_file(repo + "/" + file, bytes);
    const auto lied = http.sent(file);
    const std::string refusal = error_of<Error>([&] { planning->plan(offer, host, {}); });
    EXPECT_NE(refusal.find("not a usable ZIP file"), std::string::npos) << refusal;
    EXPECT_EQ(http.sent(file).second, lied.second + 1);
    write_file(repo + "/" + file, good);

    // The upgrade fetches what its dry run said, over one connection, and
    // ends as a whole download would.
    const auto sent = http.sent(file);
    const std::size_t connections = http.connections();
    planning->install(offer, host, {});
    EXPECT_EQ(http.sent(file).first - sent.first, plan.download);
    EXPECT_EQ(http.connections(), connections);
    EXPECT_TRUE(notes.empty()) << notes.front();
    EXPECT_TRUE(filesIn(root + "/.downloads").empty());
    const auto filesOf = [&](const std::string& at) {
        std::vector<std::string> files;
        for (const auto& f : tsappinstall::store::AppStore(at).files(guid))
            files.push_back(f.path + " " + std::to_string(f.size) + " " + std::to_string(f.mode) +
                            " " + f.sha256);
        return files;
    };
    EXPECT_EQ(filesOf(root), filesOf(whole));
    EXPECT_EQ(apps.show(guid).current.version, "2.0");

    // An installed file changed since it was recorded cannot stand in for
    // its item: the package comes whole, and a line says why.
    const std::string changed = root + "/apps/" + guid + "/current/files/z.bin";
    fs::permissions(changed, fs::perms::owner_write, fs::perm_options::add);
    write_file(changed, "changed");
    tsappinstall::store::InstallOptions again;
    again.reinstall = true;
    planning->install(offer, host, again);
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(
        notes[0].rfind("downloading " + file + " whole: the installed files cannot be reused (", 0),
        0u)
        << notes[0];
}

}  // namespace
