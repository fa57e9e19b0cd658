#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "manifest/ManifestTestSupport.hpp"

using namespace tsapp::test;

namespace {

// Builds, validates and signs one record; returns the signature.
std::string roundOnce(const AppManifest& record) {
    AppManifestSerializer serializer;
    const std::string text = serialized(serializer, record);
    if (!validationFailure(serializer, text).empty()) return "invalid";
    const auto document = build(serializer, record);
    return serializer.signDocument(record.GUID, document.get());
}

// No test here changes TZ while the threads run, so every thread sees the
// same zone and builds the same text.
AppManifest record() {
    return fullRecord();
}

}  // namespace

TEST(SerializerConcurrency, ManySerializersInARowKeepXercesUsable) {
    const std::string expected = roundOnce(record());
    ASSERT_NE(expected, "invalid");
    for (int i = 0; i < 50; ++i) ASSERT_EQ(roundOnce(record()), expected) << i;
}

TEST(SerializerConcurrency, SerializersInSeveralThreadsAtOnceAgree) {
    const std::string expected = roundOnce(record());
    ASSERT_NE(expected, "invalid");
    constexpr int kThreads = 4;
    constexpr int kRounds = 10;
    std::vector<std::string> results(kThreads * kRounds);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&results, t] {
            for (int r = 0; r < kRounds; ++r) results[t * kRounds + r] = roundOnce(record());
        });
    }
    for (auto& thread : threads) thread.join();
    for (const std::string& result : results) EXPECT_EQ(result, expected);
}

TEST(SerializerConcurrency, SerializersLiveSideBySideInOneThread) {
    std::vector<std::unique_ptr<AppManifestSerializer>> serializers;
    for (int i = 0; i < 5; ++i) serializers.push_back(std::make_unique<AppManifestSerializer>());
    const std::string first = serialized(*serializers.front(), record());
    serializers.erase(serializers.begin());
    for (auto& serializer : serializers) EXPECT_EQ(serialized(*serializer, record()), first);
}
