#pragma once

// Hostile packages through the facade: every call gives its exact refusal,
// and the folder holding the package, the output file and the destination
// is afterwards byte for byte what it was.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "facade/FacadeFixture.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

namespace tsapp::test {

class Hostile : public ::testing::Test {
  protected:
    // The destination already holds a file of its own: a refused extraction
    // must leave it, and add nothing beside it.
    Hostile() {
        std::filesystem::create_directories(dest() + "/files");
        write_file(dest() + "/files/own.txt", "the caller's own file");
        write_file(iconOut(), "an older icon");
    }

    std::string pkg() const { return dir.file("app.tsappinstall"); }
    std::string dest() const { return dir.file("dest"); }
    std::string iconOut() const { return dir.file("icon.out"); }

    // What the calls say: "" when getAppInfo/extractAppFile return normally.
    std::string appInfoError(const std::string& package) {
        return error_of([&] { facade.getAppInfo(u16(package)); });
    }
    std::string extractError(const std::string& package) {
        return error_of([&] { facade.extractAppFile(u16(package), u16(dest())); });
    }
    // extractPartContentFromTessalApp's result; what it printed goes to `printed`.
    bool extractPart(
        const std::string& package, std::string& printed,
        const std::string& type = Corvane::addons::apps::PRIMARY_ICON_RELATIONSHIP_TYPE) {
        CerrCapture err;
        const bool copied =
            facade.extractPartContentFromTessalApp(u16(package), u16(type), u16(iconOut()));
        printed = err.text();
        return copied;
    }

    // The package does not open: isAppFile is false, getAppInfo raises the
    // internal error, extracting the icon prints it and answers false, and
    // extractAppFile raises the extraction error; nothing changes anywhere.
    void expectRefusedEverywhere(const std::string& package, const std::string& label = "") {
        SCOPED_TRACE(label);
        EXPECT_FALSE(facade.isAppFile(u16(package)));
        expectReadsRefused(package);
    }
    // The package opens, but reading any of its parts fails.
    void expectReadsRefused(
        const std::string& package,
        const std::string& type = Corvane::addons::apps::PRIMARY_ICON_RELATIONSHIP_TYPE) {
        const auto before = snapshot_tree(dir.path());
        EXPECT_EQ(appInfoError(package), internal_error_text());
        std::string printed;
        EXPECT_FALSE(extractPart(package, printed, type));
        EXPECT_EQ(printed, internal_error_text());
        EXPECT_EQ(extractError(package), extraction_error_text(package, dest()));
        EXPECT_TRUE(snapshot_tree(dir.path()) == before) << "the folder changed";
    }
    // The package opens, but extracting it fails and changes nothing.
    void expectOpensButExtractionRefused(const std::string& package,
                                         const std::string& label = "") {
        SCOPED_TRACE(label);
        const auto before = snapshot_tree(dir.path());
        EXPECT_TRUE(facade.isAppFile(u16(package)));
        EXPECT_EQ(extractError(package), extraction_error_text(package, dest()));
        EXPECT_TRUE(snapshot_tree(dir.path()) == before) << "the folder changed";
    }

    TempDir dir;
    Corvane::addons::apps::Tsappinstall facade;
};

}  // namespace tsapp::test
