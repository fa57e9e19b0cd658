#pragma once

// The package model over a container: parts with their content types, and
// the package relationships.

#include <memory>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/platform/opc/IPhysicalPackage.hpp"
#include "tsappinstall/platform/opc/Part.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"
#include "tsappinstall/platform/opc/Relationship.hpp"

namespace opc::model {

// open() reads "[Content_Types].xml" (required: without it the container is
// not a package) and "/_rels/.rels" (optional: no package relationships),
// both with the hardened XML parser, and checks every entry:
//  - each item except "[Content_Types].xml" and folder entries is a part;
//    its name must be a valid part name (see PartName);
//  - no two part names are equivalent, and none lies below another ("/a"
//    beside "/a/b");
//  - every part has a content type (Override first, then Default by
//    extension, both compared ignoring ASCII case);
//  - an interleaved part, stored as the items "a.xml/[0].piece" ...
//    "a.xml/[n].last.piece" (any case), is the one part "/a.xml", its
//    content type that of "/a.xml": the numbers run from 0 without a gap or
//    a leading zero, only the highest is ".last.piece", and no other item
//    is named "a.xml"; each piece's size and CRC-32 are checked as it is
//    read ("[Content_Types].xml" itself is never read in pieces);
//  - "/_rels/.rels" has the relationships content type (media types
//    compare ignoring the case of type, subtype and parameter names);
//  - relationship Ids are unique, Type and Target present, TargetMode
//    "Internal" (the default) or "External".
// Everything fails with opc::Exception. Opening reads the two XML parts and
// no other part's data.
class TSAPP_API Package : public RelationshipSource {
  public:
    explicit Package(opc::interfaces::IPhysicalPackage& container);
    ~Package() override;
    Package(const Package&) = delete;
    Package& operator=(const Package&) = delete;

    // Only OpenMode::Read (0) exists; any other value throws opc::Exception.
    void open(opc::interfaces::OpenMode mode);
    // Closes the container. The package and its parts are unusable after.
    void close();

    // Throws opc::Exception when no part has that name (or an equivalent).
    Part getPart(const PartName& name) const;
    bool containsPart(const PartName& name) const;
    // Every part, in the container's order.
    std::vector<PartName> getPartNames() const;

    std::vector<Relationship> getRelationshipsByType(const std::u16string& type) const override;
    const std::vector<Relationship>& getRelationships() const override;

    // The entry of "[Content_Types].xml" (whatever the case of its name),
    // an item of the container but not a part; its bytes are pinned.
    const opc::interfaces::PhysicalEntry& getContentTypesEntry() const;

    // The container, for readers of items that are not parts ("[Content_Types].xml").
    opc::interfaces::IPhysicalPackage& getPhysicalPackage() const { return container_; }

  private:
    struct State;
    const State& openState() const;

    opc::interfaces::IPhysicalPackage& container_;
    std::unique_ptr<State> state_;
};

// The relationships of one part, read from its relationships part
// ("/dir/_rels/name.rels") with the parser and the checks open() gives the
// package's own: what a reader listing them needs, since a Package keeps
// only the package relationships. `partName` is that part's name, for
// failures; internal targets are resolved against `sourceBase`, the folder
// of the part they belong to ("/dir/"). Throws opc::Exception.
TSAPP_API std::vector<Relationship> readPartRelationships(InputStream& stream,
                                                          const std::u16string& partName,
                                                          const std::u16string& sourceBase);

}  // namespace opc::model
