// Xerces-C initialisation, error reporting and the hardened parser.

#include <xercesc/dom/DOMLSParserFilter.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/Wrapper4InputSource.hpp>
#include <xercesc/sax/SAXException.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <mutex>

#include "platform/xml/XercesScoped.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/XercesHelper.hpp"

using namespace xercesc;

namespace opc::model {
namespace {

std::string describe(const DOMError& error, const std::u16string& fallbackName) {
    std::string text;
    const DOMLocator* where = error.getLocation();
    std::u16string name = fallbackName;
    if (where != nullptr && where->getURI() != nullptr && *where->getURI() != 0)
        name = where->getURI();
    if (!name.empty()) text += fl::i18n::to_string(name) + ", ";
    if (where != nullptr) {
        text += "line " + std::to_string(where->getLineNumber()) + ", column " +
                std::to_string(where->getColumnNumber()) + ": ";
    }
    const XMLCh* message = error.getMessage();
    text += message != nullptr ? fl::i18n::to_string(message) : std::string("unknown XML error");
    return text;
}

// Xerces reports validity errors as errors and well-formedness errors as
// fatal errors.
opc::Reason reason_of(const DOMError& error) {
    return error.getSeverity() == DOMError::DOM_SEVERITY_ERROR ? opc::Reason::InvalidXml
                                                               : opc::Reason::MalformedXml;
}

// Remembers the first error and stops the parse there. Used instead of a
// throwing handler so that no exception has to unwind through Xerces-C.
class RecordingErrorHandler : public DOMErrorHandler {
  public:
    RecordingErrorHandler(bool stopOnValidityErrors, std::u16string documentName)
        : stopOnValidityErrors_(stopOnValidityErrors), documentName_(std::move(documentName)) {}

    bool handleError(const DOMError& error) override {
        const auto severity = error.getSeverity();
        if (severity == DOMError::DOM_SEVERITY_WARNING) return true;
        if (severity == DOMError::DOM_SEVERITY_ERROR && !stopOnValidityErrors_) return true;
        if (first_.empty()) {
            first_ = describe(error, documentName_);
            reason_ = reason_of(error);
        }
        return false;
    }
    const std::string& first() const { return first_; }
    opc::Reason reason() const { return reason_; }

  private:
    bool stopOnValidityErrors_;
    std::u16string documentName_;
    std::string first_;
    opc::Reason reason_ = opc::Reason::MalformedXml;
};

using detail::ScopedErrorHandler;

// Stops the parse when elements nest deeper than kMaxElementDepth. The
// scanner looks up every element's namespace prefix through all open
// elements, so each level makes every element below it slower: 100 000
// levels, a few hundred kilobytes of text, would take the parse minutes.
class DepthLimit : public DOMLSParserFilter {
  public:
    FilterAction startElement(DOMElement*) override {
        if (++depth_ <= XercesHelper::kMaxElementDepth) return FILTER_ACCEPT;
        exceeded_ = true;
        return FILTER_INTERRUPT;
    }
    FilterAction acceptNode(DOMNode*) override {
        --depth_;
        return FILTER_ACCEPT;
    }
    DOMNodeFilter::ShowType getWhatToShow() const override { return DOMNodeFilter::SHOW_ELEMENT; }
    bool exceeded() const { return exceeded_; }

  private:
    std::size_t depth_ = 0;
    bool exceeded_ = false;
};

// Installs a filter for one parse and puts back the parser's previous one
// on every way out.
class ScopedFilter {
  public:
    ScopedFilter(DOMLSParser* parser, DOMLSParserFilter* filter)
        : parser_(parser), previous_(const_cast<DOMLSParserFilter*>(parser->getFilter())) {
        parser_->setFilter(filter);
    }
    ~ScopedFilter() { parser_->setFilter(previous_); }
    ScopedFilter(const ScopedFilter&) = delete;
    ScopedFilter& operator=(const ScopedFilter&) = delete;

  private:
    DOMLSParser* parser_;
    DOMLSParserFilter* previous_;
};

std::string too_deep() {
    return "the XML document nests elements deeper than " +
           std::to_string(XercesHelper::kMaxElementDepth) + " levels";
}

std::string read_all(opc::InputStream& stream) {
    std::string bytes;
    unsigned char chunk[16 * 1024];
    for (;;) {
        const std::size_t n = stream.read(chunk, sizeof chunk);
        if (n == 0) return bytes;
        if (bytes.size() + n > XercesHelper::kMaxDocumentBytes) {
            throw InvalidXMLDocument("the XML document is larger than " +
                                     std::to_string(XercesHelper::kMaxDocumentBytes) + " bytes");
        }
        bytes.append(reinterpret_cast<const char*>(chunk), n);
    }
}

}  // namespace

XercesGuard::XercesGuard() {
    static std::once_flag once;
    std::call_once(once, [] { XMLPlatformUtils::Initialize(); });
}

bool XercesErrorHandler::handleError(const DOMError& error) {
    if (error.getSeverity() == DOMError::DOM_SEVERITY_WARNING) return true;
    throw InvalidXMLDocument(describe(error, u""), reason_of(error));
}

DOMLSParser* XercesHelper::createParser() {
    return createParser(nullptr);
}

DOMLSParser* XercesHelper::createParser(XMLGrammarPool* grammars) {
    XercesGuard guard;
    static const XMLCh ls[] = u"LS";
    auto* impl =
        static_cast<DOMImplementationLS*>(DOMImplementationRegistry::getDOMImplementation(ls));
    DOMLSParser* parser = impl->createLSParser(DOMImplementationLS::MODE_SYNCHRONOUS, nullptr,
                                               XMLPlatformUtils::fgMemoryManager, grammars);
    DOMConfiguration* config = parser->getDomConfig();
    config->setParameter(XMLUni::fgDOMNamespaces, true);
    config->setParameter(XMLUni::fgDOMDisallowDoctype, true);
    config->setParameter(XMLUni::fgXercesLoadExternalDTD, false);
    config->setParameter(XMLUni::fgXercesLoadSchema, false);
    config->setParameter(XMLUni::fgXercesDisableDefaultEntityResolution, true);
    config->setParameter(XMLUni::fgDOMValidate, false);
    return parser;
}

DOMDocument* XercesHelper::readDocumentFromStream(DOMLSParser* parser, opc::InputStream& stream,
                                                  bool failOnError, const std::u16string& systemId,
                                                  const std::u16string& publicId) {
    const std::string bytes = read_all(stream);
    MemBufInputSource source(reinterpret_cast<const XMLByte*>(bytes.data()), bytes.size(),
                             systemId.empty() ? u"" : systemId.c_str(), false);
    if (!publicId.empty()) source.setPublicId(publicId.c_str());
    Wrapper4InputSource input(&source, false);

    RecordingErrorHandler handler(failOnError, systemId);
    DepthLimit depthLimit;
    DOMDocument* document = nullptr;
    {
        ScopedErrorHandler scoped(parser, &handler);
        ScopedFilter filtered(parser, &depthLimit);
        try {
            document = parser->parse(&input);
        } catch (const XMLException& e) {
            throw InvalidXMLDocument(fl::i18n::to_string(e.getMessage()));
        } catch (const DOMException& e) {  // DOMLSException too
            if (depthLimit.exceeded()) throw InvalidXMLDocument(too_deep());
            throw InvalidXMLDocument(e.getMessage() != nullptr ? fl::i18n::to_string(e.getMessage())
                                                               : std::string("DOM error"));
        } catch (const SAXException& e) {
            throw InvalidXMLDocument(fl::i18n::to_string(e.getMessage()));
        } catch (const OutOfMemoryException&) {
            throw InvalidXMLDocument("the XML parser ran out of memory");
        }
    }
    if (depthLimit.exceeded()) throw InvalidXMLDocument(too_deep());
    if (!handler.first().empty()) throw InvalidXMLDocument(handler.first(), handler.reason());
    if (document == nullptr || document->getDocumentElement() == nullptr) {
        throw InvalidXMLDocument("the XML document has no root element");
    }
    // XML 1.1 admits control characters, as references, that no XML 1.0
    // text can hold: a manifest's seal, written as XML 1.0, could never be
    // checked, and a terminal would be shown them. Nothing read here is
    // XML 1.1. A document without a declaration has no version: 1.0.
    const XMLCh* version = document->getXmlVersion();
    if (version != nullptr && !XMLString::equals(version, XMLUni::fgVersion1_0))
        throw InvalidXMLDocument("the XML document is XML " + fl::i18n::to_string(version) +
                                 ", not XML 1.0");
    return document;
}

}  // namespace opc::model
