// Seals made by other Xerces-C writers, by earlier releases, and in the hour
// that repeats when daylight-saving time ends.

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <boost/algorithm/hex.hpp>

#include <regex>
#include <tuple>

#include "facade/FacadeFixture.hpp"
#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

using namespace tsapp::test;
using boost::posix_time::time_from_string;
namespace ids = tsapp_builtins::tsapp_builtins;

namespace {

const std::string kGuid = "{6B29FC40-CA47-1067-B31D-00DD010662DA}";
const std::string kValidationError =
    ids::message_text(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION());

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

// The fixture is these plain DOM calls' text from Xerces' pretty-printing
// writer, sealed with sha1sum over the GUID and that text; it was created in
// Berlin's repeated hour.
TEST(ManifestSeal, PlainXercesManifestIsCanonicalAndVerifiesEverywhere) {
    const std::string manifest = read_file(TSAPP_TEST_FIXTURES "/manifest/xerces-written.xml");
    {
        ScopedTimeZone zone("UTC");
        AppManifestSerializer serializer;
        const auto document = opc::model::XercesHelper::createDocument();
        document->setXmlStandalone(true);
        const auto add = [&](xercesc::DOMNode* parent, const char16_t* name,
                             const char16_t* text = nullptr) {
            auto* element = document->createElementNS(AppManifestSerializer::NAMESPACE, name);
            parent->appendChild(element);
            if (text != nullptr) element->setTextContent(text);
            return element;
        };
        auto* root = add(document.get(), u"appProperties");
        add(root, u"entryPoint", u"index.html"), add(root, u"name", u"Hello");
        add(root, u"version", u"1.0"), add(root, u"createdByTESSALRelease", u"");
        add(root, u"GUID", u16(kGuid).c_str());
        auto* author = add(root, u"author");
        add(author, u"name", u"Jane"), add(author, u"contact", u"");
        add(author, u"organization", u"");
        auto* platforms = add(root, u"supportedPlatforms");
        add(platforms, u"platform", u"win64"), add(platforms, u"platform", u"");
        add(root, u"requiredProducts"), add(add(root, u"pathEntries"), u"path", u"");
        add(root, u"numFiles", u"1"), add(root, u"created", u"2013-10-27T00:30:00Z");
        add(add(root, u"appEntries"), u"appFile", u"index.html");
        std::ostringstream plain;
        serializer.serializeDocument(plain, document.get());
        EXPECT_EQ(plain.str(), serialized(serializer, fixtureRecord("2013-10-27 00:30:00")));
        const std::string seal = " signature=\"" + sha1Hex(kGuid + plain.str()) + "\"";
        EXPECT_EQ(replaced(manifest, seal, ""), plain.str());
    }
    ScopedTimeZone zone("Europe/Berlin");
    AppManifest record;
    ASSERT_EQ(load_result(manifest, &record), "(loaded)");
    EXPECT_TRUE(same_record(record, fixtureRecord("2013-10-27 02:30:00")));
    TempDir dir;
    app_package_with(manifest).write(dir.file("app.tsappinstall"));
    EXPECT_EQ(Corvane::addons::apps::Tsappinstall().getAppInfo(dir.ufile("app.tsappinstall")).name,
              u"Hello");
#ifdef TSAPP_TOOL
    const std::string check =
        std::string("'") + TSAPP_TOOL + "' check '" + dir.file("app.tsappinstall") + "' >/dev/null";
    EXPECT_EQ(std::system(check.c_str()), 0);
#endif
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
