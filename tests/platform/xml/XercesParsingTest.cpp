#include <gtest/gtest.h>

#include <sstream>

#include "tsappinstall/platform/opc/XercesHelper.hpp"

using opc::model::InvalidXMLDocument;
using opc::model::XercesHelper;
using opc::model::XercesPtr;

namespace {

struct Parsed {
    XercesPtr<xercesc::DOMLSParser> parser{XercesHelper::createParser()};
    xercesc::DOMDocument* parse(const std::string& text, bool failOnError = true) {
        std::istringstream in(text);
        opc::StdIStreamAdaptor stream(in);
        return XercesHelper::readDocumentFromStream(parser.get(), stream, failOnError, u"doc.xml",
                                                    u"");
    }
};

std::string failure_of(const std::string& text) {
    Parsed p;
    try {
        p.parse(text);
    } catch (const InvalidXMLDocument& e) {
        return e.what();
    }
    return "(parsed)";
}

}  // namespace

TEST(XercesParsing, WellFormedDocumentParsesAndStaysOwnedByTheParser) {
    Parsed p;
    auto* doc = p.parse("<?xml version='1.0'?><r xmlns='urn:x'><a>1</a></r>");
    ASSERT_NE(doc, nullptr);
    EXPECT_EQ(std::u16string(doc->getDocumentElement()->getLocalName()), u"r");
    p.parser->resetDocumentPool();
}

TEST(XercesParsing, MalformedDocumentNamesLineAndColumn) {
    const std::string what = failure_of("<r>\n  <a></b>\n</r>");
    EXPECT_NE(what.find("doc.xml, line 2, column"), std::string::npos) << what;
    EXPECT_NE(failure_of("").find("doc.xml"), std::string::npos);
    EXPECT_NE(failure_of("not xml at all"), "(parsed)");
    EXPECT_NE(failure_of("<r>\xff\xfe</r>"), "(parsed)");
}

TEST(XercesParsing, DoctypeIsRefusedSoNoEntityOrExternalDtdIsEverRead) {
    EXPECT_NE(failure_of("<!DOCTYPE r SYSTEM 'file:///etc/passwd'><r/>"), "(parsed)");
    EXPECT_NE(
        failure_of("<!DOCTYPE r [<!ENTITY a 'aaaaaaaa'><!ENTITY b '&a;&a;&a;&a;'>]><r>&b;</r>"),
        "(parsed)");
}

TEST(XercesParsing, OversizedDocumentIsRefusedBeforeParsing) {
    std::string big = "<r>" + std::string(XercesHelper::kMaxDocumentBytes, 'x') + "</r>";
    EXPECT_NE(failure_of(big).find("larger than"), std::string::npos);
}

TEST(XercesParsing, ParserKeepsNoErrorHandlerAfterTheParse) {
    Parsed p;
    EXPECT_THROW(p.parse("<r>"), InvalidXMLDocument);
    EXPECT_EQ(p.parser->getDomConfig()->getParameter(xercesc::XMLUni::fgDOMErrorHandler), nullptr);
    EXPECT_NE(p.parse("<r/>"), nullptr);
}

TEST(XercesParsing, DepthLimitCountsOpenElementsOnlyAndLeavesTheParserReusable) {
    const auto nested = [](std::size_t depth) {
        std::string open, close;
        for (std::size_t i = 0; i < depth; ++i) open += "<n>", close += "</n>";
        return open + close;
    };
    std::string siblings = "<r>";
    for (int i = 0; i < 10000; ++i) siblings += "<e/><f>t</f>";
    siblings += "</r>";

    Parsed p;
    EXPECT_NE(p.parse(siblings), nullptr);
    EXPECT_NE(p.parse(nested(XercesHelper::kMaxElementDepth)), nullptr);
    try {
        p.parse(nested(XercesHelper::kMaxElementDepth + 1));
        ADD_FAILURE() << "one level too deep parsed";
    } catch (const InvalidXMLDocument& e) {
        EXPECT_STREQ(e.what(), "the XML document nests elements deeper than 256 levels");
    }
    EXPECT_EQ(p.parser->getFilter(), nullptr);
    // The interrupted parse left nothing behind: the same parser reads the
    // next document whole.
    auto* doc = p.parse("<r xmlns='urn:x'><a>1</a><b/></r>");
    ASSERT_NE(doc, nullptr);
    EXPECT_EQ(doc->getDocumentElement()->getChildElementCount(), 2u);
    EXPECT_NE(p.parse(siblings), nullptr);
}
