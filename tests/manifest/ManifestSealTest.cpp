// The canonical text of a record and its seal: golden texts, seals made by
// other Xerces-C writers and by earlier releases, and seals made in the hour
// that repeats when daylight-saving time ends.

#include <openssl/sha.h>

#include <boost/algorithm/hex.hpp>

#include <regex>
#include <tuple>

#include "facade/FacadeFixture.hpp"
#include "manifest/CanonicalText.hpp"
#include "manifest/ManifestTestSupport.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"

using namespace tsapp::test;
using boost::posix_time::time_from_string;

namespace {

const std::string kGuid = "{6B29FC40-CA47-1067-B31D-00DD010662DA}";
const std::string kValidationError =
    ids::message_text(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION());

// The canonical texts are the signature's input: any change to how a record
// is built or written must show up here.
std::string golden(const char* name) {
    return read_file(std::string(TSAPP_TEST_FIXTURES "/manifest/") + name);
}

std::string sha1Hex(const std::string& text) {
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    return boost::algorithm::hex_lower(std::string(digest, digest + sizeof digest));
}

// The fixture's record: optional fields, a required one and list entries empty.
AppManifest fixtureRecord(const char* created) {
    AppManifest r;
    r.GUID = kGuid, r.entryPoint = u"index.html", r.name = u"Hello", r.version = u"1.0";
    r.authorName = u"Jane", r.supportedPlatforms = {u"win64", u""}, r.pathEntries = {u""};
    r.numFiles = 1, r.created = time_from_string(created), r.appEntries = {u"index.html"};
    return r;
}

}  // namespace

// The seals were computed once with sha1sum over the GUID followed by the
// golden text (empty record: empty key; full record in UTC+2).
TEST(ManifestSeal, RecordsGiveTheGoldenTextsSealedOverGuidAndText) {
    ScopedTimeZone zone("Etc/GMT-2");
    AppManifestSerializer serializer;
    EXPECT_EQ(serialized(serializer, AppManifest()), golden("empty-record.xml"));
    EXPECT_EQ(serialized(serializer, fullRecord()), golden("full-record.xml"));
    const std::string seal = "f750a47571a9cacd0b28bdcf772de77c6d1e8173";
    EXPECT_EQ(serializer.signDocument("", build(serializer, AppManifest()).get()),
              "dac7c11644e8e94f54856645756f1f3caf15e464");
    const auto full = build(serializer, fullRecord());
    EXPECT_EQ(serializer.signDocument(kFullGuid, full.get()), seal);

    std::string upper = seal, flipped = seal;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    flipped[39] = '4';
    EXPECT_TRUE(serializer.verifyDocument(kFullGuid, full.get(), seal));
    EXPECT_TRUE(serializer.verifyDocument(kFullGuid, full.get(), upper));
    for (const auto& [key, wrong] : {std::pair<std::string, std::string>{kFullGuid, seal + "0"},
                                     {kFullGuid, seal.substr(0, 39)},
                                     {kFullGuid, ""},
                                     {kFullGuid, flipped},
                                     {"", seal},
                                     {kFullGuid + "x", seal}}) {
        EXPECT_FALSE(serializer.verifyDocument(key, full.get(), wrong)) << key << " " << wrong;
    }
    AppManifest badGuid;
    badGuid.GUID = "\xff";  // not UTF-8
    EXPECT_THROW(serialized(serializer, badGuid), std::runtime_error);
}

// The seal check writes the canonical text straight from the record and
// builds the document only when that text does not hold the seal: the two
// must agree to the byte, or a sealed manifest costs the slow path.
TEST(ManifestSeal, TheTextWrittenStraightFromTheRecordIsTheWritersText) {
    ScopedTimeZone zone("Etc/GMT-2");
    AppManifestSerializer serializer;
    const std::u16string odd = u"A & B <c> \"q\" 'a' \t\n\r ]]> \u00e9\u00a0\u20ac \U0001F600";
    AppManifest tricky = fullRecord();
    for (std::u16string* text :
         {&tricky.entryPoint, &tricky.name, &tricky.version, &tricky.createdByTESSALRelease,
          &tricky.summary, &tricky.authorOrganization, &tricky.maxTESSALVer})
        *text = odd;
    tricky.authorContact.clear(), tricky.description.clear();
    tricky.requiredProducts = {{odd, u"", odd}, {u"x", u"y", u"z"}};
    tricky.pathEntries = {u"", odd}, tricky.supportedPlatforms.clear();
    for (const AppManifest& record :
         {AppManifest(), fullRecord(), fixtureRecord("2013-10-27 00:30:00"), tricky})
        EXPECT_EQ(manifest_seal::canonicalText(record).value_or("(none)"),
                  serialized(serializer, record));
    // Controls, C1 characters, non-characters and lone surrogates are left
    // to the document and its writer.
    for (const char16_t* text : {u"\x01", u"\x7f", u"\x85", u"\xfffe", u"a\xd800"}) {
        tricky.name = text;
        EXPECT_FALSE(manifest_seal::canonicalText(tricky)) << int(text[0]);
    }
}

// The fixture is what Xerces' pretty-printing writer made of plain DOM calls
// building the fixture's record, sealed with sha1sum over the GUID and that
// text; it was created in Berlin's repeated hour.
TEST(ManifestSeal, PlainXercesManifestIsCanonicalAndVerifiesEverywhere) {
    const std::string manifest = read_file(TSAPP_TEST_FIXTURES "/manifest/xerces-written.xml");
    {
        ScopedTimeZone zone("UTC");
        AppManifestSerializer serializer;
        const std::string plain = serialized(serializer, fixtureRecord("2013-10-27 00:30:00"));
        EXPECT_EQ(replaced(manifest, " signature=\"" + sha1Hex(kGuid + plain) + "\"", ""), plain);
    }
    ScopedTimeZone zone("Europe/Berlin");
    AppManifest record;
    ASSERT_EQ(load_result(manifest, &record), "(loaded)");
    EXPECT_TRUE(same_record(record, fixtureRecord("2013-10-27 02:30:00")));
    TempDir dir;
    app_package(manifest).write(dir.file("app.tsappinstall"));
    EXPECT_EQ(Corvane::addons::apps::Tsappinstall().getAppInfo(dir.ufile("app.tsappinstall")).name,
              u"Hello");
    AppManifestSerializer checking;
    EXPECT_TRUE(tsappinstall::inspect::checkPackage(dir.file("app.tsappinstall"), checking).good());
}

TEST(ManifestSeal, SealOverTheFormerEmptyElementFormVerifiesAndNothingElse) {
    ScopedTimeZone zone("UTC");
    AppManifestSerializer serializer;
    const AppManifest record = fixtureRecord("2013-10-27 00:30:00");
    const std::string former =
        std::regex_replace(serialized(serializer, record), std::regex("<(\\w+)></\\1>"), "<$1/>");
    const std::string text =
        replaced(former, "appProperties\">",
                 "appProperties\" signature=\"" + sha1Hex(record.GUID + former) + "\">");
    const std::tuple<const char*, const char*, std::string> rows[] = {
        {"<name>Hello<", "<name>Hello<", "(loaded)"},
        {"<name>Hello<", "<name>Hallo<", kValidationError},
        {"<name>Hello<", "<name>Hello <", kValidationError},
        {"<contact/>", "<contact> </contact>", kValidationError},
    };
    for (const auto& [from, to, expected] : rows)
        EXPECT_EQ(load_result(replaced(text, from, to)), expected) << to;
}

// Saved in UTC, read where the clocks go back or forward.
TEST(ManifestSeal, CreationTimesAroundClockChangesVerifyInTheirZone) {
    // Zone, UTC time sealed, hours moved after sealing, local time (none: fails).
    const std::tuple<const char*, const char*, int, const char*> rows[] = {
        {"Europe/Berlin", "2013-10-27 00:30:00", 0, "2013-10-27 02:30:00"},
        {"Europe/Berlin", "2013-10-27 01:30:00", 0, "2013-10-27 02:30:00"},
        {"Europe/Berlin", "2013-03-31 01:30:00", 0, "2013-03-31 03:30:00"},
        {"America/New_York", "2013-11-03 05:30:00", 0, "2013-11-03 01:30:00"},
        {"America/New_York", "2013-11-03 06:30:00", 0, "2013-11-03 01:30:00"},
        {"America/New_York", "2013-03-10 07:30:00", 0, "2013-03-10 03:30:00"},
        {"Europe/Berlin", "2013-10-27 00:30:00", -1, nullptr},
        {"Europe/Berlin", "2013-10-27 01:30:00", 1, nullptr},
    };
    const auto xsd = [](boost::posix_time::ptime t) { return to_iso_extended_string(t) + "Z"; };
    for (const auto& [zone, sealed, moved, local] : rows) {
        AppManifest record = fixtureRecord(sealed), back;
        const std::string text = [&](int by) {
            ScopedTimeZone utc("UTC");
            return replaced(signed_manifest(record), xsd(record.created),
                            xsd(record.created + boost::posix_time::hours(by)));
        }(moved);
        ScopedTimeZone reader(zone);
        EXPECT_EQ(load_result(text, &back), local ? "(loaded)" : kValidationError)
            << zone << sealed;
        EXPECT_TRUE(!local || back.created == time_from_string(local)) << zone << sealed;
    }
}
