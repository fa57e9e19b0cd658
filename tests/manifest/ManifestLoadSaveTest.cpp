#include <memory>
#include <thread>

#include "manifest/ManifestTestSupport.hpp"
#include "tsappinstall/manifest/ManifestFault.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

using namespace tsapp::test;
namespace ids = tsapp_builtins::tsapp_builtins;

namespace {

class ManifestLoadSave : public ::testing::Test {
  protected:
    ScopedTimeZone zone{"Europe/Berlin"};
    AppManifestSerializer serializer;
    const std::string text = signed_manifest(fullRecord());
};

// Saves, loads back and signs the full record with fresh serializers.
std::string roundOnce() {
    AppManifest back;
    load_result(signed_manifest(fullRecord()), &back);
    AppManifestSerializer serializer;
    return serializer.signDocument(back.GUID, build(serializer, back).get());
}

}  // namespace

// The seal sits on the root element. Each failure has its kind and the
// very text load raises; any change to what the seal covers fails
// validation, a change of layout or a missing creation time does not.
TEST_F(ManifestLoadSave, SavedTextIsSealedAndFailuresHaveTheirKindAndLoadsText) {
    using tsappinstall::ManifestFault;
    const std::string validation =
        ids::message_text(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION());
    EXPECT_EQ(
        text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n"
                   "<appProperties xmlns=\"http://schemas.corvane.com/tessal/app/2012/"
                   "appProperties\" signature=\"" +
                       serializer.signDocument(kFullGuid, build(serializer, fullRecord()).get()) +
                       "\">",
                   0),
        0u)
        << text;
    AppManifest undated = fullRecord();
    undated.created = boost::posix_time::ptime();
    const std::string seal = text.substr(text.find(" signature=\""), 53);
    const std::pair<std::string, ManifestFault> cases[] = {
        {replaced(signed_manifest(undated), "<created></created>", ""), ManifestFault::None},
        {replaced(text, seal, ""), ManifestFault::BadSignature},
        {replaced(text, seal, " signature=\"\""), ManifestFault::BadSignature},
        {replaced(text, "<summary>Short<", "<summary>Short.<"), ManifestFault::BadSignature},
        {replaced(text, "<GUID>{3F", "<GUID>{3E"), ManifestFault::BadSignature},
        {replaced(text, "<GUID>{", "<GUID>\xc3\xa9{"), ManifestFault::BadSignature},
        {replaced(text, "signature=\"", "signature=\"\xc3\xa9"), ManifestFault::BadSignature},
        {replaced(text, "</requiredProducts>",
                  "<product identifier=\"x\" name=\"\" version=\"\"/></requiredProducts>"),
         ManifestFault::BadSignature},
        {replaced(replaced(text, "\n\n  <entryPoint>", "<entryPoint>"),
                  "identifier=\"prod.a\" name=\"Product A\"",
                  "name=\"Product A\" identifier=\"prod.a\""),
         ManifestFault::None},
        {"not xml", ManifestFault::MalformedXml},
        {replaced(text, "2012/appProperties\"", "2013/appProperties\""), ManifestFault::InvalidXml},
        {replaced(text, "<numFiles>42<", "<numFiles>4x<"), ManifestFault::BadFileCount},
        {replaced(text, "<numFiles>42<", "<numFiles>4\xd9\xa3<"), ManifestFault::BadFileCount},
    };
    for (const auto& [manifest, fault] : cases) {
        AppManifest record;
        std::string reason;
        std::istringstream in(manifest);
        opc::StdIStreamAdaptor stream(in);
        EXPECT_EQ(tsappinstall::loadManifest(serializer, stream, record, reason), fault)
            << manifest;
        if (fault == ManifestFault::BadFileCount) continue;
        EXPECT_EQ(load_result(manifest), fault == ManifestFault::None ? "(loaded)" : reason);
        EXPECT_TRUE(fault != ManifestFault::BadSignature || reason == validation) << reason;
    }
    // Fields the builder never writes leave the seal alone, as does a
    // fraction of a second that the UTC conversion drops.
    AppManifest unwritten = fullRecord();
    unwritten.extraText1 = u"x";
    unwritten.created += boost::posix_time::milliseconds(500);
    EXPECT_EQ(signed_manifest(unwritten), text);
}

// Fields the manifest lacks keep the caller's values and products are
// appended; the seal then covers a record the manifest never described, so
// the read fails, but the record shows what was read.
TEST_F(ManifestLoadSave, ReadingMergesIntoTheCallersRecord) {
    AppManifest noAuthor = fullRecord();
    noAuthor.authorName.clear();
    AppManifest target;
    target.authorName = u"kept", target.pathEntries = {u"old"};
    target.requiredProducts = {{u"a", u"", u""}, {u"b", u"", u""}};
    EXPECT_NE(load_result(signed_manifest(noAuthor), &target), "(loaded)");
    EXPECT_EQ(target.authorName, u"kept");
    ASSERT_EQ(target.requiredProducts.size(), 4u);
    EXPECT_EQ(target.requiredProducts[2].identifier, u"prod.a");
    EXPECT_EQ(target.pathEntries, (std::vector<std::u16string>{u"lib", u"data"}));
}

// Reading a missing file fails with the read error and leaks nothing; a
// failed write is the internal error and writes nothing.
TEST_F(ManifestLoadSave, FileFailuresLeaveNothingBehind) {
    const std::string readErrorPrefix = ids::message_text(ids::TSAPP_BUILTINS_XML_READ_ERROR(""));
    TempDir dir;
    const int descriptors = open_descriptor_count();
    AppManifest back;
    const std::string missing = error_of([&] { serializer.load(dir.ufile("missing.xml"), back); });
    EXPECT_EQ(missing.rfind(readErrorPrefix, 0), 0u) << missing;
    EXPECT_GT(missing.size(), readErrorPrefix.size());
    EXPECT_EQ(open_descriptor_count(), descriptors);

    const std::string internal = ids::message_text(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
    AppManifest infinite = fullRecord();
    infinite.created = boost::posix_time::ptime(boost::date_time::pos_infin);
    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    EXPECT_EQ(error_of([&] { serializer.save(out, infinite); }), internal);
    EXPECT_EQ(error_of([&] { serializer.save(u"/nonexistent-folder/m.xml", fullRecord()); }),
              internal);
    EXPECT_TRUE(bytes.empty());
}

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
