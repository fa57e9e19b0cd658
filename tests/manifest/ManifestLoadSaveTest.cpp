#include <gtest/gtest.h>

#include <boost/lexical_cast.hpp>

#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

using namespace tsapp::test;
namespace ids = tsapp_builtins::tsapp_builtins;

namespace {

class ManifestLoadSave : public ::testing::Test {
  protected:
    std::string saved(const AppManifest& record) {
        std::vector<unsigned char> bytes;
        opc::ByteArrayOutAdaptor out(bytes);
        serializer.save(out, record);
        return std::string(bytes.begin(), bytes.end());
    }
    AppManifest loaded(const std::string& text, AppManifest record = AppManifest()) {
        std::istringstream in(text);
        opc::StdIStreamAdaptor stream(in);
        serializer.load(stream, record);
        return record;
    }
    // The runtime_error text of loading `text`, or "(loaded)".
    std::string loadFailure(const std::string& text) {
        try {
            loaded(text);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "(loaded)";
    }
    // A signed manifest whose numFiles text is `numFiles` and whose seal fits
    // a record with the count `count`.
    std::string withNumFiles(std::uint64_t count, const std::string& numFiles) {
        AppManifest record = fullRecord();
        record.numFiles = count;
        return replaced(saved(record), "<numFiles>" + std::to_string(count) + "<",
                        "<numFiles>" + numFiles + "<");
    }

    ScopedTimeZone zone{"Europe/Berlin"};
    AppManifestSerializer serializer;
    const std::string validationError =
        ids::message_text(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION());
    const std::string readErrorPrefix = ids::message_text(ids::TSAPP_BUILTINS_XML_READ_ERROR(""));
    const std::string internalError =
        ids::message_text(ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
};

}  // namespace

TEST_F(ManifestLoadSave, SavedRecordLoadsBackEqualSaveTheFraction) {
    AppManifest expected = fullRecord();
    expected.created = boost::posix_time::time_from_string("2024-03-05 08:07:08");
    EXPECT_TRUE(same_record(loaded(saved(fullRecord())), expected));

    AppManifest noAuthorName = fullRecord();
    noAuthorName.authorName.clear();
    const AppManifest back = loaded(saved(noAuthorName));
    EXPECT_EQ(back.authorContact, u"");
    EXPECT_EQ(back.authorOrganization, u"");
}

TEST_F(ManifestLoadSave, SavingCarriesTheSealOfTheDocumentWithoutIt) {
    const std::string text = saved(fullRecord());
    EXPECT_EQ(text, saved(fullRecord()));
    const auto document = build(serializer, fullRecord());
    const std::string signature = serializer.signDocument(fullRecord().GUID, document.get());
    EXPECT_NE(
        text.find(
            "<appProperties xmlns=\"http://schemas.corvane.com/tessal/app/2012/appProperties\" "
            "signature=\"" +
            signature + "\">"),
        std::string::npos)
        << text;
    EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n", 0),
              0u);
}

TEST_F(ManifestLoadSave, MissingOrAlteredSealFailsValidation) {
    const std::string text = saved(fullRecord());
    const std::size_t at = text.find(" signature=\"");
    EXPECT_EQ(loadFailure(text.substr(0, at) + text.substr(at + 53)), validationError);
    EXPECT_EQ(loadFailure(replaced(text, text.substr(at, 53), " signature=\"\"")), validationError);
    EXPECT_EQ(loadFailure(replaced(text, "<summary>Short<", "<summary>Short.<")), validationError);
    EXPECT_EQ(loadFailure(replaced(text, "<GUID>{", "<GUID>\xc3\xa9{")), validationError);
    EXPECT_EQ(loadFailure(replaced(text, "signature=\"", "signature=\"\xc3\xa9")), validationError);
    EXPECT_EQ(loadFailure(replaced(
                  text, "</requiredProducts>",
                  "<product identifier=\"x\" name=\"\" version=\"\"/></requiredProducts>")),
              validationError);
    // Layout is never digested.
    EXPECT_EQ(loadFailure(replaced(replaced(text, "\n\n  <entryPoint>", "<entryPoint>"),
                                   "identifier=\"prod.a\" name=\"Product A\"",
                                   "name=\"Product A\" identifier=\"prod.a\"")),
              "(loaded)");
}

TEST_F(ManifestLoadSave, NumFilesFollowsLexicalCastRules) {
    EXPECT_EQ(loaded(withNumFiles(12, "+12")).numFiles, 12u);
    EXPECT_EQ(loaded(withNumFiles(UINT64_MAX, "-1")).numFiles, UINT64_MAX);
    for (const char* bad : {" 12", "12a", "+", "", "18446744073709551616"}) {
        EXPECT_THROW(loaded(withNumFiles(12, bad)), boost::bad_lexical_cast) << bad;
    }
    EXPECT_THROW(loaded(replaced(saved(fullRecord()), "<numFiles>42</numFiles>", "")),
                 boost::bad_lexical_cast);
    EXPECT_THROW(loaded(withNumFiles(12, "1\xd9\xa3")), boost::bad_lexical_cast);
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
    std::istringstream in(saved(noAuthor));
    opc::StdIStreamAdaptor stream(in);
    EXPECT_THROW(serializer.load(stream, target), std::runtime_error);
    EXPECT_EQ(target.authorName, u"kept");
    ASSERT_EQ(target.requiredProducts.size(), 4u);
    EXPECT_EQ(target.requiredProducts[0].identifier, u"a");
    EXPECT_EQ(target.requiredProducts[2].identifier, u"prod.a");
    EXPECT_EQ(target.pathEntries, (std::vector<std::u16string>{u"lib", u"data"}));
}

TEST_F(ManifestLoadSave, InvalidDocumentsFailWithTheParsersDescription) {
    const std::string notXml = loadFailure("not xml");
    EXPECT_EQ(notXml.rfind(readErrorPrefix, 0), 0u) << notXml;
    EXPECT_GT(notXml.size(), readErrorPrefix.size());
    const std::string foreign =
        loadFailure(replaced(saved(fullRecord()), "2012/appProperties\"", "2013/appProperties\""));
    EXPECT_EQ(foreign.rfind(readErrorPrefix, 0), 0u) << foreign;
    // What a record without a creation time saves is not a valid manifest.
    AppManifest undated = fullRecord();
    undated.created = boost::posix_time::ptime();
    const std::string emptyCreated = loadFailure(saved(undated));
    EXPECT_EQ(emptyCreated.rfind(readErrorPrefix, 0), 0u) << emptyCreated;
    // A failed read leaves the serializer as good as new.
    EXPECT_EQ(loadFailure(saved(fullRecord())), "(loaded)");
}

TEST_F(ManifestLoadSave, ManifestWithoutCreatedLoadsAsNotADateTime) {
    AppManifest undated = fullRecord();
    undated.created = boost::posix_time::ptime();
    const std::string text = replaced(saved(undated), "<created></created>", "");
    EXPECT_TRUE(loaded(text).created.is_not_a_date_time());
}

TEST_F(ManifestLoadSave, CreationBefore1970FailsInTheTimeConversion) {
    AppManifest old = fullRecord();
    old.created = boost::posix_time::time_from_string("1965-01-01 00:00:00");
    EXPECT_THROW(loaded(saved(old)), std::out_of_range);
}

TEST_F(ManifestLoadSave, PathsRoundTripAndMissingFilesFailAsReadErrors) {
    TempDir dir;
    serializer.save(dir.ufile("m.xml"), fullRecord());
    AppManifest back;
    serializer.load(dir.ufile("m.xml"), back);
    EXPECT_EQ(back.GUID, kFullGuid);
    const int descriptors = open_descriptor_count();
    try {
        serializer.load(dir.ufile("missing.xml"), back);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind(readErrorPrefix, 0), 0u) << e.what();
    }
    EXPECT_EQ(open_descriptor_count(), descriptors);
}

TEST_F(ManifestLoadSave, EveryWriteFailureIsTheInternalError) {
    AppManifest infinite = fullRecord();
    infinite.created = boost::posix_time::ptime(boost::date_time::pos_infin);
    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    try {
        serializer.save(out, infinite);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(e.what(), internalError);
    }
    EXPECT_TRUE(bytes.empty());
    try {
        serializer.save(u"/nonexistent-folder/m.xml", fullRecord());
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(e.what(), internalError);
    }
}
