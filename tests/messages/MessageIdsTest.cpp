#include <gtest/gtest.h>

#include <typeinfo>

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
        {TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(u"/a/日本.tsappinstall", u"/d/😀"),
         "The app package \"/a/日本.tsappinstall\" could not be extracted into the folder "
         "\"/d/😀\"."},
    };
    for (const auto& [id, text] : cases) {
        try {
            raise(id);
            ADD_FAILURE() << "raise returned";
        } catch (const std::exception& e) {
            EXPECT_EQ(typeid(e), typeid(std::runtime_error));
            EXPECT_STREQ(e.what(), text);
        }
    }
    testing::internal::CaptureStderr();
    print(TSAPP_BUILTINS_INVALID_PACKAGE_ERROR("p"), false);
    print(TSAPP_BUILTINS_INVALID_PACKAGE_ERROR(static_cast<const char*>(nullptr)), true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "The app package \"p\" is not valid: a relationship that must be unique is missing "
              "or repeated.The app package \"\" is not valid: a relationship that must be unique "
              "is missing or repeated.\n");
}
