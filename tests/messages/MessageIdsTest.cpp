#include "platform/i18n/CatalogResource.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

using namespace tsapp_builtins::tsapp_builtins;

// What callers read: raise() throws exactly std::runtime_error with the
// English text, arguments in place.
TEST(MessageIds, RaisedTextsInEnglish) {
    tsapp::test::ScopedMessagesLocale locale("C");
    const std::pair<resource_core::BaseMsgID, const char*> cases[] = {
        {TSAPP_BUILTINS_XML_READ_ERROR("line 3, column 7: unexpected end"),
         "The app manifest is not a valid manifest document: line 3, column 7: unexpected end"},
        {TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR(),
         "The app manifest could not be read or written because of an internal error."},
        {TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION(),
         "The app manifest's signature is missing or does not match its content."},
        {TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR(),
         "The app package could not be opened, or its content could not be read."},
        {TSAPP_BUILTINS_INVALID_PACKAGE_ERROR("/apps/Grüße.tsappinstall"),
         "The app package \"/apps/Grüße.tsappinstall\" is not valid: a relationship that must be "
         "unique is missing or repeated."},
        {TSAPP_BUILTINS_INVALID_PACKAGE_ERROR(static_cast<const char*>(nullptr)),
         "The app package \"\" is not valid: a relationship that must be unique is missing or "
         "repeated."},
        {TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(u"/a/日本.tsappinstall", u"/d/😀"),
         "The app package \"/a/日本.tsappinstall\" could not be extracted into the folder "
         "\"/d/😀\"."},
    };
    for (const auto& [id, text] : cases) EXPECT_EQ(tsapp::test::error_of([&] { raise(id); }), text);
}

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
    EXPECT_EQ(fl::i18n::to_ustring(utf8), utf16);
    EXPECT_EQ(fl::i18n::to_string(utf16), utf8);
    for (const std::u16string& bad : {std::u16string{u'a', 0xD800}, std::u16string{0xDC00, u'a'},
                                      std::u16string{0xD800, 0xD800, 0xDC00}}) {
        EXPECT_THROW(fl::i18n::to_string(bad), fl::i18n::ConversionError);
    }
    // Overlong, encoded surrogate, truncated, above U+10FFFF, stray byte.
    for (const char* bad : {"\xC0\xAF", "\xED\xA0\x80", "\xE2\x82", "\xF4\x90\x80\x80", "a\xFFz"}) {
        EXPECT_THROW(fl::i18n::to_ustring(std::string(bad)), fl::i18n::ConversionError) << bad;
    }
}

// What a terminal is shown of text from outside: printable UTF-8 as it is,
// a backslash too; line breaks and tabs as C escapes; any other control and
// every stray byte as \xNN.
TEST(Utf, ShownEscapesControlsAndStrayBytesOnly) {
    EXPECT_EQ(fl::i18n::shown("caf\xC3\xA9 a\\b"), "caf\xC3\xA9 a\\b");
    EXPECT_EQ(fl::i18n::shown("a\nb\tc\rd"), "a\\nb\\tc\\rd");
    EXPECT_EQ(fl::i18n::shown("\x1B[2J\x7F\xC2\x85\xFF"), "\\x1b[2J\\x7f\\xc2\\x85\\xff");
}

// Matching what a person typed: case folded beyond ASCII whatever the
// process's locale, stray bytes kept; "did you mean" picks the closest
// names only, case ignored, and nothing when none is close.
TEST(Utf, FoldsCaseAndFindsTheNamesMeant) {
    EXPECT_EQ(fl::i18n::folded("\xC3\x84rger \xCE\xA3 ABC \xFF"), "\xC3\xA4rger \xCF\x83 abc \xFF");
    const std::vector<std::string> names = {"Hello Tessal", "Ärger", "Editor", "Edit0r"};
    EXPECT_EQ(fl::i18n::nearest("hello tesal", names), std::vector<std::string>{"Hello Tessal"});
    EXPECT_EQ(fl::i18n::nearest("ärger", names), std::vector<std::string>{"Ärger"});
    EXPECT_EQ(fl::i18n::nearest("editr", names), (std::vector<std::string>{"Editor", "Edit0r"}));
    EXPECT_TRUE(fl::i18n::nearest("calculator", names).empty());
}
