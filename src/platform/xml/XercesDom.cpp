// DOM building, lookup and writing helpers of the package layer.

#include <xercesc/framework/MemBufFormatTarget.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

#include "platform/xml/XercesScoped.hpp"
#include "tsappinstall/platform/opc/XercesHelper.hpp"

using namespace xercesc;

namespace opc::model {
namespace {

DOMImplementation* lsImplementation() {
    static const XMLCh ls[] = u"LS";
    return DOMImplementationRegistry::getDOMImplementation(ls);
}

bool hasLocalName(const DOMNode* node, const XMLCh* name) {
    const XMLCh* local = node->getLocalName();
    // Nodes made by a namespace-unaware builder carry only a node name.
    if (local == nullptr) local = node->getNodeName();
    return XMLString::equals(local, name);
}

// The element following `node` in document order below `root`, or null.
const DOMNode* nextInDocumentOrder(const DOMNode* node, const DOMNode* root) {
    if (const DOMNode* child = node->getFirstChild()) return child;
    while (node != root) {
        if (const DOMNode* sibling = node->getNextSibling()) return sibling;
        node = node->getParentNode();
    }
    return nullptr;
}

// Calls `visit` for each descendant element of `root` with that local name,
// in document order, until it returns false.
template <typename Visit>
void forEachDescendant(const DOMElement* root, const XMLCh* name, Visit visit) {
    for (const DOMNode* node = nextInDocumentOrder(root, root); node != nullptr;
         node = nextInDocumentOrder(node, root)) {
        if (node->getNodeType() != DOMNode::ELEMENT_NODE || !hasLocalName(node, name)) continue;
        if (!visit(const_cast<DOMElement*>(static_cast<const DOMElement*>(node)))) return;
    }
}

void appendText(const DOMNode* node, std::u16string& text) {
    for (const DOMNode* child = node->getFirstChild(); child != nullptr;
         child = child->getNextSibling()) {
        const auto type = child->getNodeType();
        if (type == DOMNode::TEXT_NODE || type == DOMNode::CDATA_SECTION_NODE) {
            text += child->getNodeValue();
        } else if (type == DOMNode::ELEMENT_NODE || type == DOMNode::ENTITY_REFERENCE_NODE) {
            appendText(child, text);
        }
    }
}

}  // namespace

DOMLSSerializer* XercesHelper::createWriter() {
    XercesGuard guard;
    return lsImplementation()->createLSSerializer();
}

XercesPtr<DOMDocument> XercesHelper::createDocument() {
    XercesGuard guard;
    return XercesPtr<DOMDocument>(lsImplementation()->createDocument());
}

DOMElement* XercesHelper::appendElementNS(DOMDocument* document, const XercesString& ns,
                                          const XercesString& name) {
    DOMElement* element = document->createElementNS(ns, name);
    document->appendChild(element);
    return element;
}

DOMElement* XercesHelper::appendElementNS(DOMElement* parent, const XercesString& ns,
                                          const XercesString& name) {
    DOMElement* element = parent->getOwnerDocument()->createElementNS(ns, name);
    parent->appendChild(element);
    return element;
}

// setTextContent keeps an empty text as an empty text node, so the element
// is written <x></x>: the form every writer built on that DOM call produces,
// which a signed manifest's canonical text must reproduce byte for byte.
void XercesHelper::setElementText(DOMElement* element, const std::u16string& text) {
    element->setTextContent(text.c_str());
}

void XercesHelper::setElementAttribute(DOMElement* element, const XercesString& name,
                                       const std::u16string& value) {
    element->setAttribute(name, value.c_str());
}

DOMElement* XercesHelper::getElement(const DOMElement* element, const XercesString& name) {
    DOMElement* found = nullptr;
    forEachDescendant(element, name, [&found](DOMElement* match) {
        found = match;
        return false;
    });
    return found;
}

std::vector<DOMElement*> XercesHelper::getElements(const DOMElement* element,
                                                   const XercesString& name) {
    std::vector<DOMElement*> found;
    forEachDescendant(element, name, [&found](DOMElement* match) {
        found.push_back(match);
        return true;
    });
    return found;
}

void XercesHelper::getElementText(const DOMElement* element, std::u16string& text) {
    text.clear();
    appendText(element, text);
}

void XercesHelper::getElementAttribute(const DOMElement* element, const XercesString& name,
                                       std::u16string& value) {
    value = element->getAttribute(name);
}

void XercesHelper::writeDocumentToStream(DOMLSSerializer* writer, DOMDocument* document,
                                         opc::OutputStream& stream) {
    MemBufFormatTarget target(1023, XMLPlatformUtils::fgMemoryManager);
    const XercesPtr<DOMLSOutput> output = detail::memoryOutput(target);
    output->setEncoding(XMLUni::fgUTF8EncodingString);
    if (!detail::writeNoThrow(writer, document, output.get()))
        throw opc::Exception("the XML document could not be written");
    stream.write(target.getRawBuffer(), target.getLen());
}

}  // namespace opc::model
