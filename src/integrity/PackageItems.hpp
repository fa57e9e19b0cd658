#pragma once

// Walking the items a digest list covers in an open package.

#include <functional>
#include <string>
#include <vector>

#include "tsappinstall/platform/opc/Package.hpp"

namespace tsappinstall::integrity {
class DigestCheck;
}

namespace tsappinstall::integrity::detail {

// The internal targets of the package relationships of `type`.
std::vector<opc::model::PartName> targetsOf(const opc::model::Package& package, const char* type);

using ItemVisitor = std::function<void(const std::string& item, opc::InputStream& bytes)>;

// Calls `visit` with a stream of the bytes of [Content_Types].xml (named by
// its ZIP item name), then of every part not in `excluded` (by part name).
// These are the names DigestCheck takes.
void forEachItem(opc::model::Package& package, const std::vector<opc::model::PartName>& excluded,
                 const ItemVisitor& visit);

// [Content_Types].xml alone: it is an item of the container, not a part.
void visitContentTypes(opc::model::Package& package, const ItemVisitor& visit);

// Reads `in` to its end, so that its size and CRC-32 are checked, feeding
// it to `check` as `item` when given. A read failure abandons the item in
// `check` and is rethrown.
void readItem(const std::string& item, opc::InputStream& in, DigestCheck* check,
              std::vector<unsigned char>& buffer);

// The digest and signature parts: never themselves covered.
std::vector<opc::model::PartName> integrityParts(const opc::model::Package& package);

}  // namespace tsappinstall::integrity::detail
