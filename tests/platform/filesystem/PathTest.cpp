#include <gtest/gtest.h>

#include <unistd.h>

#include "tsappinstall/platform/filesystem/Path.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

using fl::filesystem::detail::extract_extension;
using fl::filesystem::detail::make_native_form;

TEST(NativeForm, AbsolutePathsAreNormalizedLexically) {
    EXPECT_EQ(make_native_form(u"/a/./b//c/../d/", true), u"/a/b/d");
    EXPECT_EQ(make_native_form(u"/../..//x", true), u"/x");
    EXPECT_EQ(make_native_form(u"/", true), u"/");
    EXPECT_EQ(make_native_form(u"/a/..", true), u"/");
    EXPECT_EQ(make_native_form(u"/ä/日本/😀.tsappinstall", true), u"/ä/日本/😀.tsappinstall");
}

TEST(NativeForm, RelativePathsResolveAgainstTheCurrentFolder) {
    char cwd[4096];
    ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
    const std::u16string base = fl::i18n::to_ustring(cwd);
    EXPECT_EQ(make_native_form(u"x/y.tsappinstall", true),
              (base == u"/" ? u"" : base) + u"/x/y.tsappinstall");
    EXPECT_EQ(make_native_form(u"./x/../y", false), u"y");
    EXPECT_EQ(make_native_form(u"../y", false), u"../y");
}

TEST(NativeForm, NulAndInvalidUtf16Raise) {
    EXPECT_THROW(make_native_form(std::u16string(u"/a\0b", 4), true), std::invalid_argument);
    EXPECT_THROW(make_native_form(std::u16string{u'/', 0xDC00}, true), fl::i18n::ConversionError);
}

TEST(Extension, IsTheTextAfterTheLastDotOfTheLastComponent) {
    EXPECT_EQ(extract_extension(u"/a/app.tsappinstall"), u"tsappinstall");
    EXPECT_EQ(extract_extension(u"/a/app.tar.gz"), u"gz");
    EXPECT_EQ(extract_extension(u"app.TSAPPINSTALL"), u"TSAPPINSTALL");
    EXPECT_EQ(extract_extension(u"/a/app"), u"");
    EXPECT_EQ(extract_extension(u"/a/app."), u"");
    EXPECT_EQ(extract_extension(u"/a/.tsappinstall"), u"");
    EXPECT_EQ(extract_extension(u"/a/..tsappinstall"), u"tsappinstall");
    EXPECT_EQ(extract_extension(u"/dir.tsappinstall/app"), u"");
    EXPECT_EQ(extract_extension(u""), u"");
}
