#include <gtest/gtest.h>

#include "platform/i18n/CatalogResource.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

using fl::i18n::ConversionError;
using fl::i18n::to_string;
using fl::i18n::to_ustring;

TEST(Catalog, EveryLanguageHoldsEveryEnglishKeyWithTheSamePlaceholders) {
    for (std::string_view source : fl::i18n::detail::compiled_catalog_sources()) {
        const auto catalog = fl::i18n::detail::parse_catalog(source);
        const auto& english = catalog.languages.at("en");
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

TEST(Utf, RoundTripsEveryPlaneAndRefusesWhatIsNotUtf) {
    const std::string utf8 =
        "A\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    const std::u16string utf16 = {u'A',   0x7F,   0x80,   0x7FF,  0x800,
                                  0xFFFD, 0xD800, 0xDC00, 0xDBFF, 0xDFFF};
    EXPECT_EQ(to_ustring(utf8), utf16);
    EXPECT_EQ(to_string(utf16), utf8);
    for (const std::u16string& bad : {std::u16string{u'a', 0xD800}, std::u16string{0xDC00, u'a'},
                                      std::u16string{0xD800, 0xD800, 0xDC00}}) {
        EXPECT_THROW(to_string(bad), ConversionError);
    }
    // Overlong, encoded surrogate, truncated, above U+10FFFF, stray byte.
    for (const char* bad : {"\xC0\xAF", "\xED\xA0\x80", "\xE2\x82", "\xF4\x90\x80\x80", "a\xFFz"}) {
        EXPECT_THROW(to_ustring(std::string(bad)), ConversionError) << bad;
    }
}
