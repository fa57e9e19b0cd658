// Digests and signatures: keys made at test time, packages tampered with.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zip.h>

#include <functional>
#include <optional>

#include "support/PackageBuilder.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/platform/opc/Package.hpp"
#include "tsappinstall/platform/opc/PackageWriter.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace {

using namespace tsapp::test;
using namespace tsappinstall::integrity;
using Faults = std::vector<std::pair<FaultKind, std::string>>;

const std::string kSig = &SIGNATURE_PART_NAME[1], kList = &DIGESTS_PART_NAME[1];

int sh(const std::string& command) {
    return std::system(("(" + command + ") >/dev/null 2>&1").c_str());
}

// A CA with an RSA, a P-256 and an Ed25519 signer below it, and a rogue.
struct Keys {
    Keys() {
        std::string script = "cd " + dir.path() +
                             " && openssl req -x509 -newkey ed25519 -nodes -keyout ca.key -out "
                             "ca.pem -subj /CN=CA -days 2 && openssl req -x509 -newkey ed25519 "
                             "-nodes -keyout rogue.key -out rogue.pem -subj /CN=rogue -days 2";
        for (const char* type : {"RSA", "EC -pkeyopt ec_paramgen_curve:P-256", "ED25519"}) {
            const std::string t = std::string(type).substr(0, std::string(type).find(' '));
            script += " && openssl genpkey -algorithm " + std::string(type) + " -out " + t +
                      ".key && openssl req -x509 -key " + t +
                      ".key -CA ca.pem -CAkey ca.key -days 2 -subj /CN=" + t + " -out " + t +
                      ".pem";
        }
        EXPECT_EQ(sh(script), 0);
    }
    Signer signer(const std::string& t) const {
        return Signer(dir.file(t + ".key"), dir.file(t + ".pem"));
    }
    TempDir dir;
};
const Keys& keys() {
    static const Keys made;
    return made;
}

void writePackage(const std::string& path, const std::string& a, const Signer* signer) {
    opc::zippackage::PackageWriter writer(path);
    writer.addPart("files/a.txt", "text/plain", {a.begin(), a.end()});
    writer.addPart("files/b.txt", "text/plain", {'b'});
    writer.addDigests(signer);
    writer.commit();
}

// Replaces, adds (when missing) or without bytes removes one item.
void edit(const std::string& package, const std::string& name, std::optional<std::string> bytes) {
    zip_t* za = zip_open(package.c_str(), 0, nullptr);
    const zip_int64_t at = zip_name_locate(za, name.c_str(), 0);
    zip_source_t* s = bytes ? zip_source_buffer(za, bytes->data(), bytes->size(), 0) : nullptr;
    EXPECT_GE(!s       ? zip_delete(za, at)
              : at < 0 ? zip_file_add(za, name.c_str(), s, 0)
                       : zip_file_replace(za, at, s, 0),
              0);
    ASSERT_EQ(zip_close(za), 0);
}

Faults pairs(const std::vector<Fault>& faults) {
    Faults pairs;
    for (const Fault& f : faults) pairs.emplace_back(f.kind, f.partName);
    return pairs;
}

TEST(Integrity, TamperingFailsWithTheRightFault) {
    TempDir dir;
    const std::string pkg = dir.file("p.tsappinstall"), other = dir.file("o.tsappinstall");
    const Signer ec = keys().signer("EC"), rogue = keys().signer("rogue");
    const std::string sig = SIGNATURE_PART_NAME;
    struct Case {
        const char* name;
        std::function<void()> tamper;
        Faults expected;
    } cases[] = {
        {"changed part",
         [&] { edit(pkg, "files/a.txt", "A"); },
         {{FaultKind::DigestMismatch, "/files/a.txt"}}},
        {"removed part",
         [&] { edit(pkg, "files/b.txt", std::nullopt); },
         {{FaultKind::MissingItem, "/files/b.txt"}}},
        {"added part",
         [&] { edit(pkg, "files/c.txt", "c"); },
         {{FaultKind::UnlistedItem, "/files/c.txt"}}},
        {"parts trading places",
         [&] { edit(pkg, "files/a.txt", "b"), edit(pkg, "files/b.txt", "a"); },
         {{FaultKind::DigestMismatch, "/files/a.txt"},
          {FaultKind::DigestMismatch, "/files/b.txt"}}},
        {"swapped content types",
         [&] { edit(pkg, CONTENT_TYPES_ITEM, zip_item(other, CONTENT_TYPES_ITEM)); },
         {{FaultKind::DigestMismatch, CONTENT_TYPES_ITEM}}},
        {"untrusted signer",
         [&] { writePackage(pkg, "a", &rogue); },
         {{FaultKind::UntrustedSigner, sig}}},
        {"copied signature",
         [&] { edit(pkg, kSig, zip_item(other, kSig)); },
         {{FaultKind::SignatureMismatch, sig}}},
        {"truncated signature",
         [&] { edit(pkg, kSig, zip_item(pkg, kSig).substr(0, 300)); },
         {{FaultKind::MalformedSignature, sig}}},
        {"re-signed by another key",
         [&] {
             edit(pkg, "files/a.txt", "A");
             std::string list;
             {
                 opc::zippackage::ZipPhysicalPackage container(u16(pkg), true);
                 opc::model::Package package(container);
                 package.open(opc::interfaces::OpenMode::Read);
                 list = formatDigestList(computeDigests(package));
             }
             const std::vector<unsigned char> signature = rogue.sign(list);
             edit(pkg, kList, list),
                 edit(pkg, kSig, std::string(signature.begin(), signature.end()));
         },
         {{FaultKind::UntrustedSigner, sig}}},
        {"unsigned", [&] { writePackage(pkg, "a", nullptr); }, {{FaultKind::Unsigned, ""}}},
    };
    writePackage(other, "other", &ec);
    edit(other, "files/c.bin", "c");  // changes its content types
    edit(other, CONTENT_TYPES_ITEM,
         replaced(zip_item(other, CONTENT_TYPES_ITEM), "<Default ",
                  "<Default Extension=\"bin\" ContentType=\"x/y\"/><Default "));
    // Extraction checks in its own single pass, and refuses without a trace.
    const std::string dest = dir.file("dest");
    ::mkdir(dest.c_str(), 0777);
    write_file(dest + "/old", "old");
    const auto before = snapshot_tree(dest);
    for (const Case& c : cases) {
        writePackage(pkg, "a", &ec);
        c.tamper();
        const VerificationPolicy policy{{keys().dir.file("ca.pem")}};
        EXPECT_EQ(pairs(verifyPackage(pkg, policy).faults), c.expected) << c.name;
        EXPECT_EQ(pairs(extractVerified(pkg, dest, policy).report.faults), c.expected) << c.name;
        EXPECT_EQ(snapshot_tree(dest), before) << c.name;
    }
    writePackage(pkg, "a", &ec);
    EXPECT_TRUE(extractVerified(pkg, dest, {{keys().dir.file("ca.pem")}}).report.ok());
    EXPECT_EQ(read_file(dest + "/files/a.txt"), "a");
    writePackage(pkg, "a", &ec);  // no trust anchors: no system store either
    EXPECT_EQ(pairs(verifyPackage(pkg, {}).faults), (Faults{{FaultKind::UntrustedSigner, sig}}));
}

TEST(Integrity, DigestListParsingIsStrict) {
    const std::string hex(64, 'a');
    EXPECT_EQ(parseDigestList(hex + "  files/a b\n" + hex + "  c\n").size(), 2u);
    EXPECT_EQ(formatDigestList(parseDigestList(hex + " *b\n")), hex + "  b\n");
    for (const std::string& bad : {hex + "  a", hex + " a\n", "A" + hex.substr(1) + "  a\n",
                                   hex + "  /a\n", hex + "  a\n" + hex + " *a\n", std::string("\n"),
                                   hex + "  \\a\n", hex.substr(1) + "   a\n"})
        EXPECT_THROW(parseDigestList(bad), IntegrityError) << bad;
}

TEST(Integrity, DigestCheckTakesItemsInPieces) {
    const std::string abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    DigestCheck check({{"a", abc}, {"b", abc}, {"d", abc}, {"e", abc}});
    for (const std::string item : {"a", "c", "d", "e", "a"}) {
        check.begin(item);
        check.update(item == "e" ? "abd" : "abc", 3);
        item == "d" ? check.abandon("CRC") : check.end();
    }
    EXPECT_EQ(pairs(check.finish()), (Faults{{FaultKind::UnlistedItem, "/c"},
                                             {FaultKind::UnreadableItem, "/d"},
                                             {FaultKind::DigestMismatch, "/e"},
                                             {FaultKind::UnlistedItem, "/a"},
                                             {FaultKind::MissingItem, "/b"}}));
}

#ifdef TSAPP_TOOL
// The signature as a user checks it: with the tool, and on the unzipped
// parts with standard tools (the commands in the README).
TEST(Integrity, PackedPackagesVerifyWithTheToolAndStandardTools) {
    TempDir dir;
    const std::string tool = TSAPP_TOOL, sample = std::string(TSAPP_SOURCE_DIR) + "/sample/app";
    const std::string ca = keys().dir.file("ca.pem"), pkg = dir.file("p.tsappinstall");
    for (const std::string t : {"RSA", "EC", "ED25519", ""}) {
        const std::string sign = t.empty() ? ""
                                           : " --sign " + keys().dir.file(t + ".key") + " --cert " +
                                                 keys().dir.file(t + ".pem");
        ASSERT_EQ(sh(tool + " pack " + sample + " -o " + pkg + sign), 0) << t;
        const std::string verify = tool + " verify --trust " + ca +
                                   (t.empty() ? " --allow-unsigned " : " ") + pkg + " >" +
                                   dir.file("out");
        EXPECT_EQ(sh(verify), 0) << t;
        EXPECT_EQ(sh(tool + " extract --trust " + ca + (t.empty() ? " --allow-unsigned " : " ") +
                     pkg + " " + dir.file("e" + t)),
                  0)
            << t;
        EXPECT_EQ(read_file(dir.file("out")),
                  pkg + ": OK, " + (t.empty() ? "unsigned" : "signed by CN=" + t) + "\n");
        std::string check = "rm -rf " + dir.file("x") + " && unzip -q " + pkg + " -d " +
                            dir.file("x") + " && cd " + dir.file("x") +
                            " && sha256sum -c _digests/sha256sums";
        if (t == "RSA" || t == "EC")  // OpenSSL's cms command cannot verify Ed25519
            check +=
                " && openssl cms -verify -binary -inform DER -in _digests/sha256sums.p7s -content "
                "_digests/sha256sums -CAfile " +
                ca + " -out /dev/null";
        EXPECT_EQ(sh(check), 0) << t;
    }
    edit(pkg, "files/main.js", "tampered");
    EXPECT_EQ(sh(tool + " verify --allow-unsigned " + pkg +
                 " | grep -qx '  digest-mismatch /files/main.js: .*'"),
              0);
    EXPECT_NE(sh(tool + " extract --verify --allow-unsigned " + pkg + " " + dir.file("y")), 0);
    EXPECT_FALSE(file_exists(dir.file("y")));
}
#endif

}  // namespace
