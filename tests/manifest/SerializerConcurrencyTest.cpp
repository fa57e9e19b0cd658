#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "manifest/ManifestTestSupport.hpp"

using namespace tsapp::test;

namespace {

// Saves, loads back and signs the full record with a fresh serializer.
std::string roundOnce() {
    AppManifestSerializer serializer;
    std::istringstream in(signed_manifest(fullRecord()));
    opc::StdIStreamAdaptor stream(in);
    AppManifest back;
    serializer.load(stream, back);
    return serializer.signDocument(back.GUID, build(serializer, back).get());
}

}  // namespace

// No test changes TZ while the threads run, so all build the same text.
TEST(SerializerConcurrency, SerializersInSeveralThreadsAtOnceAgree) {
    const std::string expected = roundOnce();
    {  // serializers side by side in one thread, the first one gone early
        std::vector<std::unique_ptr<AppManifestSerializer>> several;
        for (int i = 0; i < 3; ++i) several.push_back(std::make_unique<AppManifestSerializer>());
        several.erase(several.begin());
        EXPECT_EQ(roundOnce(), expected);
    }
    std::vector<std::string> results(4 * 10);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&results, t] {
            for (int r = 0; r < 10; ++r) results[t * 10 + r] = roundOnce();
        });
    }
    for (auto& thread : threads) thread.join();
    for (const std::string& result : results) EXPECT_EQ(result, expected);
}
