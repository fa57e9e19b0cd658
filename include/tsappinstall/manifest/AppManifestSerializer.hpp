#pragma once

// Reads, validates, builds, signs, verifies and writes app manifests.
//
// One serializer holds one Xerces parser and one pretty-printing DOM writer,
// so an object serves one thread at a time; separate objects are
// independent. The manifest schema is compiled once per process, by the
// first serializer, into a locked grammar pool that every serializer's
// parser reads and none changes.

#include <boost/core/noncopyable.hpp>
#include <xercesc/dom/DOM.hpp>

#include <ostream>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/manifest/AppManifest.hpp"
#include "tsappinstall/manifest/ManifestFault.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"
#include "tsappinstall/platform/opc/XercesHelper.hpp"
#include "tsappinstall/platform/opc/XercesString.hpp"

class TSAPP_API AppManifestSerializer : private boost::noncopyable {
  public:
    // The manifest vocabulary. Every element is in NAMESPACE; no attribute
    // is in a namespace.
    static constexpr const char16_t* NAMESPACE =
        u"http://schemas.corvane.com/tessal/app/2012/appProperties";
    static constexpr const char16_t* APPPROPERTIES_ELEMENT = u"appProperties";
    static constexpr const char16_t* ENTRYPOINT_ELEMENT = u"entryPoint";
    static constexpr const char16_t* NAME_ELEMENT = u"name";
    static constexpr const char16_t* VERSION_ELEMENT = u"version";
    static constexpr const char16_t* CREATEDBYTESSALRELEASE_ELEMENT = u"createdByTESSALRelease";
    static constexpr const char16_t* GUID_ELEMENT = u"GUID";
    static constexpr const char16_t* SUMMARY_ELEMENT = u"summary";
    static constexpr const char16_t* DESCRIPTION_ELEMENT = u"description";
    static constexpr const char16_t* MINTESSALVER_ELEMENT = u"minTESSALVer";
    static constexpr const char16_t* MAXTESSALVER_ELEMENT = u"maxTESSALVer";
    static constexpr const char16_t* AUTHOR_ELEMENT = u"author";
    static constexpr const char16_t* SUPPORTEDPLATFORMS_ELEMENT = u"supportedPlatforms";
    static constexpr const char16_t* REQUIREDPRODUCTS_ELEMENT = u"requiredProducts";
    static constexpr const char16_t* PATHENTRIES_ELEMENT = u"pathEntries";
    static constexpr const char16_t* APPENTRIES_ELEMENT = u"appEntries";
    static constexpr const char16_t* NUMFILES_ELEMENT = u"numFiles";
    static constexpr const char16_t* CONTACT_ELEMENT = u"contact";
    static constexpr const char16_t* ORGANIZATION_ELEMENT = u"organization";
    static constexpr const char16_t* PATH_ELEMENT = u"path";
    static constexpr const char16_t* APPFILE_ELEMENT = u"appFile";
    static constexpr const char16_t* PLATFORM_ELEMENT = u"platform";
    static constexpr const char16_t* PRODUCT_ELEMENT = u"product";
    static constexpr const char16_t* CREATED_ELEMENT = u"created";
    static constexpr const char16_t* IDENTIFIER_ATTRIBUTE = u"identifier";
    static constexpr const char16_t* NAME_ATTRIBUTE = u"name";
    static constexpr const char16_t* VERSION_ATTRIBUTE = u"version";
    static constexpr const char16_t* SIGNATURE_ATTRIBUTE = u"signature";
    // The W3C XML Schema of the manifest, NUL-terminated UTF-8.
    static const char* const SCHEMA;

    // Makes a parser validating against SCHEMA (compiled by the first
    // serializer of the process) and sets the writer to pretty-print. A
    // schema that does not compile raises the catalog's
    // TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR as std::runtime_error.
    AppManifestSerializer();
    virtual ~AppManifestSerializer();

    // Reading. Validates against the cached grammar, fills `manifest` field
    // by field (the creation time moved to local time) and checks the seal
    // against the document rebuilt from the record, never the file's bytes
    // (also in the empty-element form of earlier releases, and with the
    // document's own UTC time when the local creation time is ambiguous).
    // Raises std::runtime_error with the catalog text of XML_READ_ERROR (not
    // well formed or not valid; the parser's description as argument),
    // XML_READ_INTERNAL_ERROR (the stream failed) or
    // GET_APP_PROPERTIES_ERROR_VALIDATION (seal missing or wrong, or a
    // non-ASCII GUID or seal). Passes on boost::bad_lexical_cast for a
    // numFiles that is not an unsigned ASCII decimal, and the time
    // conversions' errors. Fields read before a failure keep their new
    // values. A path that does not open reads as an empty document.
    void load(opc::InputStream& stream, AppManifest& manifest);
    void load(const std::u16string& path, AppManifest& manifest);
    std::u16string getElementValueByTagName(const xercesc::DOMElement* element,
                                            const opc::model::XercesString& name);
    std::vector<std::u16string> getElementValueListByTagName(const xercesc::DOMElement* element,
                                                             const opc::model::XercesString& name);

    // Writing: the signed manifest of `manifest`, as UTF-8. Every failure
    // becomes the catalog's XML_READ_INTERNAL_ERROR as std::runtime_error.
    void save(opc::OutputStream& stream, const AppManifest& manifest);
    void save(const std::u16string& path, const AppManifest& manifest);

    // The one canonical document of a record; the caller release()s it.
    xercesc::DOMDocument* createDOMDocument(const AppManifest& manifest);
    void appendChildElement(xercesc::DOMElement* parent, const opc::model::XercesString& ns,
                            const opc::model::XercesString& name, const std::u16string& value,
                            bool omitIfEmpty);
    void appendChildElementList(xercesc::DOMElement* parent, const opc::model::XercesString& ns,
                                const opc::model::XercesString& name,
                                const std::vector<std::u16string>& values);
    // The exact bytes the signature covers: the writer's output with no
    // encoding given, XML declaration included.
    void serializeDocument(std::ostream& out, const xercesc::DOMDocument* document);

    // SHA-1 of `key` followed by serializeDocument's text, as 40 lower-case
    // hex digits. verifyDocument compares digits without regard to case.
    std::string signDocument(const std::string& key, const xercesc::DOMDocument* document);
    bool verifyDocument(const std::string& key, const xercesc::DOMDocument* document,
                        const std::string& signature);

  private:
    // Lets the tests parse with this object's parser and its cached grammar.
    friend struct AppManifestSerializerTestPeer;

    opc::model::XercesGuard guard_;
    opc::model::XercesPtr<xercesc::DOMLSParser> parser_;
    opc::model::XercesPtr<xercesc::DOMLSSerializer> writer_;

    const opc::model::XercesString namespace_{NAMESPACE};
    const opc::model::XercesString appPropertiesElement_{APPPROPERTIES_ELEMENT};
    const opc::model::XercesString entryPointElement_{ENTRYPOINT_ELEMENT};
    const opc::model::XercesString nameElement_{NAME_ELEMENT};
    const opc::model::XercesString versionElement_{VERSION_ELEMENT};
    const opc::model::XercesString createdByTessalReleaseElement_{CREATEDBYTESSALRELEASE_ELEMENT};
    const opc::model::XercesString guidElement_{GUID_ELEMENT};
    const opc::model::XercesString summaryElement_{SUMMARY_ELEMENT};
    const opc::model::XercesString descriptionElement_{DESCRIPTION_ELEMENT};
    const opc::model::XercesString minTessalVerElement_{MINTESSALVER_ELEMENT};
    const opc::model::XercesString maxTessalVerElement_{MAXTESSALVER_ELEMENT};
    const opc::model::XercesString authorElement_{AUTHOR_ELEMENT};
    const opc::model::XercesString supportedPlatformsElement_{SUPPORTEDPLATFORMS_ELEMENT};
    const opc::model::XercesString requiredProductsElement_{REQUIREDPRODUCTS_ELEMENT};
    const opc::model::XercesString pathEntriesElement_{PATHENTRIES_ELEMENT};
    const opc::model::XercesString appEntriesElement_{APPENTRIES_ELEMENT};
    const opc::model::XercesString numFilesElement_{NUMFILES_ELEMENT};
    const opc::model::XercesString contactElement_{CONTACT_ELEMENT};
    const opc::model::XercesString organizationElement_{ORGANIZATION_ELEMENT};
    const opc::model::XercesString pathElement_{PATH_ELEMENT};
    const opc::model::XercesString appFileElement_{APPFILE_ELEMENT};
    const opc::model::XercesString platformElement_{PLATFORM_ELEMENT};
    const opc::model::XercesString productElement_{PRODUCT_ELEMENT};
    const opc::model::XercesString createdElement_{CREATED_ELEMENT};
    const opc::model::XercesString identifierAttribute_{IDENTIFIER_ATTRIBUTE};
    const opc::model::XercesString nameAttribute_{NAME_ATTRIBUTE};
    const opc::model::XercesString versionAttribute_{VERSION_ATTRIBUTE};
    const opc::model::XercesString signatureAttribute_{SIGNATURE_ATTRIBUTE};

    void appendAuthor(xercesc::DOMElement* root, const AppManifest& manifest);
    void appendProducts(xercesc::DOMElement* root, const std::vector<RequiredProduct>& products);
    void appendList(xercesc::DOMElement* root, const opc::model::XercesString& container,
                    const opc::model::XercesString& item,
                    const std::vector<std::u16string>& values);
    friend tsappinstall::ManifestFault tsappinstall::loadManifest(AppManifestSerializer&,
                                                                  opc::InputStream&, AppManifest&,
                                                                  std::string&);
    // load's work; its own failures leave as ManifestFailure.
    void read(opc::InputStream& stream, AppManifest& manifest);
    void readTexts(const xercesc::DOMElement* root, AppManifest& manifest);
    void readAuthor(const xercesc::DOMElement* root, AppManifest& manifest);
    void readProducts(const xercesc::DOMElement* root, AppManifest& manifest);
};
