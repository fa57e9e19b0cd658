// Reading a manifest into a record: parse and validate, fill the record,
// then check the seal against the document rebuilt from that record.

#include <boost/lexical_cast.hpp>

#include <fstream>
#include <utility>

#include "manifest/ManifestFailure.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Conversions.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

using namespace xercesc;
using opc::model::XercesHelper;
using opc::model::XercesString;
namespace ids = tsapp_builtins::tsapp_builtins;
using tsappinstall::ManifestFault;
using tsappinstall::detail::fail;

namespace {

// Frees every document the parser made, on every way out of a read, so a
// serializer never accumulates documents or keeps one after a failure.
class DocumentPoolReset {
  public:
    explicit DocumentPoolReset(DOMLSParser* parser) : parser_(parser) {}
    ~DocumentPoolReset() { parser_->resetDocumentPool(); }
    DocumentPoolReset(const DocumentPoolReset&) = delete;
    DocumentPoolReset& operator=(const DocumentPoolReset&) = delete;

  private:
    DOMLSParser* parser_;
};

DOMDocument* parse(DOMLSParser* parser, opc::InputStream& stream) {
    try {
        return XercesHelper::readDocumentFromStream(parser, stream, true, u"", u"");
    } catch (const opc::model::InvalidXMLDocument& e) {
        const auto fault = e.reason() == opc::Reason::InvalidXml ? ManifestFault::InvalidXml
                                                                 : ManifestFault::MalformedXml;
        fail(fault, ids::TSAPP_BUILTINS_XML_READ_ERROR(e.what()));
    } catch (...) {
        fail(ManifestFault::Unreadable, ids::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
    }
}

}  // namespace

std::u16string AppManifestSerializer::getElementValueByTagName(const DOMElement* element,
                                                               const XercesString& name) {
    std::u16string value;
    if (const DOMElement* match = XercesHelper::getElement(element, name))
        XercesHelper::getElementText(match, value);
    return value;
}

std::vector<std::u16string> AppManifestSerializer::getElementValueListByTagName(
    const DOMElement* element, const XercesString& name) {
    std::vector<std::u16string> values;
    for (const DOMElement* match : XercesHelper::getElements(element, name)) {
        std::u16string value;
        XercesHelper::getElementText(match, value);
        values.push_back(std::move(value));
    }
    return values;
}

// The record's text fields with the element each one is read from.
void AppManifestSerializer::readTexts(const DOMElement* root, AppManifest& manifest) {
    using S = AppManifestSerializer;
    static const std::pair<std::u16string AppManifest::*, const XercesString S::*> kTexts[] = {
        {&AppManifest::entryPoint, &S::entryPointElement_},
        {&AppManifest::name, &S::nameElement_},
        {&AppManifest::version, &S::versionElement_},
        {&AppManifest::createdByTESSALRelease, &S::createdByTessalReleaseElement_},
        {&AppManifest::summary, &S::summaryElement_},
        {&AppManifest::description, &S::descriptionElement_},
        {&AppManifest::minTESSALVer, &S::minTessalVerElement_},
        {&AppManifest::maxTESSALVer, &S::maxTessalVerElement_}};
    manifest.GUID = opc::toASCIIString(getElementValueByTagName(root, guidElement_));
    for (const auto& [field, element] : kTexts)
        manifest.*field = getElementValueByTagName(root, this->*element);
}

// Without an author block the record's author fields keep their values.
void AppManifestSerializer::readAuthor(const DOMElement* root, AppManifest& manifest) {
    const DOMElement* author = XercesHelper::getElement(root, authorElement_);
    if (author == nullptr) return;
    manifest.authorName = getElementValueByTagName(author, nameElement_);
    manifest.authorContact = getElementValueByTagName(author, contactElement_);
    manifest.authorOrganization = getElementValueByTagName(author, organizationElement_);
}

// Products are appended after those the record already holds.
void AppManifestSerializer::readProducts(const DOMElement* root, AppManifest& manifest) {
    const DOMElement* list = XercesHelper::getElement(root, requiredProductsElement_);
    if (list == nullptr) return;
    for (const DOMElement* entry : XercesHelper::getElements(list, productElement_)) {
        RequiredProduct product;
        XercesHelper::getElementAttribute(entry, identifierAttribute_, product.identifier);
        XercesHelper::getElementAttribute(entry, nameAttribute_, product.name);
        XercesHelper::getElementAttribute(entry, versionAttribute_, product.version);
        manifest.requiredProducts.push_back(product);
    }
}

void AppManifestSerializer::read(opc::InputStream& stream, AppManifest& manifest) {
    const DocumentPoolReset poolReset(parser_.get());
    const DOMElement* root = parse(parser_.get(), stream)->getDocumentElement();

    readTexts(root, manifest);
    readAuthor(root, manifest);
    manifest.supportedPlatforms = getElementValueListByTagName(root, platformElement_);
    readProducts(root, manifest);
    manifest.pathEntries = getElementValueListByTagName(root, pathElement_);
    manifest.appEntries = getElementValueListByTagName(root, appFileElement_);
    manifest.numFiles = boost::lexical_cast<std::uint64_t>(
        opc::toASCIIString(getElementValueByTagName(root, numFilesElement_)));
    manifest.created = convertUTCToLocalTime(
        opc::convertStringToTime(getElementValueByTagName(root, createdElement_)));
    const std::string signature =
        opc::toASCIIString(XercesString(root->getAttribute(signatureAttribute_)));

    // The seal is checked against the record as read, never the file's bytes.
    const opc::model::XercesPtr<DOMDocument> rebuilt(createDOMDocument(manifest));
    if (signature.empty() || !verifyDocument(manifest.GUID, rebuilt.get(), signature)) {
        fail(ManifestFault::BadSignature,
             ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_ERROR_VALIDATION());
    }
}

void AppManifestSerializer::load(opc::InputStream& stream, AppManifest& manifest) {
    try {
        read(stream, manifest);
    } catch (const tsappinstall::detail::ManifestFailure& failure) {
        std::runtime_error plain(failure.what());  // callers get exactly this type
        throw plain;
    }
}

// A file that does not open reads as an empty stream and fails as a
// document that is not XML.
void AppManifestSerializer::load(const std::u16string& path, AppManifest& manifest) {
    std::ifstream file(fl::i18n::to_string(path), std::ios_base::in);
    opc::StdIStreamAdaptor stream(file);
    load(stream, manifest);
}
