#pragma once

// The fixed names of the packaging format, shared by the reader and the
// writer so that what one writes is what the other expects.

namespace opc::names {

#define TSAPP_OPC_CONTENT_TYPES_NS "http://schemas.openxmlformats.org/package/2006/content-types"
#define TSAPP_OPC_RELATIONSHIPS_NS "http://schemas.openxmlformats.org/package/2006/relationships"

inline constexpr char kContentTypesNamespace[] = TSAPP_OPC_CONTENT_TYPES_NS;
inline constexpr char kRelationshipsNamespace[] = TSAPP_OPC_RELATIONSHIPS_NS;
// The same two, in the character type the DOM reports them in.
inline constexpr char16_t kContentTypesNamespaceU16[] = u"" TSAPP_OPC_CONTENT_TYPES_NS;
inline constexpr char16_t kRelationshipsNamespaceU16[] = u"" TSAPP_OPC_RELATIONSHIPS_NS;

#undef TSAPP_OPC_CONTENT_TYPES_NS
#undef TSAPP_OPC_RELATIONSHIPS_NS

inline constexpr char kRelationshipsContentType[] =
    "application/vnd.openxmlformats-package.relationships+xml";
inline constexpr char kPackageRelationshipsPart[] = "/_rels/.rels";

}  // namespace opc::names
