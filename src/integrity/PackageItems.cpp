#include "PackageItems.hpp"

#include <algorithm>

#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace tsappinstall::integrity::detail {

using opc::model::PartName;

std::vector<PartName> targetsOf(const opc::model::Package& package, const char* type) {
    std::vector<PartName> targets;
    for (const auto& relationship : package.getRelationshipsByType(fl::i18n::to_ustring(type))) {
        if (relationship.getTargetMode() == opc::model::TargetMode::Internal)
            targets.emplace_back(relationship.getTargetURI());
    }
    return targets;
}

std::vector<PartName> integrityParts(const opc::model::Package& package) {
    std::vector<PartName> parts = targetsOf(package, DIGESTS_RELATIONSHIP_TYPE);
    const std::vector<PartName> signatures = targetsOf(package, SIGNATURE_RELATIONSHIP_TYPE);
    parts.insert(parts.end(), signatures.begin(), signatures.end());
    return parts;
}

void visitContentTypes(opc::model::Package& package, const ItemVisitor& visit) {
    const auto& entry = package.getContentTypesEntry();
    visit(entry.name, *package.getPhysicalPackage().openEntry(entry.index));
}

void forEachItem(opc::model::Package& package, const std::vector<PartName>& excluded,
                 const ItemVisitor& visit) {
    visitContentTypes(package, visit);
    for (const PartName& name : package.getPartNames()) {
        if (std::find(excluded.begin(), excluded.end(), name) != excluded.end()) continue;
        opc::model::Part part = package.getPart(name);
        visit(name.ascii(), part.getInputStream());
    }
}

void readItem(const std::string& item, opc::InputStream& in, DigestCheck* check,
              std::vector<unsigned char>& buffer) {
    if (check) check->begin(item);
    try {
        for (std::size_t n; (n = in.read(buffer.data(), buffer.size())) != 0;)
            if (check) check->update(buffer.data(), n);
    } catch (const opc::Exception& e) {
        if (check) check->abandon(e.what());
        throw;
    }
    if (check) check->end();
}

}  // namespace tsappinstall::integrity::detail
