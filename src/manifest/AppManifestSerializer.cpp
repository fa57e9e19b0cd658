// The serializer object: a parser holding the compiled manifest schema and
// a pretty-printing writer.

#include "tsappinstall/manifest/AppManifestSerializer.hpp"

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/Wrapper4InputSource.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <cstring>
#include <memory>

#include "platform/xml/XercesScoped.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

using namespace xercesc;
using opc::model::XercesPtr;

namespace {

// The schema's bytes as a Xerces input, named so that a compile error would
// point at it. The wrapper adopts the memory source.
XercesPtr<DOMLSInput> schemaInput() {
    MemoryManager* memory = XMLPlatformUtils::fgMemoryManager;
    const opc::model::XercesString bufferId(u"appProperties.xsd");
    auto source = std::make_unique<MemBufInputSource>(
        reinterpret_cast<const XMLByte*>(AppManifestSerializer::SCHEMA),
        std::strlen(AppManifestSerializer::SCHEMA), bufferId, false, memory);
    // Wrapper4InputSource is not an XMemory: plain new, freed by its release().
    XercesPtr<DOMLSInput> input(new Wrapper4InputSource(source.get(), true, memory));
    source.release();
    return input;
}

}  // namespace

AppManifestSerializer::AppManifestSerializer() {
    parser_.reset(opc::model::XercesHelper::createParser());
    const XercesPtr<DOMLSInput> schema = schemaInput();

    // Validation runs against the cached grammar only: the parser's refusal
    // to load schemas named by a document stays in force.
    DOMConfiguration* config = parser_->getDomConfig();
    config->setParameter(XMLUni::fgDOMValidate, true);
    config->setParameter(XMLUni::fgXercesUseCachedGrammarInParse, true);
    config->setParameter(XMLUni::fgXercesSchema, true);

    try {
        opc::model::XercesErrorHandler handler;
        const opc::model::detail::ScopedErrorHandler scoped(parser_.get(), &handler);
        parser_->loadGrammar(schema.get(), Grammar::SchemaGrammarType, true);
    } catch (const opc::model::InvalidXMLDocument&) {
        tsapp_builtins::tsapp_builtins::raise(
            tsapp_builtins::tsapp_builtins::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
    }

    writer_.reset(opc::model::XercesHelper::createWriter());
    writer_->getDomConfig()->setParameter(XMLUni::fgDOMWRTFormatPrettyPrint, true);
}

AppManifestSerializer::~AppManifestSerializer() = default;
