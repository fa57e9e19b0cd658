// The serializer object: a parser validating against the manifest schema,
// compiled once per process, and a pretty-printing writer.

#include "tsappinstall/manifest/AppManifestSerializer.hpp"

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/Wrapper4InputSource.hpp>
#include <xercesc/framework/XMLGrammarPoolImpl.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>
#include <xercesc/validators/schema/ComplexTypeInfo.hpp>
#include <xercesc/validators/schema/SchemaGrammar.hpp>

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

// A schema type builds its content model, and the text of it that errors
// quote, on first use; two threads validating at once would both build
// them, one copy lost and both written unguarded. Built here, before the
// pool is shared, they are only read.
void build_content_models(const XMLGrammarPool& pool) {
    RefHashTableOfEnumerator<Grammar> grammars = pool.getGrammarEnumerator();
    while (grammars.hasMoreElements()) {
        Grammar& grammar = grammars.nextElement();
        if (grammar.getGrammarType() != Grammar::SchemaGrammarType) continue;
        RefHashTableOf<ComplexTypeInfo>* types =
            static_cast<SchemaGrammar&>(grammar).getComplexTypeRegistry();
        if (types == nullptr) continue;
        RefHashTableOfEnumerator<ComplexTypeInfo> each(types, false);
        while (each.hasMoreElements()) {
            ComplexTypeInfo& type = each.nextElement();
            type.getContentModel();
            type.getFormattedContentModel();
        }
    }
}

// Only the grammars of a locked pool are used, never added to; Xerces-C
// lets any number of parsers, in any threads, share such a pool once
// every lazily built part of it is built.
std::unique_ptr<XMLGrammarPool> compile_schema() {
    auto pool = std::make_unique<XMLGrammarPoolImpl>(XMLPlatformUtils::fgMemoryManager);
    const XercesPtr<DOMLSParser> loader(opc::model::XercesHelper::createParser(pool.get()));
    loader->getDomConfig()->setParameter(XMLUni::fgXercesSchema, true);
    opc::model::XercesErrorHandler handler;
    const opc::model::detail::ScopedErrorHandler scoped(loader.get(), &handler);
    loader->loadGrammar(schemaInput().get(), Grammar::SchemaGrammarType, true);
    build_content_models(*pool);
    pool->lockPool();
    return pool;
}

// Compiling the schema costs more than reading a typical manifest, so it is
// done by the first serializer of the process; a failed compile is retried
// by the next one.
XMLGrammarPool* manifest_grammar() {
    static const std::unique_ptr<XMLGrammarPool> pool = compile_schema();
    return pool.get();
}

}  // namespace

AppManifestSerializer::AppManifestSerializer() {
    XMLGrammarPool* grammar = nullptr;
    try {
        grammar = manifest_grammar();
    } catch (const opc::model::InvalidXMLDocument&) {
        tsapp_builtins::tsapp_builtins::raise(
            tsapp_builtins::tsapp_builtins::TSAPP_BUILTINS_XML_READ_INTERNAL_ERROR());
    }
    parser_.reset(opc::model::XercesHelper::createParser(grammar));

    // Validation runs against the cached grammar only: the parser's refusal
    // to load schemas named by a document stays in force.
    DOMConfiguration* config = parser_->getDomConfig();
    config->setParameter(XMLUni::fgDOMValidate, true);
    config->setParameter(XMLUni::fgXercesUseCachedGrammarInParse, true);
    config->setParameter(XMLUni::fgXercesSchema, true);
    // The layout between elements is never read: the document keeps no
    // node for it (one per line of a manifest listing thousands of files).
    config->setParameter(XMLUni::fgDOMElementContentWhitespace, false);

    writer_.reset(opc::model::XercesHelper::createWriter());
    writer_->getDomConfig()->setParameter(XMLUni::fgDOMWRTFormatPrettyPrint, true);
}

AppManifestSerializer::~AppManifestSerializer() = default;
