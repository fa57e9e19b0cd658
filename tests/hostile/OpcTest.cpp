// Packages whose ZIP container is sound but whose OPC content misleads:
// colliding part names and relationships that point where they should not.

#include "hostile/HostileFixture.hpp"

namespace tsapp::test {
namespace {

using namespace Corvane::addons::apps;

class Opc : public Hostile {
  protected:
    // A package that opens but whose manifest relationship leads nowhere
    // readable: getAppInfo raises the internal error, extraction is not
    // concerned.
    void expectManifestUnreachable(const PackageBuilder& builder) {
        builder.write(pkg());
        EXPECT_TRUE(facade.isAppFile(u16(pkg())));
        EXPECT_EQ(appInfoError(pkg()), internal_error_text());
        EXPECT_EQ(extractError(pkg()), "");
    }
    // The icon relationship's target is no part: false and the internal
    // error printed, the output file untouched.
    void expectIconUnreachable(const std::string& target) {
        SCOPED_TRACE(target);
        app_package(target).write(pkg());
        std::string printed;
        EXPECT_FALSE(extractPart(pkg(), printed));
        EXPECT_EQ(printed, internal_error_text());
        EXPECT_EQ(read_file(iconOut()), "an older icon");
    }
};

TEST_F(Opc, DuplicateAndCaseVariantPartNamesNeverOpen) {
    for (const char* twin :
         {"MANIFEST.XML", "Manifest.xml", "images/ICON.png", "IMAGES/icon.png", "%6Danifest.xml"}) {
        app_package().part(twin, "twin").write(pkg());
        expectRefusedEverywhere(pkg(), twin);
    }
    // Byte-identical names cannot be written through libzip: rename one.
    app_package().part("images/twin.png", "x", false).write(pkg());
    ZipPatcher z(pkg());
    for (std::size_t at : {z.centralHeader("images/twin.png"), z.localHeader("images/twin.png")}) {
        const std::size_t name = at + (z.get32(at) == 0x02014b50 ? 46 : 30);
        z.bytes().replace(name, 15, "images/icon.png");
    }
    z.save();
    expectRefusedEverywhere(pkg(), "byte-identical");
}

TEST_F(Opc, APartNamedLikeAnotherPartsFolderNeverOpens) {
    app_package().part("images", "a part where a folder is").write(pkg());
    expectRefusedEverywhere(pkg(), "/images");
    app_package().part("Images", "a part where a folder is").write(pkg());
    expectRefusedEverywhere(pkg(), "/Images");
    // A name that merely begins like another is no folder of it.
    app_package().part("images/icon.png.png", "twin").write(pkg());
    EXPECT_TRUE(facade.isAppFile(u16(pkg())));
    EXPECT_EQ(extractError(pkg()), "");
    EXPECT_EQ(read_file(dest() + "/images/icon.png.png"), "twin");
    EXPECT_EQ(read_file(dest() + "/images/icon.png"), icon_bytes());
}

TEST_F(Opc, RelationshipTargetsNeverClimbAboveThePackageRoot) {
    for (const char* target : {"..", "../", "/..", "../.."}) expectIconUnreachable(target);
    // Extra ".." segments stop at the root, which holds the real icon.
    app_package("../../../images/icon.png").write(pkg());
    std::string printed;
    EXPECT_TRUE(extractPart(pkg(), printed));
    EXPECT_EQ(read_file(iconOut()), icon_bytes());
}

TEST_F(Opc, TargetsThatAreNoPartsPrintTheInternalError) {
    for (const char* target :
         {"/[Content_Types].xml", "[Content_Types].xml", "/missing.png", "/images", "/images/",
          "http://example.com/icon.png", "file:///etc/passwd", "//host/icon.png",
          "images/icon.png#frag", "images/icon.png?q", "images/icon%2Epng"}) {
        expectIconUnreachable(target);
    }
}

TEST_F(Opc, ManifestRelationshipsThatLeadNowhereRaiseTheInternalError) {
    const auto manifestTo = [](const std::string& target, const std::string& mode = "") {
        return PackageBuilder()
            .part("manifest.xml", kManifestXml)
            .relationship("m", APP_PROPERTIES_RELATIONSHIP_TYPE, target, mode);
    };
    expectManifestUnreachable(manifestTo("/manifest.xml", "External"));
    expectManifestUnreachable(manifestTo("file:///etc/passwd", "External"));
    expectManifestUnreachable(manifestTo(".."));
    expectManifestUnreachable(manifestTo("/missing.xml"));
    expectManifestUnreachable(manifestTo("/[Content_Types].xml"));
    // The relationships part itself is a part: readable, but no manifest.
    expectManifestUnreachable(manifestTo("/_rels/.rels"));
}

}  // namespace
}  // namespace tsapp::test
