// tsapp verify: per package a verdict line, then every fault indented:
//
//   a.tsappinstall: OK, signed by CN=Jane Doe,O=Example
//   b.tsappinstall: BAD, signed by CN=Jane Doe,O=Example
//     digest-mismatch /files/app.js: SHA-256 is ..., the list says ...

#include <iostream>

#include "Commands.hpp"
#include "tsappinstall/integrity/Verify.hpp"

namespace tsapp::tool {

using namespace tsappinstall::integrity;

int runVerify(const std::vector<std::string>& packages, const std::vector<std::string>& trust,
              bool allowUnsigned) {
    const VerificationPolicy policy{trust, !allowUnsigned};
    int status = kGood;
    for (const std::string& path : packages) {
        const VerificationReport report = verifyPackage(path, policy);
        std::cout << path << ": " << (report.ok() ? "OK" : "BAD");
        const bool unreadable =
            !report.ok() && report.faults.front().kind == FaultKind::UnreadablePackage;
        if (!report.signer.empty())
            std::cout << ", signed by " << report.signer;
        else if (!report.isSigned && !unreadable)
            std::cout << ", unsigned";
        std::cout << '\n';
        for (const Fault& fault : report.faults) {
            std::cout << "  " << faultKindName(fault.kind)
                      << (fault.partName.empty() ? "" : " " + fault.partName) << ": "
                      << fault.detail << '\n';
        }
        if (!report.ok()) status = kBad;
    }
    return status;
}

}  // namespace tsapp::tool
