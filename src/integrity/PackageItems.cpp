#include "PackageItems.hpp"

#include "PackageIntegrity.hpp"

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

bool DigestSink::begin(const std::string& item, opc::model::Part* part, std::size_t order) {
    if (part != nullptr && (contentTypesOnly_ || std::find(skipped_.begin(), skipped_.end(),
                                                           part->getPartName()) != skipped_.end()))
        return false;
    item_.emplace(check_, item, order);
    return true;
}

void DigestSink::update(const unsigned char* data, std::size_t size) {
    item_->update(data, size);
}

void DigestSink::end() {
    item_->end();
    item_.reset();
}

void DigestSink::fail(const opc::Exception& error) {
    item_->abandon(error.what());
    item_.reset();
}

}  // namespace tsappinstall::integrity::detail

namespace tsappinstall::integrity {

using opc::model::PartName;

std::vector<PartName> integrityParts(const opc::model::Package& package) {
    std::vector<PartName> parts = detail::targetsOf(package, DIGESTS_RELATIONSHIP_TYPE);
    const std::vector<PartName> signatures =
        detail::targetsOf(package, SIGNATURE_RELATIONSHIP_TYPE);
    parts.insert(parts.end(), signatures.begin(), signatures.end());
    return parts;
}

bool listsDigests(const opc::model::Package& package) {
    return !detail::targetsOf(package, DIGESTS_RELATIONSHIP_TYPE).empty();
}

}  // namespace tsappinstall::integrity
