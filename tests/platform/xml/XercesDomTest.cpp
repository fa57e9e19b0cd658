#include <gtest/gtest.h>

#include <sstream>

#include "tsappinstall/platform/opc/XercesHelper.hpp"

using opc::model::XercesHelper;
using opc::model::XercesPtr;
using opc::model::XercesString;

namespace {

struct Parsed {
    XercesPtr<xercesc::DOMLSParser> parser{XercesHelper::createParser()};
    xercesc::DOMElement* root(const std::string& text) {
        std::istringstream in(text);
        opc::StdIStreamAdaptor stream(in);
        return XercesHelper::readDocumentFromStream(parser.get(), stream, true, u"", u"")
            ->getDocumentElement();
    }
};

std::u16string textOf(const xercesc::DOMElement* element) {
    std::u16string text = u"(stale)";
    XercesHelper::getElementText(element, text);
    return text;
}

}  // namespace

TEST(XercesDom, LookupMatchesLocalNamesAtAnyDepthInDocumentOrder) {
    Parsed p;
    auto* root =
        p.root("<r xmlns='urn:a' xmlns:b='urn:b'><x>1</x><y><x>2</x><b:x>3</b:x></y><x/></r>");
    const XercesString x(u"x");
    const auto all = XercesHelper::getElements(root, x);
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(textOf(all[0]), u"1");
    EXPECT_EQ(textOf(all[1]), u"2");
    EXPECT_EQ(textOf(all[2]), u"3");
    EXPECT_EQ(textOf(all[3]), u"");
    EXPECT_EQ(XercesHelper::getElement(root, x), all[0]);
    EXPECT_EQ(XercesHelper::getElement(root, XercesString(u"r")), nullptr);  // descendants only
    EXPECT_EQ(XercesHelper::getElement(all[3], x), nullptr);
    EXPECT_TRUE(XercesHelper::getElements(root, XercesString(u"none")).empty());
    p.parser->resetDocumentPool();
}

TEST(XercesDom, TextAndAttributesComeBackExactlyAsWritten) {
    Parsed p;
    auto* root = p.root("<r a=' v &amp; w '><t>  spaced\n text &lt;<![CDATA[ raw ]]></t></r>");
    EXPECT_EQ(textOf(XercesHelper::getElement(root, XercesString(u"t"))),
              u"  spaced\n text < raw ");
    std::u16string value = u"(stale)";
    XercesHelper::getElementAttribute(root, XercesString(u"a"), value);
    EXPECT_EQ(value, u" v & w ");
    XercesHelper::getElementAttribute(root, XercesString(u"missing"), value);
    EXPECT_EQ(value, u"");
    p.parser->resetDocumentPool();
}

TEST(XercesDom, BuiltDocumentIsWrittenAsUtf8) {
    const auto document = XercesHelper::createDocument();
    ASSERT_EQ(document->getDocumentElement(), nullptr);
    const XercesString ns(u"urn:t");
    auto* root = XercesHelper::appendElementNS(document.get(), ns, XercesString(u"r"));
    auto* child = XercesHelper::appendElementNS(root, ns, XercesString(u"c"));
    XercesHelper::setElementText(child, u"first");
    XercesHelper::setElementText(child, u"\u00e9");
    XercesHelper::setElementAttribute(child, XercesString(u"k"), u"");
    XercesHelper::setElementText(XercesHelper::appendElementNS(root, ns, XercesString(u"e")), u"");
    EXPECT_EQ(std::u16string(child->getNamespaceURI()), u"urn:t");

    const XercesPtr<xercesc::DOMLSSerializer> writer(XercesHelper::createWriter());
    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    XercesHelper::writeDocumentToStream(writer.get(), document.get(), out);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()),
              "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\" ?>"
              "<r xmlns=\"urn:t\"><c k=\"\">\xc3\xa9</c><e></e></r>");
}
