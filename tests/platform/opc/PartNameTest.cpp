#include <gtest/gtest.h>

#include "support/TestSupport.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"
#include "tsappinstall/platform/opc/URI.hpp"

using opc::model::PartName;
using opc::model::URI;

TEST(PartName, AcceptsTheSegmentGrammar) {
    for (const char16_t* good : {u"/a", u"/_rels/.rels", u"/a/b.c/d", u"/%C3%BC", u"/a~b-c_d",
                                 u"/x!$&'()*+,;=:@", u"/%20", u"/a/%25.x"}) {
        EXPECT_NO_THROW(PartName{std::u16string(good)});
    }
}

// Dot segments, empty segments and encoded separators are the hostile
// path tests' rows (OpcTest.cpp); these are the remaining rules.
TEST(PartName, RefusesWhatTheGrammarForbids) {
    const std::pair<const char16_t*, const char*> cases[] = {
        {u"", "empty"},
        {u"a", "does not start"},
        {u"/", "ends with"},
        {u"/a/", "ends with"},
        {u"/a.", "ends with a dot"},
        {u"/%41", "unreserved"},
        {u"/%zz", "percent-encoded octet"},
        {u"/a%2", "percent-encoded octet"},
        {u"/a b", "character ' '"},
        {u"/[Content_Types].xml", "character '['"},
        {u"/a?b", "character '?'"},
        {u"/a#b", "character '#'"},
    };
    for (const auto& [name, reason] : cases) {
        EXPECT_NE(tsapp::test::error_of<opc::Exception>([&] {
                      PartName{std::u16string(name)};
                  }).find(reason),
                  std::string::npos)
            << reason;
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
