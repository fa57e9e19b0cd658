#include <gtest/gtest.h>

#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

using namespace tsapp::test;
namespace ids = tsapp_builtins::tsapp_builtins;

namespace {

class ManifestLoadSave : public ::testing::Test {
  protected:
    AppManifest loaded(const std::string& manifest, AppManifest record = AppManifest()) {
        std::istringstream in(manifest);
        opc::StdIStreamAdaptor stream(in);
        serializer.load(stream, record);
        return record;
    }
    // The runtime_error text of loading `manifest`, or "(loaded)".
    std::string loadFailure(const std::string& manifest) {
        try {
            loaded(manifest);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "(loaded)";
    }

    ScopedTimeZone zone{"Europe/Berlin"};
    AppManifestSerializer serializer;
    const std::string text = signed_manifest(fullRecord());
    const std::string readErrorPrefix = ids::message_text(ids::TSAPP_BUILTINS_XML_READ_ERROR(""));
};

}  // namespace

TEST_F(ManifestLoadSave, SavedRecordCarriesItsSealAndLoadsBackEqualSaveTheFraction) {
    const std::string seal =
        serializer.signDocument(kFullGuid, build(serializer, fullRecord()).get());
    EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n"
                         "<appProperties xmlns=\"http://schemas.corvane.com/tessal/app/2012/"
                         "appProperties\" signature=\"" +
                             seal + "\">",
                         0),
              0u)
        << text;
    EXPECT_TRUE(same_record(loaded(text), fullRecordAsRead()));
    // Contact and organization are only written beside a name.
    AppManifest noName = fullRecord();
    noName.authorName.clear();
    const AppManifest back = loaded(signed_manifest(noName));
    EXPECT_EQ(back.authorContact + back.authorOrganization, u"");
    AppManifest undated = fullRecord();
    undated.created = boost::posix_time::ptime();
    EXPECT_TRUE(
        loaded(replaced(signed_manifest(undated), "<created></created>", "")).created.is_not_a_date_time());
}

TEST_F(ManifestLoadSave, AnyChangeToWhatTheSealCoversFailsValidationButLayoutDoesNot) {
    const std::string validation =
        ids::message_text(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION());
    const std::string seal = text.substr(text.find(" signature=\""), 53);
    const std::pair<std::string, std::string> cases[] = {
        {replaced(text, seal, ""), validation},
        {replaced(text, seal, " signature=\"\""), validation},
        {replaced(text, "<summary>Short<", "<summary>Short.<"), validation},
        {replaced(text, "<GUID>{3F", "<GUID>{3E"), validation},
        {replaced(text, "<GUID>{", "<GUID>\xc3\xa9{"), validation},
        {replaced(text, "signature=\"", "signature=\"\xc3\xa9"), validation},
        {replaced(text, "</requiredProducts>",
                  "<product identifier=\"x\" name=\"\" version=\"\"/></requiredProducts>"),
         validation},
        {replaced(replaced(text, "\n\n  <entryPoint>", "<entryPoint>"),
                  "identifier=\"prod.a\" name=\"Product A\"",
                  "name=\"Product A\" identifier=\"prod.a\""),
         "(loaded)"},
    };
    for (const auto& [manifest, failure] : cases) EXPECT_EQ(loadFailure(manifest), failure);
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
    target.authorName = u"kept";
    target.requiredProducts = {{u"a", u"", u""}, {u"b", u"", u""}};
    target.pathEntries = {u"old"};
    std::istringstream in(signed_manifest(noAuthor));
    opc::StdIStreamAdaptor stream(in);
    EXPECT_THROW(serializer.load(stream, target), std::runtime_error);
    EXPECT_EQ(target.authorName, u"kept");
    ASSERT_EQ(target.requiredProducts.size(), 4u);
    EXPECT_EQ(target.requiredProducts[2].identifier, u"prod.a");
    EXPECT_EQ(target.pathEntries, (std::vector<std::u16string>{u"lib", u"data"}));
}

TEST_F(ManifestLoadSave, InvalidDocumentsFailWithTheParsersDescription) {
    AppManifest undated = fullRecord();
    undated.created = boost::posix_time::ptime();
    TempDir dir;
    for (const std::string& bad :
         {std::string("not xml"), replaced(text, "2012/appProperties\"", "2013/appProperties\""),
          replaced(text, "<GUID>", "<name/><GUID>"), signed_manifest(undated)}) {
        const std::string failure = loadFailure(bad);
        EXPECT_EQ(failure.rfind(readErrorPrefix, 0), 0u) << failure;
        EXPECT_GT(failure.size(), readErrorPrefix.size());
    }
    // A failed read leaves the serializer as good as new.
    EXPECT_EQ(loadFailure(text), "(loaded)");
    const int descriptors = open_descriptor_count();
    AppManifest back;
    try {
        serializer.load(dir.ufile("missing.xml"), back);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind(readErrorPrefix, 0), 0u) << e.what();
    }
    EXPECT_EQ(open_descriptor_count(), descriptors);
    serializer.save(dir.ufile("m.xml"), fullRecord());
    serializer.load(dir.ufile("m.xml"), back);
    EXPECT_EQ(back.GUID, kFullGuid);
}

TEST_F(ManifestLoadSave, EveryWriteFailureIsTheInternalErrorAndWritesNothing) {
    const std::string internal = ids::message_text(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
    AppManifest infinite = fullRecord();
    infinite.created = boost::posix_time::ptime(boost::date_time::pos_infin);
    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    try {
        serializer.save(out, infinite);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(e.what(), internal);
    }
    EXPECT_TRUE(bytes.empty());
    try {
        serializer.save(u"/nonexistent-folder/m.xml", fullRecord());
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(e.what(), internal);
    }
}
