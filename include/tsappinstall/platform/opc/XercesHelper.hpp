#pragma once

// Xerces-C helpers of the package layer: process-wide initialisation, owners
// that call release(), a hardened parser, DOM building and lookup, writing.

#include <xercesc/dom/DOM.hpp>

#include <memory>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"
#include "tsappinstall/platform/opc/XercesString.hpp"

namespace opc::model {

// Keeps Xerces-C initialised while it lives. Initialisation happens once per
// process, under a lock, on the first guard; it is never undone, because
// XMLPlatformUtils::Initialize/Terminate are not thread-safe and a pair
// costs about a millisecond — more than reading a manifest.
class TSAPP_API XercesGuard {
  public:
    XercesGuard();
    ~XercesGuard() = default;
};

// Not well-formed (Reason::MalformedXml) or not valid (Reason::InvalidXml)
// XML. what() names the problem with its line and column.
class TSAPP_API InvalidXMLDocument : public opc::Exception {
  public:
    explicit InvalidXMLDocument(const std::string& what,
                                opc::Reason reason = opc::Reason::MalformedXml)
        : opc::Exception(reason, what) {}
};

// A DOM error handler that throws InvalidXMLDocument for every error and
// fatal error the parser reports; warnings are ignored.
class TSAPP_API XercesErrorHandler : public xercesc::DOMErrorHandler {
  public:
    XercesErrorHandler() = default;
    ~XercesErrorHandler() override = default;
    bool handleError(const xercesc::DOMError& error) override;
};

// unique_ptr for Xerces objects that must be freed with their release().
struct XercesReleaser {
    template <typename T>
    void operator()(T* object) const {
        if (object != nullptr) object->release();
    }
};
template <typename T>
using XercesPtr = std::unique_ptr<T, XercesReleaser>;

class TSAPP_API XercesHelper {
  public:
    // A namespace-aware DOM parser hardened for untrusted input: a DOCTYPE is
    // refused, no external entity, DTD or schema named by a document is ever
    // loaded (so nothing is fetched from the network or the file system),
    // and validation is off until the caller configures it. Owned by the
    // caller (release()).
    static xercesc::DOMLSParser* createParser();
    // The same, taking its grammars from `grammars` (may be null), which
    // must outlive the parser.
    static xercesc::DOMLSParser* createParser(xercesc::XMLGrammarPool* grammars);

    // A DOM serializer (owned by the caller, release()). Nothing is set
    // beyond Xerces-C's defaults.
    static xercesc::DOMLSSerializer* createWriter();

    // A new, empty document (no document element).
    static XercesPtr<xercesc::DOMDocument> createDocument();

    // Reads the whole stream (at most kMaxDocumentBytes) and parses it with
    // `parser`, so its configuration and cached grammar apply. With
    // `failOnError` true, an error handler is installed for the parse, so
    // validity errors fail as well as well-formedness errors; the parser's
    // previous handler is put back afterwards. `systemId` and `publicId`
    // name the document in error descriptions (may be empty). The document
    // stays owned by the parser. Elements may nest kMaxElementDepth deep.
    // Throws InvalidXMLDocument; never returns null.
    static xercesc::DOMDocument* readDocumentFromStream(xercesc::DOMLSParser* parser,
                                                        opc::InputStream& stream, bool failOnError,
                                                        const std::u16string& systemId,
                                                        const std::u16string& publicId);

    // Appends an unprefixed element in namespace `ns` as the document element
    // / as the last child of `parent`, and returns it.
    static xercesc::DOMElement* appendElementNS(xercesc::DOMDocument* document,
                                                const XercesString& ns, const XercesString& name);
    static xercesc::DOMElement* appendElementNS(xercesc::DOMElement* parent, const XercesString& ns,
                                                const XercesString& name);
    // Replaces the element's children with the text, as setTextContent does:
    // an empty text stays an empty text node, so the element is written
    // "<name></name>".
    static void setElementText(xercesc::DOMElement* element, const std::u16string& text);
    static void setElementAttribute(xercesc::DOMElement* element, const XercesString& name,
                                    const std::u16string& value);

    // The first / every descendant element with that local name, at any
    // depth, in document order (the element itself is not searched). The
    // namespace and prefix are not compared: after validation every element
    // of a manifest is in the manifest namespace, so a manifest that puts it
    // on a prefix reads like one that uses the default namespace.
    static xercesc::DOMElement* getElement(const xercesc::DOMElement* element,
                                           const XercesString& name);
    static std::vector<xercesc::DOMElement*> getElements(const xercesc::DOMElement* element,
                                                         const XercesString& name);
    // The element's text content (its descendants' text and CDATA, in
    // order), exactly as stored: no trimming, no normalisation.
    static void getElementText(const xercesc::DOMElement* element, std::u16string& text);
    // The value of the element's attribute without namespace ("" if absent).
    static void getElementAttribute(const xercesc::DOMElement* element, const XercesString& name,
                                    std::u16string& value);

    // Serializes the document with `writer` as UTF-8 into `stream`.
    static void writeDocumentToStream(xercesc::DOMLSSerializer* writer,
                                      xercesc::DOMDocument* document, opc::OutputStream& stream);

    // Larger documents are refused before parsing.
    static constexpr std::size_t kMaxDocumentBytes = 16u * 1024u * 1024u;
    // Documents whose elements nest deeper are refused while parsing.
    static constexpr std::size_t kMaxElementDepth = 256;
};

}  // namespace opc::model
