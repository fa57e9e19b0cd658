#pragma once

// Walking the items a digest list covers in an open package.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/opc/ItemLoop.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/platform/opc/Package.hpp"

namespace tsappinstall::integrity::detail {

// The internal targets of the package relationships of `type`.
std::vector<opc::model::PartName> targetsOf(const opc::model::Package& package, const char* type);

// Feeds the items a digest list covers to `check` as the read of the
// package pours them: "[Content_Types].xml" and every part but those in
// `skipped` (the integrity parts), or with `contentTypesOnly` that item
// alone. An item that cannot be read is abandoned in `check`, which
// records it as a fault of its own. One per thread of the read.
class DigestSink : public opc::model::ItemSink {
  public:
    DigestSink(DigestCheck& check, std::vector<opc::model::PartName> skipped,
               bool contentTypesOnly = false)
        : check_(check), skipped_(std::move(skipped)), contentTypesOnly_(contentTypesOnly) {}

    bool begin(const std::string& item, opc::model::Part* part, std::size_t order) override;
    void update(const unsigned char* data, std::size_t size) override;
    void end() override;
    void fail(const opc::Exception& error) override;

  private:
    DigestCheck& check_;
    std::vector<opc::model::PartName> skipped_;
    bool contentTypesOnly_;
    std::optional<DigestCheck::Item> item_;
};

}  // namespace tsappinstall::integrity::detail
