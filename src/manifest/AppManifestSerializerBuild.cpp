// The canonical manifest document of a record, and its exact text.

#include <boost/lexical_cast.hpp>
#include <xercesc/framework/MemBufFormatTarget.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include "manifest/CanonicalText.hpp"
#include "manifest/ManifestFailure.hpp"
#include "platform/xml/XercesScoped.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Conversions.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

using namespace xercesc;
using opc::model::XercesHelper;
using opc::model::XercesString;
using tsappinstall::ManifestFault;
using tsappinstall::detail::fail;
namespace ids = tsapp_builtins::tsapp_builtins;

using manifest_seal::createdText;
using manifest_seal::numFilesText;

void AppManifestSerializer::appendChildElement(DOMElement* parent, const XercesString& ns,
                                               const XercesString& name,
                                               const std::u16string& value, bool omitIfEmpty) {
    if (omitIfEmpty && value.empty()) return;
    XercesHelper::setElementText(XercesHelper::appendElementNS(parent, ns, name), value);
}

void AppManifestSerializer::appendChildElementList(DOMElement* parent, const XercesString& ns,
                                                   const XercesString& name,
                                                   const std::vector<std::u16string>& values) {
    for (const std::u16string& value : values) appendChildElement(parent, ns, name, value, false);
}

// The author block stands or falls with the author's name.
void AppManifestSerializer::appendAuthor(DOMElement* root, const AppManifest& manifest) {
    if (manifest.authorName.empty()) return;
    DOMElement* author = XercesHelper::appendElementNS(root, namespace_, authorElement_);
    appendChildElement(author, namespace_, nameElement_, manifest.authorName, false);
    appendChildElement(author, namespace_, contactElement_, manifest.authorContact, false);
    appendChildElement(author, namespace_, organizationElement_, manifest.authorOrganization,
                       false);
}

void AppManifestSerializer::appendProducts(DOMElement* root,
                                           const std::vector<RequiredProduct>& products) {
    DOMElement* list = XercesHelper::appendElementNS(root, namespace_, requiredProductsElement_);
    for (const RequiredProduct& product : products) {
        DOMElement* entry = XercesHelper::appendElementNS(list, namespace_, productElement_);
        XercesHelper::setElementAttribute(entry, identifierAttribute_, product.identifier);
        XercesHelper::setElementAttribute(entry, nameAttribute_, product.name);
        XercesHelper::setElementAttribute(entry, versionAttribute_, product.version);
    }
}

void AppManifestSerializer::appendList(DOMElement* root, const XercesString& container,
                                       const XercesString& item,
                                       const std::vector<std::u16string>& values) {
    DOMElement* list = XercesHelper::appendElementNS(root, namespace_, container);
    appendChildElementList(list, namespace_, item, values);
}

DOMDocument* AppManifestSerializer::createDOMDocument(const AppManifest& manifest) {
    opc::model::XercesPtr<DOMDocument> document = XercesHelper::createDocument();
    document->setXmlStandalone(true);
    DOMElement* root =
        XercesHelper::appendElementNS(document.get(), namespace_, appPropertiesElement_);

    appendChildElement(root, namespace_, entryPointElement_, manifest.entryPoint, false);
    appendChildElement(root, namespace_, nameElement_, manifest.name, false);
    appendChildElement(root, namespace_, versionElement_, manifest.version, false);
    appendChildElement(root, namespace_, createdByTessalReleaseElement_,
                       manifest.createdByTESSALRelease, false);
    appendChildElement(root, namespace_, guidElement_, fl::i18n::to_ustring(manifest.GUID), false);
    appendChildElement(root, namespace_, summaryElement_, manifest.summary, true);
    appendChildElement(root, namespace_, descriptionElement_, manifest.description, true);
    appendChildElement(root, namespace_, minTessalVerElement_, manifest.minTESSALVer, true);
    appendChildElement(root, namespace_, maxTessalVerElement_, manifest.maxTESSALVer, true);
    appendAuthor(root, manifest);
    appendList(root, supportedPlatformsElement_, platformElement_, manifest.supportedPlatforms);
    appendProducts(root, manifest.requiredProducts);
    if (!manifest.pathEntries.empty())
        appendList(root, pathEntriesElement_, pathElement_, manifest.pathEntries);
    appendChildElement(root, namespace_, numFilesElement_, numFilesText(manifest.numFiles), false);
    appendChildElement(root, namespace_, createdElement_, createdText(manifest.created), false);
    if (!manifest.appEntries.empty())
        appendList(root, appEntriesElement_, appFileElement_, manifest.appEntries);

    return document.release();
}

void AppManifestSerializer::serializeDocument(std::ostream& out, const DOMDocument* document) {
    MemBufFormatTarget target(1023, XMLPlatformUtils::fgMemoryManager);
    const opc::model::XercesPtr<DOMLSOutput> output = opc::model::detail::memoryOutput(target);
    if (!opc::model::detail::writeNoThrow(writer_.get(), document, output.get()))
        fail(ManifestFault::MalformedXml, ids::TSAPP_BUILTINS_XML_READ_ERROR(
                                              "the manifest's text cannot be written as XML 1.0"));
    out.write(reinterpret_cast<const char*>(target.getRawBuffer()),
              static_cast<std::streamsize>(target.getLen()));
}
