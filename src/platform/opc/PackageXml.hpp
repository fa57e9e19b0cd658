#pragma once

// The two XML parts every package reader needs: the content types stream
// and a relationships part.

#include <string>
#include <unordered_map>
#include <vector>

#include <xercesc/dom/DOMLSParser.hpp>

#include "tsappinstall/platform/opc/PartName.hpp"
#include "tsappinstall/platform/opc/Relationship.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace opc::model::detail {

class ContentTypes {
  public:
    // Override for the part's name, else Default for its extension (both
    // compared ignoring ASCII case); null when neither exists.
    const std::string* find(const PartName& name) const;

    void addDefault(const std::string& extension, std::string contentType);
    void addOverride(const PartName& name, std::string contentType);

  private:
    std::unordered_map<std::string, std::string> defaults_;   // lower-case extension
    std::unordered_map<std::string, std::string> overrides_;  // PartName::key()
};

// Parse with `parser` (made by XercesHelper::createParser, so hardened;
// the documents stay in its pool) and check "[Content_Types].xml" / a
// relationships part. Throw opc::Exception (InvalidXMLDocument for XML that
// does not parse, a DOCTYPE included).
ContentTypes readContentTypes(xercesc::DOMLSParser* parser, InputStream& stream);
std::vector<Relationship> readRelationships(xercesc::DOMLSParser* parser, InputStream& stream,
                                            const std::u16string& partName,
                                            const std::u16string& sourceBase);

// Whether `text` is a media type as content types must be written:
// type "/" subtype, then ";" parameters, no white space around "/" or "=".
bool isValidMediaType(const std::string& text);

// Whether two valid media types are the same: type, subtype and parameter
// names compare ignoring ASCII case, parameter values exactly (a value's
// case can matter to its parameter), in the order written; white space
// before ";" and after it does not count. False when either is invalid.
bool sameMediaType(const std::string& a, const std::string& b);

}  // namespace opc::model::detail
