#include <gtest/gtest.h>

#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"
#include "tsappinstall/platform/opc/Relationship.hpp"
#include "tsappinstall/platform/opc/URI.hpp"

using opc::model::PartName;
using opc::model::Relationship;
using opc::model::TargetMode;
using opc::model::URI;

TEST(PartName, AcceptsTheSegmentGrammar) {
    for (const char16_t* good : {u"/a", u"/_rels/.rels", u"/a/b.c/d", u"/%C3%BC", u"/a~b-c_d",
                                 u"/x!$&'()*+,;=:@", u"/%20", u"/a/%25.x"}) {
        EXPECT_NO_THROW(PartName{std::u16string(good)});
    }
}

TEST(PartName, RefusesWhatTheGrammarForbids) {
    const std::pair<const char16_t*, const char*> cases[] = {
        {u"", "empty"},
        {u"a", "does not start"},
        {u"/", "ends with"},
        {u"/a/", "ends with"},
        {u"//a", "empty segment"},
        {u"/a//b", "empty segment"},
        {u"/./a", "ends with a dot"},
        {u"/../a", "ends with a dot"},
        {u"/a.", "ends with a dot"},
        {u"/a/%2F", "percent-encoded \"/\""},
        {u"/a/%5c", "percent-encoded \"/\""},
        {u"/%41", "unreserved"},
        {u"/%7e", "unreserved"},
        {u"/%zz", "percent-encoded octet"},
        {u"/a%2", "percent-encoded octet"},
        {u"/a b", "character ' '"},
        {u"/a\\b", "character '\\'"},
        {u"/[Content_Types].xml", "character '['"},
        {u"/a?b", "character '?'"},
        {u"/a#b", "character '#'"},
    };
    for (const auto& [name, reason] : cases) {
        try {
            PartName{std::u16string(name)};
            ADD_FAILURE() << "accepted a bad name, expected: " << reason;
        } catch (const opc::Exception& e) {
            EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
        }
    }
}

TEST(PartName, EquivalenceIgnoresAsciiCaseOnly) {
    EXPECT_EQ(PartName(u"/Icons/App.PNG"), PartName(u"/icons/app.png"));
    EXPECT_EQ(PartName(u"/%c3%bc"), PartName(u"/%C3%BC"));
    EXPECT_EQ(PartName(u"/\u00fc"), PartName(u"/%C3%BC"));  // non-ASCII is its encoded UTF-8
    EXPECT_NE(PartName(u"/\u00dc"), PartName(u"/\u00fc"));  // no Unicode case folding
    EXPECT_EQ(PartName(u"/\u00fc").ascii(), "/%C3%BC");
    EXPECT_TRUE(PartName(u"/a").isPrefixOf(PartName(u"/A/b")));
    EXPECT_FALSE(PartName(u"/a").isPrefixOf(PartName(u"/ab")));
    EXPECT_EQ(PartName(u"/a/b.tar.GZ").extension(), "GZ");
    EXPECT_EQ(PartName(u"/a.b/c").extension(), "");
    EXPECT_EQ(PartName::fromZipItemName("lib/x.js").ascii(), "/lib/x.js");
    EXPECT_THROW(PartName::fromZipItemName("/lib/x.js"), opc::Exception);
}

TEST(URI, InternalTargetsResolveAgainstTheSourceWithoutClimbingAboveTheRoot) {
    const std::pair<const char16_t*, const char16_t*> fromRoot[] = {
        {u"manifest.xml", u"/manifest.xml"},
        {u"/manifest.xml", u"/manifest.xml"},
        {u"./x/../manifest.xml", u"/manifest.xml"},
        {u"../../manifest.xml", u"/manifest.xml"},
        {u"a/./b/../c.png", u"/a/c.png"},
        {u"a/..", u"/"},
        {u"", u"/"},
        {u"x.xml#frag", u"/x.xml#frag"},
    };
    for (const auto& [target, resolved] : fromRoot) {
        EXPECT_EQ(URI::resolve(u"/", target).toString(), resolved);
    }
    EXPECT_EQ(URI::resolve(u"/word/document.xml", u"media/i.png").toString(), u"/word/media/i.png");
    EXPECT_EQ(URI::resolve(u"/word/document.xml", u"../i.png").toString(), u"/i.png");
    EXPECT_EQ(URI::resolve(u"/", u"http://example.com/a/../b").toString(),
              u"http://example.com/a/../b");
}

TEST(Relationship, ExternalTargetsAreNeverParts) {
    const Relationship internal(u"R1", u"urn:t", u"./x/../icon.png", TargetMode::Internal, u"/");
    EXPECT_EQ(internal.getTargetURI().toString(), u"/icon.png");
    EXPECT_EQ(PartName(internal.getTargetURI()), PartName(u"/icon.png"));
    EXPECT_EQ(internal.getTarget(), u"./x/../icon.png");

    const Relationship external(u"R2", u"urn:t", u"icon.png", TargetMode::External, u"/");
    EXPECT_EQ(external.getTargetURI().toString(), u"icon.png");
    EXPECT_TRUE(external.getTargetURI().isExternal());
    EXPECT_THROW(PartName(external.getTargetURI()), opc::Exception);

    const Relationship web(u"R3", u"urn:t", u"http://example.com/x.png", TargetMode::Internal,
                           u"/");
    EXPECT_THROW(PartName(web.getTargetURI()), opc::Exception);
    const Relationship fragment(u"R4", u"urn:t", u"x.png#a", TargetMode::Internal, u"/");
    EXPECT_THROW(PartName(fragment.getTargetURI()), opc::Exception);
}
