#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "facade/FacadeFixture.hpp"
#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

using namespace tsapp::test;
using Corvane::addons::apps::APP_PROPERTIES_RELATIONSHIP_TYPE;
using Corvane::addons::apps::Tsappinstall;

namespace {

// One package and what reading it must give: a record, or a failure text.
struct Case {
    std::string path;
    AppManifest expected;
    std::string failure;
};

AppManifest variant(int i) {
    AppManifest record = fullRecordAsRead();
    record.GUID = "{3F2504E0-4F89-11D3-9A0C-0305E82C330" + std::to_string(i) + "}";
    record.name = u"App " + u16(std::to_string(i));
    record.numFiles = static_cast<std::uint64_t>(i) * 1000;
    record.appEntries.resize(static_cast<std::size_t>(i) + 1, u"more.js");
    record.created += boost::posix_time::hours(24 * i);
    return record;
}

std::vector<Case> writeCases(const TempDir& dir) {
    std::vector<Case> cases;
    for (int i = 0; i < 4; ++i) {
        const std::string path = dir.file("app" + std::to_string(i) + ".tsappinstall");
        app_package_with(signed_manifest(variant(i)), i % 2 == 0 ? "manifest.xml" : "/manifest.xml")
            .write(path);
        cases.push_back({path, variant(i), ""});
    }
    const std::string manifest = signed_manifest(variant(0));
    app_package_with(manifest)
        .relationship("rManifest2", APP_PROPERTIES_RELATIONSHIP_TYPE, "/manifest.xml")
        .write(dir.file("two.tsappinstall"));
    cases.push_back(
        {dir.file("two.tsappinstall"), {}, invalid_package_text(dir.file("two.tsappinstall"))});
    app_package_with(replaced(manifest, "<summary>Short<", "<summary>Short.<"))
        .write(dir.file("signature.tsappinstall"));
    cases.push_back({dir.file("signature.tsappinstall"), {}, internal_error_text()});
    cases.push_back({dir.file("missing.tsappinstall"), {}, internal_error_text()});
    return cases;
}

// True when reading the case's package gives what it must.
bool readsAsExpected(Tsappinstall& facade, const Case& c) {
    try {
        const AppManifest record = facade.getAppInfo(u16(c.path));
        return c.failure.empty() && same_record(record, c.expected);
    } catch (const std::runtime_error& e) {
        return !c.failure.empty() && c.failure == e.what();
    }
}

}  // namespace

// Every thread walks all packages, each from a different start, so that the
// same package and different ones are read at the same moment; one facade
// object is shared as callers may share it.
TEST(GetAppInfoConcurrency, ThreadsReadingPackagesAtOnceEachGetTheirOwnAnswer) {
    ScopedTimeZone zone{"Europe/Berlin"};  // set before the threads start, never while they run
    TempDir dir;
    const std::vector<Case> cases = writeCases(dir);
    Tsappinstall facade;
    for (const Case& c : cases) ASSERT_TRUE(readsAsExpected(facade, c)) << c.path;

    constexpr int kThreads = 6;
    constexpr int kRounds = 4;
    const int perThread = kRounds * static_cast<int>(cases.size());
    std::vector<char> results(static_cast<std::size_t>(kThreads * perThread), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int k = 0; k < perThread; ++k) {
                const Case& c = cases[static_cast<std::size_t>(t + k) % cases.size()];
                results[static_cast<std::size_t>(t * perThread + k)] =
                    readsAsExpected(facade, c) ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) {
        for (int k = 0; k < perThread; ++k) {
            EXPECT_EQ(results[static_cast<std::size_t>(t * perThread + k)], 1)
                << "thread " << t << ": "
                << cases[static_cast<std::size_t>(t + k) % cases.size()].path;
        }
    }
}
