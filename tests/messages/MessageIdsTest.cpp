#include <gtest/gtest.h>

#include <typeinfo>

#include "support/TestSupport.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

using namespace tsapp_builtins::tsapp_builtins;
using resource_core::BaseMsgID;
using tsapp::test::ScopedMessagesLocale;

namespace {

std::string raised_text(const BaseMsgID& id) {
    try {
        raise(id);
    } catch (const std::exception& e) {
        EXPECT_EQ(typeid(e), typeid(std::runtime_error)) << "must be exactly std::runtime_error";
        return e.what();
    }
    ADD_FAILURE() << "raise returned";
    return {};
}

}  // namespace

TEST(MessageIds, SlotsHoldTheArgumentsInOrderWithTheirAlternatives) {
    TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR two(u"/pkg/a.tsappinstall", u"/dest");
    ASSERT_EQ(two.arguments.size(), 2u);
    EXPECT_EQ(two.arguments[0].index(), 2u);
    EXPECT_EQ(two.arguments[1].index(), 2u);
    EXPECT_EQ(std::get<std::u16string>(two.arguments[0]), u"/pkg/a.tsappinstall");
    EXPECT_EQ(std::get<std::u16string>(two.arguments[1]), u"/dest");

    TSAPP_BUILTINS_XML_READ_ERROR one("bad root");
    ASSERT_EQ(one.arguments.size(), 1u);
    EXPECT_EQ(one.arguments[0].index(), 1u);
    EXPECT_EQ(std::get<std::string>(one.arguments[0]), "bad root");
}

TEST(MessageIds, NullArgumentsBecomeEmptyStrings) {
    TSAPP_BUILTINS_INVALID_PACKAGE_ERROR id(static_cast<const char*>(nullptr));
    ASSERT_EQ(id.arguments.size(), 1u);
    EXPECT_EQ(std::get<std::string>(id.arguments[0]), "");
    TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR two(static_cast<const char16_t*>(nullptr), u"x");
    EXPECT_EQ(std::get<std::u16string>(two.arguments[0]), u"");
}

TEST(MessageIds, ArgumentEndsAtFirstZeroUnit) {
    const char16_t withNul[] = {u'a', u'b', 0, u'c', 0};
    TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR id(withNul, withNul);
    EXPECT_EQ(std::get<std::u16string>(id.arguments[0]), u"ab");
}

TEST(MessageIds, IdentifiersWithoutArgumentsNameTheirCatalogAndKey) {
    TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR a;
    TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION b;
    TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR c;
    for (const BaseMsgID* id :
         {static_cast<const BaseMsgID*>(&a), static_cast<const BaseMsgID*>(&b),
          static_cast<const BaseMsgID*>(&c)}) {
        EXPECT_TRUE(id->arguments.empty());
        EXPECT_EQ(id->catalog, "tsapp_builtins:tsapp_builtins");
        EXPECT_EQ(id->catalog.size(), 29u);
    }
    EXPECT_EQ(a.key, "TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR");
    EXPECT_EQ(b.key, "TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION");
    EXPECT_EQ(c.key, "TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR");
    EXPECT_EQ(TSAPP_BUILTINS_XML_READ_ERROR("x").key, "TSAPP_BUILTINS_XML_READ_ERROR");
    EXPECT_EQ(TSAPP_BUILTINS_INVALID_PACKAGE_ERROR("x").key,
              "TSAPP_BUILTINS_INVALID_PACKAGE_ERROR");
    EXPECT_EQ(TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(u"", u"").key,
              "TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR");
}

TEST(MessageIds, RaisedTextsInEnglish) {
    ScopedMessagesLocale locale("C");
    EXPECT_EQ(
        raised_text(TSAPP_BUILTINS_XML_READ_ERROR("line 3, column 7: unexpected end")),
        "The app manifest is not a valid manifest document: line 3, column 7: unexpected end");
    EXPECT_EQ(raised_text(TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR()),
              "The app manifest could not be read or written because of an internal error.");
    EXPECT_EQ(raised_text(TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION()),
              "The app manifest's signature is missing or does not match its content.");
    EXPECT_EQ(raised_text(TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR()),
              "The app package could not be opened, or its content could not be read.");
    EXPECT_EQ(raised_text(TSAPP_BUILTINS_INVALID_PACKAGE_ERROR("/apps/Grüße.tsappinstall")),
              "The app package \"/apps/Grüße.tsappinstall\" is not valid: a relationship that must "
              "be unique "
              "is missing or repeated.");
    EXPECT_EQ(
        raised_text(TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(u"/a/日本.tsappinstall", u"/d/😀")),
        "The app package \"/a/日本.tsappinstall\" could not be extracted into the folder "
        "\"/d/😀\".");
}

TEST(MessageIds, RaisedTextsInGermanCarryNonAsciiUtf8) {
    ScopedMessagesLocale locale("de_DE.UTF-8");
    EXPECT_EQ(raised_text(TSAPP_BUILTINS_XML_READ_ERROR("Zeile 1")),
              "Das App-Manifest ist kein gültiges Manifest-Dokument: Zeile 1");
    EXPECT_EQ(raised_text(TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR()),
              "Das App-Manifest konnte wegen eines internen Fehlers nicht gelesen oder geschrieben "
              "werden.");
    EXPECT_EQ(raised_text(TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION()),
              "Die Signatur des App-Manifests fehlt oder passt nicht zu seinem Inhalt.");
    EXPECT_EQ(raised_text(TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR()),
              "Das App-Paket konnte nicht geöffnet oder sein Inhalt nicht gelesen werden.");
    EXPECT_EQ(
        raised_text(TSAPP_BUILTINS_INVALID_PACKAGE_ERROR("/a/b.tsappinstall")),
        "Das App-Paket „/a/b.tsappinstall“ ist ungültig: Eine Beziehung, die eindeutig sein muss, "
        "fehlt oder ist mehrfach vorhanden.");
    EXPECT_EQ(
        raised_text(TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(u"/p/ä.tsappinstall", u"/ziel")),
        "Das App-Paket „/p/ä.tsappinstall“ konnte nicht in den Ordner „/ziel“ entpackt werden.");
}

TEST(MessageIds, SameIdentifierAndArgumentsGiveTheSameText) {
    EXPECT_EQ(message_text(TSAPP_BUILTINS_INVALID_PACKAGE_ERROR("p")),
              message_text(TSAPP_BUILTINS_INVALID_PACKAGE_ERROR(std::string("p"))));
}

TEST(MessageIds, PrintWritesTheTextWithOrWithoutNewline) {
    ScopedMessagesLocale locale("C");
    testing::internal::CaptureStderr();
    print(TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR(), false);
    print(TSAPP_BUILTINS_INVALID_PACKAGE_ERROR("p"), true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "The app package could not be opened, or its content could not be read."
              "The app package \"p\" is not valid: a relationship that must be unique is missing "
              "or repeated.\n");
}
