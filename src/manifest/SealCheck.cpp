// Which canonical texts a manifest's seal may cover.

#include "manifest/SealCheck.hpp"

#include "manifest/CanonicalText.hpp"

#include "tsappinstall/platform/opc/Conversions.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

using namespace xercesc;
using boost::posix_time::ptime;
using opc::model::XercesHelper;
using opc::model::XercesPtr;
using opc::model::XercesString;

namespace manifest_seal {
namespace {

// Takes out the empty text nodes of elements written with an empty value:
// earlier releases built them without a child and sealed them as <x/>.
void dropEmptyTexts(DOMNode* node) {
    DOMNode* child = node->getFirstChild();
    while (child != nullptr) {
        DOMNode* next = child->getNextSibling();
        if (child->getNodeType() == DOMNode::TEXT_NODE && *child->getNodeValue() == 0)
            node->removeChild(child)->release();
        else
            dropEmptyTexts(child);
        child = next;
    }
}

// The document's seal is over its canonical text or, from earlier releases,
// over that text with the empty elements written <x/>; nothing else.
bool sealedInEitherForm(AppManifestSerializer& serializer, const std::string& key,
                        DOMDocument* document, const std::string& signature) {
    if (serializer.verifyDocument(key, document, signature)) return true;
    dropEmptyTexts(document);
    return serializer.verifyDocument(key, document, signature);
}

// True when mktime would not map the local creation time back to the
// document's instant: a wall-clock time of the hour that repeats when
// daylight-saving time ends, which mktime may place in the other pass.
bool localTimeIsAmbiguous(const ptime& local, const ptime& utc) {
    if (utc.is_special()) return false;
    const ptime whole(utc.date(), boost::posix_time::seconds(utc.time_of_day().total_seconds()));
    return convertLocalTimeToUTC(local) != whole;
}

}  // namespace

// When the local creation time is ambiguous, the record cannot say which
// instant was sealed; the document can, so its own UTC time is tried in the
// canonical text. That text then states exactly what the document says.
bool sealMatches(AppManifestSerializer& serializer, const AppManifest& manifest,
                 const ptime& created, const std::string& signature) {
    // The canonical text written straight from the record settles every
    // seal made in that form; the document is built only for the others.
    const std::optional<std::string> text = canonicalText(manifest);
    if (text && textSealed(manifest.GUID, *text, signature)) return true;
    const XercesPtr<DOMDocument> rebuilt(serializer.createDOMDocument(manifest));
    if (sealedInEitherForm(serializer, manifest.GUID, rebuilt.get(), signature)) return true;
    if (!localTimeIsAmbiguous(manifest.created, created)) return false;
    const XercesPtr<DOMDocument> stated(serializer.createDOMDocument(manifest));
    XercesHelper::setElementText(
        XercesHelper::getElement(stated->getDocumentElement(),
                                 XercesString(AppManifestSerializer::CREATED_ELEMENT)),
        opc::convertTimeToString(created));
    return sealedInEitherForm(serializer, manifest.GUID, stated.get(), signature);
}

}  // namespace manifest_seal
