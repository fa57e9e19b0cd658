#include <gtest/gtest.h>

#include "manifest/ManifestTestSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/manifest/ManifestFault.hpp"

using namespace tsapp::test;
using tsappinstall::ManifestFault;

// Each kind comes with the very text load raises, and load still raises a
// plain std::runtime_error.
TEST(ManifestFault, EachFailureHasItsKindAndLoadsText) {
    ScopedTimeZone zone("Europe/Berlin");
    AppManifestSerializer serializer;
    std::ostringstream out;
    opc::StdOStreamAdaptor outStream(out);
    serializer.save(outStream, fullRecord());
    const std::string good = out.str();
    const std::pair<std::string, ManifestFault> cases[] = {
        {good, ManifestFault::None},
        {"not xml", ManifestFault::MalformedXml},
        {replaced(good, "2012/appProperties\"", "2013/appProperties\""), ManifestFault::InvalidXml},
        {replaced(good, "<summary>Short<", "<summary>Short.<"), ManifestFault::BadSignature},
        {replaced(good, "<numFiles>42<", "<numFiles>4x<"), ManifestFault::BadFileCount},
    };
    for (const auto& [document, fault] : cases) {
        AppManifest record;
        std::string text;
        std::istringstream in(document), again(document);
        opc::StdIStreamAdaptor stream(in), againStream(again);
        EXPECT_EQ(tsappinstall::loadManifest(serializer, stream, record, text), fault) << document;
        if (fault == ManifestFault::None || fault == ManifestFault::BadFileCount) continue;
        try {
            serializer.load(againStream, record);
            ADD_FAILURE() << document;
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(typeid(e), typeid(std::runtime_error));
            EXPECT_EQ(e.what(), text);
        }
    }
}
