#include <gtest/gtest.h>

#include "platform/i18n/CatalogResource.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

using fl::i18n::ConversionError;
using fl::i18n::MessageCatalog;
using fl::i18n::to_string;
using fl::i18n::to_ustring;

TEST(Catalog, EveryLanguageHoldsEveryEnglishKeyWithTheSamePlaceholders) {
    for (std::string_view source : fl::i18n::detail::compiled_catalog_sources()) {
        const auto catalog = fl::i18n::detail::parse_catalog(source);
        const auto& english = catalog.languages.at("en");
        EXPECT_EQ(english.size(), 6u);
        for (const auto& [language, texts] : catalog.languages) {
            EXPECT_EQ(texts.size(), english.size()) << language;
            for (const auto& [key, text] : english) {
                ASSERT_TRUE(texts.count(key)) << language << " lacks " << key;
                for (const char16_t* ph : {u"{0}", u"{1}"}) {
                    EXPECT_EQ(text.find(ph) == std::u16string::npos,
                              texts.at(key).find(ph) == std::u16string::npos)
                        << language << " " << key;
                }
            }
        }
    }
}

TEST(Catalog, MissingKeyOrCatalogYieldsATextNamingIt) {
    resource_core::BaseMsgID unknownKey("tsapp_builtins:tsapp_builtins", "NO_SUCH_KEY", 0);
    EXPECT_NE(to_string(MessageCatalog::get_message(unknownKey)).find("NO_SUCH_KEY"),
              std::string::npos);
    resource_core::BaseMsgID unknownCatalog("other:catalog", "TSAPP_BUILTINS_XML_READ_ERROR", 0);
    EXPECT_NE(to_string(MessageCatalog::get_message(unknownCatalog)).find("other:catalog"),
              std::string::npos);
}

TEST(Catalog, UnknownLanguageFallsBackToEnglish) {
    resource_core::BaseMsgID id("tsapp_builtins:tsapp_builtins",
                                "TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR", 0);
    EXPECT_EQ(MessageCatalog::get_message(id, "fi"), MessageCatalog::get_message(id, "en"));
    tsapp::test::ScopedMessagesLocale posix("POSIX");
    EXPECT_EQ(MessageCatalog::current_language(), "en");
}

TEST(Catalog, PlaceholdersFormatEveryAlternative) {
    using fl::i18n::detail::fill_placeholders;
    EXPECT_EQ(fill_placeholders(u"{1}-{0}-{{0}}-{2}-{", {u"a", u"b"}), u"b-a-{0}-{2}-{");
    resource_core::BaseMsgID id("tsapp_builtins:tsapp_builtins", "TSAPP_BUILTINS_XML_READ_ERROR",
                                1);
    id.arguments[0] = 42L;
    EXPECT_EQ(MessageCatalog::get_message(id, "en"),
              u"The app manifest is not a valid manifest document: 42");
    id.arguments[0] = 2.5;
    EXPECT_EQ(MessageCatalog::get_message(id, "en"),
              u"The app manifest is not a valid manifest document: 2.5");
}

TEST(Catalog, MalformedResourceIsRejectedWithItsLine) {
    try {
        fl::i18n::detail::parse_catalog("catalog = x\n[en]\nno equals sign\n");
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("line 3"), std::string::npos) << e.what();
    }
    EXPECT_THROW(fl::i18n::detail::parse_catalog("[en]\nA = 1\nA = 2\n"), std::runtime_error);
}

TEST(Utf, RoundTripsEveryPlaneIncludingSurrogatePairs) {
    const std::string utf8 =
        "A\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    const std::u16string utf16 = {u'A',   0x7F,   0x80,   0x7FF,  0x800,
                                  0xFFFD, 0xD800, 0xDC00, 0xDBFF, 0xDFFF};
    EXPECT_EQ(to_ustring(utf8), utf16);
    EXPECT_EQ(to_string(utf16), utf8);
    EXPECT_EQ(to_ustring(""), u"");
    EXPECT_EQ(to_ustring(static_cast<const char*>(nullptr)), u"");
}

TEST(Utf, InvalidInputRaisesInsteadOfChangingTheText) {
    EXPECT_THROW(to_string(std::u16string{u'a', 0xD800}), ConversionError);  // lone lead
    EXPECT_THROW(to_string(std::u16string{0xDC00, u'a'}), ConversionError);  // lone trail
    EXPECT_THROW(to_string(std::u16string{0xD800, 0xD800, 0xDC00}), ConversionError);
    EXPECT_THROW(to_ustring(std::string("\xC0\xAF")), ConversionError);      // overlong
    EXPECT_THROW(to_ustring(std::string("\xED\xA0\x80")), ConversionError);  // encoded surrogate
    EXPECT_THROW(to_ustring(std::string("\xE2\x82")), ConversionError);      // truncated
    EXPECT_THROW(to_ustring(std::string("\xF4\x90\x80\x80")), ConversionError);  // above U+10FFFF
    EXPECT_THROW(to_ustring(std::string("a\xFFz")), ConversionError);
}
