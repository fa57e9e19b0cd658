#pragma once

// Scoped settings of a Xerces-C parser or writer, undone on every way out.

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufFormatTarget.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/XMLException.hpp>

#include "tsappinstall/platform/opc/XercesHelper.hpp"

namespace opc::model::detail {

// Installs an error handler for one call and puts the parser's previous one
// back, so the parser never keeps a pointer to a dead handler.
class ScopedErrorHandler {
  public:
    ScopedErrorHandler(xercesc::DOMLSParser* parser, xercesc::DOMErrorHandler* handler)
        : config_(parser->getDomConfig()),
          previous_(static_cast<xercesc::DOMErrorHandler*>(
              const_cast<void*>(config_->getParameter(xercesc::XMLUni::fgDOMErrorHandler)))) {
        config_->setParameter(xercesc::XMLUni::fgDOMErrorHandler, handler);
    }
    ~ScopedErrorHandler() { config_->setParameter(xercesc::XMLUni::fgDOMErrorHandler, previous_); }
    ScopedErrorHandler(const ScopedErrorHandler&) = delete;
    ScopedErrorHandler& operator=(const ScopedErrorHandler&) = delete;

  private:
    xercesc::DOMConfiguration* config_;
    xercesc::DOMErrorHandler* previous_;
};

// Frees the documents the parser made, on every way out of a parse.
class DocumentPoolReset {
  public:
    explicit DocumentPoolReset(xercesc::DOMLSParser* parser) : parser_(parser) {}
    ~DocumentPoolReset() { parser_->resetDocumentPool(); }
    DocumentPoolReset(const DocumentPoolReset&) = delete;
    DocumentPoolReset& operator=(const DocumentPoolReset&) = delete;

  private:
    xercesc::DOMLSParser* parser_;
};

// An output that collects a writer's bytes in `target`.
inline XercesPtr<xercesc::DOMLSOutput> memoryOutput(xercesc::MemBufFormatTarget& target) {
    static const XMLCh ls[] = u"LS";
    XercesPtr<xercesc::DOMLSOutput> output(
        xercesc::DOMImplementationRegistry::getDOMImplementation(ls)->createLSOutput());
    output->setByteStream(&target);
    return output;
}

// Writes the node to `output`; false when the writer fails, by its answer
// or by an exception of Xerces-C's (a character the document's XML version
// cannot hold, memory), none of which leaves here.
inline bool writeNoThrow(xercesc::DOMLSSerializer* writer, const xercesc::DOMNode* node,
                         xercesc::DOMLSOutput* output) {
    try {
        return writer->write(node, output);
    } catch (const xercesc::DOMException&) {  // DOMLSException too
    } catch (const xercesc::XMLException&) {
    } catch (const xercesc::OutOfMemoryException&) {
    }
    return false;
}

}  // namespace opc::model::detail
