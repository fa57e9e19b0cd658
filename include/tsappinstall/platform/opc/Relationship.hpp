#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/platform/opc/URI.hpp"

namespace opc::model {

enum class TargetMode { Internal, External };

class TSAPP_API Relationship {
  public:
    // `target` is the Target attribute as written; `sourceBase` the absolute
    // path internal targets are resolved against ("/" for the package).
    Relationship(std::u16string id, std::u16string type, std::u16string target, TargetMode mode,
                 const std::u16string& sourceBase);

    const std::u16string& getId() const { return id_; }
    const std::u16string& getType() const { return type_; }
    TargetMode getTargetMode() const { return mode_; }
    // The Target attribute exactly as the relationships part holds it.
    const std::u16string& getTarget() const { return target_; }
    // Internal: the target resolved against the source ("manifest.xml",
    // "/manifest.xml" and "./x/../manifest.xml" from the package root all give
    // "/manifest.xml"). External: the target as written, marked external.
    const URI& getTargetURI() const { return targetUri_; }

  private:
    std::u16string id_;
    std::u16string type_;
    std::u16string target_;
    TargetMode mode_;
    URI targetUri_;
};

// Anything that owns relationships: the package itself, for its package
// relationships (the part /_rels/.rels).
class TSAPP_API RelationshipSource {
  public:
    virtual ~RelationshipSource();
    // The relationships whose Type equals `type` exactly (code unit by code
    // unit), in the order of the relationships part.
    virtual std::vector<Relationship> getRelationshipsByType(const std::u16string& type) const = 0;
    // Every relationship, in the order of the relationships part.
    virtual const std::vector<Relationship>& getRelationships() const = 0;
};

}  // namespace opc::model
