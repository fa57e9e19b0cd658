#include "tsappinstall/platform/opc/Relationship.hpp"

namespace opc::model {

Relationship::Relationship(std::u16string id, std::u16string type, std::u16string target,
                           TargetMode mode, const std::u16string& sourceBase)
    : id_(std::move(id)),
      type_(std::move(type)),
      target_(std::move(target)),
      mode_(mode),
      targetUri_(mode == TargetMode::External ? URI(target_, true)
                                              : URI::resolve(sourceBase, target_)) {}

RelationshipSource::~RelationshipSource() = default;

}  // namespace opc::model
