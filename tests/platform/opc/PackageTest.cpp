#include <fcntl.h>

#include "platform/base/UniqueFd.hpp"
#include "support/PackageBuilder.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"
#include "tsappinstall/platform/opc/URI.hpp"

using opc::model::OpenedPackage;
using opc::model::Package;
using opc::model::PartName;
using opc::model::TargetMode;
using opc::model::URI;
using namespace tsapp::test;

namespace {

// Opening the package fails with an opc::Exception (or one derived from
// it) naming `reason`, and no descriptor stays open.
void expect_refused(const PackageBuilder& builder, const std::string& reason) {
    TempDir dir;
    builder.write(dir.file("p.zip"));
    const int before = open_descriptor_count();
    EXPECT_NE(error_of<opc::Exception>([&] { OpenedPackage(dir.ufile("p.zip")); }).find(reason),
              std::string::npos)
        << reason;
    EXPECT_EQ(open_descriptor_count(), before);
}

}  // namespace

TEST(Package, ReadsPartsContentTypesAndRelationshipsInOrder) {
    TempDir dir;
    PackageBuilder()
        .part("manifest.xml", "<m/>")
        .part("img/icon.PNG", "\x89PNG", false)
        .part("bin/run", "#!")
        .part("lib/", "")  // a folder entry is not a part
        .overrideType("/BIN/RUN", "application/x-run; v=&quot;1 2&quot;")
        .relationship("r2", "urn:b", "img/icon.PNG")
        .relationship("r1", "urn:a", "/manifest.xml")
        .relationship("r3", "urn:b", "./x/../bin/run")
        .relationship("r4", "urn:b", "http://example.com/", "External")
        .write(dir.file("p.zip"));
    OpenedPackage opened(dir.ufile("p.zip"));
    Package& package = opened.package();

    const auto names = package.getPartNames();
    ASSERT_EQ(names.size(), 4u);
    EXPECT_EQ(names[0].ascii(), "/_rels/.rels");
    EXPECT_EQ(names[2].ascii(), "/img/icon.PNG");
    EXPECT_EQ(package.getPart(PartName(u"/IMG/icon.png")).getContentType(), "image/png");
    EXPECT_EQ(package.getPart(PartName(u"/bin/run")).getContentType(),
              "application/x-run; v=\"1 2\"");
    EXPECT_EQ(package.getPart(PartName(u"/_rels/.rels")).getContentType(),
              kRelationshipsContentType);
    EXPECT_FALSE(package.containsPart(PartName(u"/lib")));
    EXPECT_THROW(package.getPart(PartName(u"/nothing.xml")), opc::Exception);

    const auto byType = package.getRelationshipsByType(u"urn:b");
    ASSERT_EQ(byType.size(), 3u);
    EXPECT_EQ(byType[0].getId(), u"r2");
    EXPECT_EQ(byType[1].getTargetURI().toString(), u"/bin/run");
    EXPECT_EQ(byType[2].getTargetMode(), TargetMode::External);

    auto part = package.getPart(PartName(byType[0].getTargetURI()));
    EXPECT_EQ(read_all(part.getInputStream()), "\x89PNG");
    EXPECT_EQ(read_all(part.getInputStream()), "\x89PNG");  // a fresh stream each time
    EXPECT_EQ(part.getEntry().compressionMethod, 0);
    package.close();
    EXPECT_THROW(package.getPartNames(), opc::Exception);
}

// A reader that opens the path a second time (to hash the file, say) must
// see a file swapped in between by rename, and only that.
TEST(Package, TellsWhetherAnotherDescriptorOpensTheSameFile) {
    TempDir dir;
    PackageBuilder().part("manifest.xml", "<m/>").write(dir.file("p.zip"));
    OpenedPackage opened(dir.ufile("p.zip"));
    const opc::detail::UniqueFd before(::open(dir.file("p.zip").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(opened.reads(before.get()));
    std::filesystem::copy_file(dir.file("p.zip"), dir.file("copy.zip"));
    std::filesystem::rename(dir.file("copy.zip"), dir.file("p.zip"));  // the same bytes
    const opc::detail::UniqueFd after(::open(dir.file("p.zip").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(opened.reads(after.get()));
    EXPECT_TRUE(opened.reads(before.get()));
    opened.close();
    EXPECT_FALSE(opened.reads(before.get()));
}

TEST(Package, RefusesBadPartNamesContentTypesAndRelationships) {
    expect_refused(PackageBuilder().withoutContentTypes().part("a.xml", "<a/>"),
                   "[Content_Types].xml\" is missing");
    expect_refused(PackageBuilder().part("[content_types].XML", "<x/>"), "twice");
    expect_refused(PackageBuilder().part("data.bin", "x"),
                   "the part \"/data.bin\" has no content type");
    expect_refused(PackageBuilder().part("noext", "x"), "the part \"/noext\" has no content type");
    for (const char* bad : {"text", "text/", "/plain", "text /plain", "text/plain;",
                            "text/plain; a = b", " text/plain", "text/plain; q=&quot;open"}) {
        expect_refused(PackageBuilder().defaultType("bin", bad).part("d.bin", "x"),
                       "is not a valid content type");
    }
    expect_refused(PackageBuilder().defaultType("XML", "text/xml"),
                   "names the extension \"XML\" twice");
    expect_refused(
        PackageBuilder().overrideType("/a.xml", "text/xml").overrideType("/A.xml", "text/xml"),
        "names the part");
    expect_refused(PackageBuilder().overrideType("a.xml", "text/xml"), "does not start with");
    expect_refused(PackageBuilder().contentTypesXml("<Types xmlns='urn:other'/>"),
                   "has no Types element");
    expect_refused(PackageBuilder().contentTypesXml("<Types"), "[Content_Types].xml");
    const std::string ns = "xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\"";
    expect_refused(
        PackageBuilder().relationship("r1", "urn:a", "a.xml").relationship("r1", "urn:b", "b.xml"),
        "used twice");
    expect_refused(PackageBuilder().relationship("r1", "urn:a", "a.xml", "Elsewhere"),
                   "TargetMode");
    expect_refused(PackageBuilder().relationshipsXml("<Relationships " + ns +
                                                     "><Relationship Id='a' Type='t'/>"
                                                     "</Relationships>"),
                   "lacks its Target attribute");
    expect_refused(
        PackageBuilder().relationshipsXml("<Relationships " + ns + "><Other/></Relationships>"),
        "other than Relationship");
    expect_refused(PackageBuilder().relationshipsXml("<Relationships/>"),
                   "has no Relationships element");
}

TEST(PartName, AcceptsTheSegmentGrammar) {
    for (const char16_t* good : {u"/a", u"/_rels/.rels", u"/a/b.c/d", u"/%C3%BC", u"/a~b-c_d",
                                 u"/x!$&'()*+,;=:@", u"/%20", u"/a/%25.x"}) {
        EXPECT_NO_THROW(PartName{std::u16string(good)});
    }
}

// Dot segments, empty segments and encoded separators are the hostile
// path tests' rows (OpcTest.cpp); these are the remaining rules.
TEST(PartName, RefusesWhatTheGrammarForbids) {
    const std::pair<const char16_t*, const char*> cases[] = {
        {u"", "empty"},
        {u"a", "does not start"},
        {u"/", "ends with"},
        {u"/a/", "ends with"},
        {u"/a.", "ends with a dot"},
        {u"/%41", "unreserved"},
        {u"/%zz", "percent-encoded octet"},
        {u"/a%2", "percent-encoded octet"},
        {u"/a b", "character ' '"},
        {u"/[Content_Types].xml", "character '['"},
        {u"/a?b", "character '?'"},
        {u"/a#b", "character '#'"},
    };
    for (const auto& [name, reason] : cases) {
        EXPECT_NE(error_of<opc::Exception>([&] { PartName{std::u16string(name)}; }).find(reason),
                  std::string::npos)
            << reason;
    }
}

TEST(PartName, EquivalenceIgnoresAsciiCaseOnly) {
    EXPECT_EQ(PartName(u"/Icons/App.PNG"), PartName(u"/icons/app.png"));
    EXPECT_EQ(PartName(u"/%c3%bc"), PartName(u"/%C3%BC"));
    EXPECT_EQ(PartName(u"/\u00fc"), PartName(u"/%C3%BC"));  // non-ASCII is its encoded UTF-8
    EXPECT_NE(PartName(u"/\u00dc"), PartName(u"/\u00fc"));  // no Unicode case folding
    EXPECT_EQ(PartName(u"/\u00fc").ascii(), "/%C3%BC");
    EXPECT_TRUE(PartName(u"/a").isPrefixOf(PartName(u"/A/b")));
    EXPECT_FALSE(PartName(u"/a").isPrefixOf(PartName(u"/ab")));
    EXPECT_EQ(PartName(u"/a/b.tar.GZ").extension(), "GZ");
    EXPECT_EQ(PartName(u"/a.b/c").extension(), "");
    EXPECT_EQ(PartName::fromZipItemName("lib/x.js").ascii(), "/lib/x.js");
    EXPECT_THROW(PartName::fromZipItemName("/lib/x.js"), opc::Exception);
}

TEST(URI, InternalTargetsResolveAgainstTheSourceWithoutClimbingAboveTheRoot) {
    const std::pair<const char16_t*, const char16_t*> fromRoot[] = {
        {u"manifest.xml", u"/manifest.xml"},
        {u"/manifest.xml", u"/manifest.xml"},
        {u"./x/../manifest.xml", u"/manifest.xml"},
        {u"a/./b/../c.png", u"/a/c.png"},
        {u"a/..", u"/"},
        {u"", u"/"},
        {u"x.xml#frag", u"/x.xml#frag"},
    };
    for (const auto& [target, resolved] : fromRoot) {
        EXPECT_EQ(URI::resolve(u"/", target).toString(), resolved);
    }
    EXPECT_EQ(URI::resolve(u"/word/document.xml", u"media/i.png").toString(), u"/word/media/i.png");
    EXPECT_EQ(URI::resolve(u"/word/document.xml", u"../i.png").toString(), u"/i.png");
    EXPECT_EQ(URI::resolve(u"/", u"http://example.com/a/../b").toString(),
              u"http://example.com/a/../b");
}
