#pragma once

// App packages for the tests, packed from a source folder by the library's
// own pack planning and writing, as `tsapp pack` packs them, at one fixed
// time, so that a folder always packs to the same bytes.

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/pack/PackPlan.hpp"

namespace tsapp::test {

// The plan for the folder `source`; each problem fails the test.
inline tsappinstall::pack::PackPlan packPlan(const std::string& source, const std::string& output,
                                             const std::string& guid = "") {
    tsappinstall::pack::PackRequest request;
    request.source = source;
    request.output = output;
    request.guid = guid;
    request.when = 1700000000;
    tsappinstall::pack::PackPlan plan;
    for (const auto& problem : tsappinstall::pack::planPack(request, plan))
        ADD_FAILURE() << source << ": " << problem;
    return plan;
}

// Writes the plan's package, signed with SIGNER.key and SIGNER.pem when
// `signer` is given, carrying the key rotation proofs `keyRotations` (PEM).
inline void writePlan(const tsappinstall::pack::PackPlan& plan, const std::string& signer = "",
                      const std::string& keyRotations = "") {
    std::optional<tsappinstall::integrity::Signer> key;
    if (!signer.empty()) key.emplace(signer + ".key", signer + ".pem");
    tsappinstall::pack::PackWriting writing;
    writing.signer = key ? &*key : nullptr;
    writing.keyRotations = keyRotations;
    tsappinstall::pack::writePack(plan, plan.output, writing);
}

inline void packFolder(const std::string& source, const std::string& output,
                       const std::string& guid = "", const std::string& signer = "",
                       const std::string& keyRotations = "") {
    writePlan(packPlan(source, output, guid), signer, keyRotations);
}

}  // namespace tsapp::test
