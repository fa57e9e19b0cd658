#include <thread>
#include <tuple>
#include <vector>

#include "facade/FacadeFixture.hpp"
#include "manifest/ManifestTestSupport.hpp"

using namespace tsapp::test;
using namespace Corvane::addons::apps;

namespace {

// One package and what reading it must give: a record, or a failure text.
struct Case {
    std::string path;
    AppManifest expected;
    std::string failure;
};

AppManifest variant(int i) {
    AppManifest record = fullRecord();
    record.GUID = "{3F2504E0-4F89-11D3-9A0C-0305E82C330" + std::to_string(i) + "}";
    record.name = u"App " + u16(std::to_string(i)), record.numFiles = i * 1000u;
    record.appEntries.resize(static_cast<std::size_t>(i) + 1, u"more.js");
    record.created += boost::posix_time::hours(24 * i);
    return record;
}

// Good packages (neither the extension nor the content type is examined),
// packages without exactly one manifest relationship of their own, and
// everything else, which is the internal error with the cause dropped.
std::vector<Case> writeCases(const TempDir& dir) {
    std::vector<Case> cases;
    const char* targets[] = {"manifest.xml", "/manifest.xml", "./x/../manifest.xml",
                             "manifest.xml"};
    for (int i = 0; i < 4; ++i) {
        const std::string path =
            dir.file("app" + std::to_string(i) + (i == 3 ? ".zip" : ".tsappinstall"));
        app_package(signed_manifest(variant(i)), targets[i])
            .overrideType("/manifest.xml", "application/octet-stream")
            .write(path);
        cases.push_back({path, variant(i), ""});
    }
    const std::string manifest = signed_manifest(variant(0));
    std::string upper = APP_PROPERTIES_RELATIONSHIP_TYPE;
    upper.replace(upper.rfind("appProperties"), 3, "APP");  // types compare exactly
    // Name, package, whether the relationship rule is what it breaks.
    const std::tuple<const char*, PackageBuilder, bool> failing[] = {
        {"none", PackageBuilder().part("manifest.xml", manifest), true},
        {"norels", PackageBuilder().part("manifest.xml", manifest).withoutRelationships(), true},
        {"twice",
         app_package(manifest).relationship("r2", APP_PROPERTIES_RELATIONSHIP_TYPE, "manifest.xml"),
         true},
        {"case",
         PackageBuilder().part("manifest.xml", manifest).relationship("m", upper, "manifest.xml"),
         true},
        {"partlevel",
         PackageBuilder()
             .part("manifest.xml", manifest)
             .part("_rels/manifest.xml.rels",
                   PackageBuilder()
                       .relationship("r", APP_PROPERTIES_RELATIONSHIP_TYPE, "manifest.xml")
                       .relationshipsText())
             .withoutRelationships(),
         true},
        {"schema", app_package(replaced(manifest, "<GUID>", "<name/><GUID>")), false},
        {"broken", app_package("<?xml version=\"1.0\"?><appProperties"), false},
        {"signature", app_package(replaced(manifest, "<summary>Short<", "<summary>Short.<")),
         false},
        {"count", app_package(replaced(manifest, "<numFiles>0<", "<numFiles>0x<")), false},
    };
    for (const auto& [name, builder, invalid] : failing) {
        const std::string path = dir.file(std::string(name) + ".tsappinstall");
        builder.write(path);
        cases.push_back({path, {}, invalid ? invalid_package_text(path) : internal_error_text()});
    }
    write_file(dir.file("text.tsappinstall"), "not a ZIP container\n");
    for (const char* name : {"text.tsappinstall", "missing.tsappinstall", ""})
        cases.push_back({dir.file(name), {}, internal_error_text()});
    return cases;
}

// True when reading the case's package gives what it must.
bool readsAsExpected(Tsappinstall& facade, const Case& c) {
    AppManifest record;
    const std::string error = error_of([&] { record = facade.getAppInfo(u16(c.path)); });
    return error == c.failure && (!error.empty() || same_record(record, c.expected));
}

}  // namespace

// Each package alone first, then every thread walks all packages, each from
// a different start, so that the same package and different ones are read
// at the same moment; one facade object is shared as callers may share it.
TEST(GetAppInfoConcurrency, EveryPackageGivesItsOwnAnswerAloneAndInThreads) {
    ScopedTimeZone zone{"Europe/Berlin"};  // set before the threads start, never while they run
    TempDir dir;
    const std::vector<Case> cases = writeCases(dir);
    const std::string good = read_file(cases[0].path);
    Tsappinstall facade;
    readsAsExpected(facade, cases[0]);  // first-use allocations out of the count
    const int descriptors = open_descriptor_count();
    for (const Case& c : cases) EXPECT_TRUE(readsAsExpected(facade, c)) << c.path;
    EXPECT_EQ(open_descriptor_count(), descriptors);
    EXPECT_EQ(read_file(cases[0].path), good);  // only read

    constexpr int kThreads = 4;
    std::vector<std::vector<std::string>> wrong(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (std::size_t k = 0; k < 2 * cases.size(); ++k) {
                const Case& c = cases[(t + k) % cases.size()];
                if (!readsAsExpected(facade, c)) wrong[t].push_back(c.path);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& paths : wrong) EXPECT_TRUE(paths.empty()) << paths.front();
}

TEST(GetAppInfo, TextsFollowTheMessagesLocaleAndNameTheNativePath) {
    TempDir dir;
    Tsappinstall facade;
    PackageBuilder().part("manifest.xml", kManifestXml).write(dir.file("none.tsappinstall"));
    ScopedMessagesLocale german("de_DE.UTF-8");
    const std::string text = invalid_package_text(dir.file("none.tsappinstall"));
    EXPECT_NE(text.find("ungültig"), std::string::npos) << text;
    EXPECT_EQ(error_of([&] { facade.getAppInfo(u16(dir.file("sub/.././/none.tsappinstall"))); }),
              text);
    EXPECT_THROW(facade.getAppInfo(u"a\xD800.tsappinstall"), fl::i18n::ConversionError);
}
