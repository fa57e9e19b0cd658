#pragma once

// Hostile packages through the facade: every call gives its exact refusal,
// and the folder holding the package, the output file and the destination
// is afterwards byte for byte what it was.

#include <gtest/gtest.h>

#include <string>

#include "facade/FacadeFixture.hpp"
#include "support/TestSupport.hpp"
#include "support/TreeSnapshot.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

namespace tsapp::test {

class Hostile : public ::testing::Test {
  protected:
    Hostile();

    std::string pkg() const { return dir.file("app.tsappinstall"); }
    std::string dest() const { return dir.file("dest"); }
    std::string iconOut() const { return dir.file("icon.out"); }

    // What the calls say: "" when getAppInfo/extractAppFile return normally.
    std::string appInfoError(const std::string& package);
    std::string extractError(const std::string& package);
    // extractAppIcon's result, and what it printed in `printed`.
    bool extractIcon(const std::string& package, std::string& printed);

    static std::string internalErrorText();
    std::string extractionErrorText(const std::string& package) const;

    // The package does not open: isAppFile is false, getAppInfo raises the
    // internal error, extractAppIcon prints it and answers false, and
    // extractAppFile raises the extraction error; nothing changes anywhere.
    void expectRefusedEverywhere(const std::string& package, const std::string& label = "");
    // The package opens, but extracting it fails and changes nothing.
    void expectOpensButExtractionRefused(const std::string& package, const std::string& label = "");

    TempDir dir;
    Corvane::addons::apps::Tsappinstall facade;
};

// A ZIP local header with no extra field, followed by `data`, stored.
std::string stored_local_entry(const std::string& name, const std::string& data);

// The little-endian form of `value` in `bytes` bytes.
std::string little_endian(std::uint64_t value, int bytes);

}  // namespace tsapp::test
