// Reading a manifest into a record: parse and validate, fill the record,
// then check the seal against the document rebuilt from that record.

#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <fstream>
#include <optional>
#include <typeinfo>
#include <utility>

#include "manifest/ManifestFailure.hpp"
#include "manifest/SealCheck.hpp"
#include "platform/xml/XercesScoped.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Conversions.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

using namespace xercesc;
using boost::posix_time::ptime;
using opc::model::XercesHelper;
using opc::model::XercesPtr;
using opc::model::XercesString;
using opc::model::detail::DocumentPoolReset;
namespace ids = tsapp_builtins::tsapp_builtins;
using tsappinstall::ManifestFault;
using tsappinstall::detail::fail;

namespace {

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

// The text as ASCII bytes, or nothing when it holds any other code unit: a
// GUID or seal that is not ASCII cannot be right, and a count in other
// digits is no number, so none of them may narrow to other bytes.
std::optional<std::string> asciiText(const std::u16string& text) {
    if (std::any_of(text.begin(), text.end(), [](char16_t c) { return c > 0x7F; }))
        return std::nullopt;
    return opc::toASCIIString(text);
}

std::uint64_t fileCount(const std::u16string& text) {
    const std::optional<std::string> ascii = asciiText(text);
    if (!ascii)
        boost::throw_exception(
            boost::bad_lexical_cast(typeid(std::u16string), typeid(std::uint64_t)));
    return boost::lexical_cast<std::uint64_t>(*ascii);
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

    const std::optional<std::string> guid = asciiText(getElementValueByTagName(root, guidElement_));
    manifest.GUID = guid.value_or(std::string());
    readTexts(root, manifest);
    readAuthor(root, manifest);
    manifest.supportedPlatforms = getElementValueListByTagName(root, platformElement_);
    readProducts(root, manifest);
    manifest.pathEntries = getElementValueListByTagName(root, pathElement_);
    manifest.appEntries = getElementValueListByTagName(root, appFileElement_);
    manifest.numFiles = fileCount(getElementValueByTagName(root, numFilesElement_));
    const ptime created = opc::convertStringToTime(getElementValueByTagName(root, createdElement_));
    manifest.created = convertUTCToLocalTime(created);
    const std::string signature =
        asciiText(XercesString(root->getAttribute(signatureAttribute_))).value_or(std::string());

    // The seal is checked against the record as read, never the file's bytes.
    if (!guid || signature.empty() ||
        !manifest_seal::sealMatches(*this, manifest, created, signature)) {
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
