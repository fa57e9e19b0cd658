// Digests and signatures: keys made at test time, packages tampered with.

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <zip.h>

#include <functional>
#include <optional>

#include "integrity/OpenSsl.hpp"
#include "support/PackageBuilder.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/KeyRotation.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/integrity/Verify.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"
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

// A CA with an RSA (limited to code signing, as commercial certificates
// are), a P-256 and an Ed25519 signer below it, a signer below the P-256
// one (which is a CA too), and a rogue.
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
                      ".pem" + (t == "RSA" ? " -addext extendedKeyUsage=codeSigning" : "");
        }
        script +=
            " && openssl genpkey -algorithm ED25519 -out leaf.key && openssl req -x509 -key "
            "leaf.key -CA EC.pem -CAkey EC.key -days 2 -subj /CN=leaf -out leaf.pem";
        EXPECT_EQ(sh(script), 0);
    }
    // The signer `t`, its certificate followed by those of `more`.
    Signer signer(const std::string& t, const std::vector<std::string>& more = {}) const {
        std::string bundle = read_file(dir.file(t + ".pem"));
        for (const std::string& other : more) bundle += read_file(dir.file(other + ".pem"));
        write_file(dir.file("bundle.pem"), bundle);
        return Signer(dir.file(t + ".key"), dir.file("bundle.pem"));
    }
    std::string anchor() const { return dir.file("ca.pem"); }
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
    for (const Fault& f : faults) pairs.emplace_back(f.kind, f.item);
    return pairs;
}

std::string sha256(const std::string& bytes) {
    Sha256 hash;
    hash.update(bytes.data(), bytes.size());
    return hash.finishHex();
}

// Moves the item `from` to `to`; the relationship to it then names `target`.
void moveItem(const std::string& pkg, const std::string& from, const std::string& to,
              const std::string& target) {
    const std::string bytes = zip_item(pkg, from);
    edit(pkg, from, std::nullopt), edit(pkg, to, bytes);
    edit(pkg, "_rels/.rels",
         replaced(zip_item(pkg, "_rels/.rels"), "\"/" + from + "\"", "\"/" + target + "\""));
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
        // Names are compared byte for byte: the case of a part name makes no
        // other part, but another file once extracted.
        {"digest list named in capitals",
         [&] { moveItem(pkg, kList, "_DIGESTS/SHA256SUMS", "_DIGESTS/SHA256SUMS"); },
         {{FaultKind::NoDigestList, "/_DIGESTS/SHA256SUMS"}}},
        {"digest list stored in capitals",
         [&] { moveItem(pkg, kList, "_DIGESTS/sha256sums", kList); },
         {{FaultKind::NoDigestList, DIGESTS_PART_NAME}}},
        {"signature stored in capitals",
         [&] { moveItem(pkg, kSig, "_digests/SHA256SUMS.P7S", kSig); },
         {{FaultKind::MalformedSignature, sig}}},
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
        // On several threads too, with the faults in the same order.
        for (const unsigned threads : {1u, 3u}) {
            opc::extraction::Options options;
            options.threads = threads;
            EXPECT_EQ(pairs(verifyPackage(pkg, policy, threads).faults), c.expected) << c.name;
            EXPECT_EQ(pairs(extractVerified(pkg, dest, policy, options).report.faults), c.expected)
                << c.name;
            EXPECT_EQ(snapshot_tree(dest), before) << c.name;
        }
    }
    writePackage(pkg, "a", &ec);
    EXPECT_TRUE(extractVerified(pkg, dest, {{keys().dir.file("ca.pem")}}).report.ok());
    EXPECT_EQ(read_file(dest + "/files/a.txt"), "a");
    writePackage(pkg, "a", &ec);  // no trust anchors: no system store either
    EXPECT_EQ(pairs(verifyPackage(pkg, {}).faults), (Faults{{FaultKind::UntrustedSigner, sig}}));
}

TEST(Integrity, DigestListsOfBothVersionsParseStrictly) {
    const std::string hex(64, 'a'), types = "  [Content_Types].xml\n";
    const std::string head = std::string(DIGESTS_HEADER) + "\n# " + hex + types;
    // Version 1 names ZIP items, the content types among them.
    const DigestList old = parseDigestList(hex + types + hex + " *files/a%20b\n");
    EXPECT_EQ(old.version, 1);
    EXPECT_EQ(formatDigestList(old), hex + types + hex + "  files/a%20b\n");
    // Version 2 names files, escaped as sha256sum escapes them; a part may
    // decode to the content types' name, which only the comment gives it.
    const std::string paths =
        head + hex + "  files/a b\n\\" + hex + "  x\\nline\\rend\\\\\n" + hex + types;
    const DigestList list = parseDigestList(paths);
    ASSERT_EQ(list.parts.size(), 3u);
    EXPECT_EQ(list.parts[1].name, "x\nline\rend\\");
    EXPECT_EQ(list.parts[2].name, CONTENT_TYPES_ITEM);
    EXPECT_EQ(formatDigestList(list), paths);
    // Lines of the shortest length an entry can have, and nothing else:
    // as many entries as the text can hold, every one kept.
    std::string shortest;
    const std::string names = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (const char name : names) shortest += hex + "  " + name + "\n";
    EXPECT_EQ(parseDigestList(shortest).parts.size(), names.size());
    for (const std::string& bad :
         {hex + "  a", hex + " a\n", "A" + hex.substr(1) + "  a\n", hex + "  /a\n",
          hex + "  a\n" + hex + " *a\n", hex + types + hex + types, std::string("\n"),
          hex + "  \\a\n", hex.substr(1) + "   a\n", std::string("# tsapp-digests 3\n"),
          std::string(DIGESTS_HEADER) + "\n", head + "# " + hex + types,
          head + "\\" + hex + "  plain\n", head + hex + "  back\\slash\n",
          head + "\\" + hex + "  tab\\t\n", head + hex + "  raw\rreturn\n",
          head + std::string(1 << 20, '\n')})
        EXPECT_THROW(parseDigestList(bad), IntegrityError) << bad;
}

// The EC signer's signature over `list`, then changed by `change`.
std::string changedSignature(const std::string& list,
                             const std::function<void(CMS_ContentInfo*)>& change) {
    const std::vector<unsigned char> der = keys().signer("EC").sign(list);
    const unsigned char* at = der.data();
    const detail::CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(der.size())));
    change(cms.get());
    unsigned char* out = nullptr;
    const int size = i2d_CMS_ContentInfo(cms.get(), &out);
    const std::string changed(reinterpret_cast<const char*>(out), static_cast<std::size_t>(size));
    OPENSSL_free(out);
    return changed;
}

template <typename T, typename Read>
T fromPem(const std::string& path, Read read) {
    const detail::BioPtr bio(BIO_new_file(path.c_str(), "r"));
    return T(read(bio.get(), nullptr, nullptr, nullptr));
}

void addRevocationList(CMS_ContentInfo* cms) {
    const auto key = fromPem<detail::KeyPtr>(keys().dir.file("ca.key"), PEM_read_bio_PrivateKey);
    const std::unique_ptr<X509_CRL, decltype(&X509_CRL_free)> crl(X509_CRL_new(), &X509_CRL_free);
    const std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> epoch(ASN1_TIME_set(nullptr, 0),
                                                                      &ASN1_TIME_free);
    ASSERT_EQ(X509_CRL_set1_lastUpdate(crl.get(), epoch.get()), 1);
    ASSERT_GT(X509_CRL_sign(crl.get(), key.get(), nullptr), 0);
    ASSERT_EQ(CMS_add1_crl(cms, crl.get()), 1);
}

std::string bytesOf(const std::vector<unsigned char>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

TEST(Integrity, SignaturesCarryNothingTheirSignerDidNotSign) {
    TempDir dir;
    const std::string pkg = dir.file("p.tsappinstall");
    const Signer ec = keys().signer("EC");
    const auto payload = reinterpret_cast<const unsigned char*>("payload");
    const struct {
        const char* name;
        std::function<std::string(const std::string& list)> sign;
        std::string fault;  // empty: it verifies
    } cases[] = {
        {"unsigned attribute",
         [&](auto& list) {
             return changedSignature(list, [&](CMS_ContentInfo* cms) {
                 CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), 0);
                 CMS_unsigned_add1_attr_by_txt(signer, "1.3.6.1.4.1.99999.1", V_ASN1_OCTET_STRING,
                                               payload, 7);
             });
         },
         "it carries unsigned attributes"},
        {"a stranger's certificate",
         [](auto& list) {
             return changedSignature(list, [](CMS_ContentInfo* cms) {
                 CMS_add1_cert(
                     cms, fromPem<detail::X509Ptr>(keys().dir.file("rogue.pem"), PEM_read_bio_X509)
                              .get());
             });
         },
         "it carries a certificate off the signer's chain (CN=rogue)"},
        {"revocation list", [](auto& list) { return changedSignature(list, addRevocationList); },
         "it carries revocation information"},
        {"content of its own",
         [&](auto& list) {
             return changedSignature(list, [&](CMS_ContentInfo* cms) {
                 CMS_set_detached(cms, 0);
                 ASN1_OCTET_STRING_set(*CMS_get0_content(cms), payload, 7);
             });
         },
         "it carries content of its own; it must be detached"},
        // What the signer's file holds off the chain stays out of the signature.
        {"chain through an intermediate",
         [](auto& list) {
             return bytesOf(keys().signer("leaf", {"rogue", "EC"}).sign(list));
         },
         ""},
        {"chain with the anchor",
         [](auto& list) { return bytesOf(keys().signer("EC", {"ca"}).sign(list)); }, ""},
    };
    for (const auto& c : cases) {
        writePackage(pkg, "a", &ec);
        edit(pkg, kSig, c.sign(zip_item(pkg, kList)));
        const VerificationReport report = verifyPackage(pkg, {{keys().anchor()}});
        if (c.fault.empty()) {
            EXPECT_TRUE(report.ok()) << c.name << ": " << report.faults.front().detail;
            continue;
        }
        EXPECT_EQ(pairs(report.faults), (Faults{{FaultKind::MalformedSignature, "/" + kSig}}))
            << c.name;
        if (!report.faults.empty()) {
            EXPECT_EQ(report.faults.front().detail, c.fault) << c.name;
        }
    }
}

// Signers of every shape a publisher may hold, below a root and its
// intermediates, each NAME.key and NAME.pem; revocation lists beside them.
struct Shapes {
    Shapes() {
        write_file(dir.file("shapes.cnf"),
                   "[req]\ndistinguished_name = dn\n[dn]\n"
                   "[ca]\nbasicConstraints = critical,CA:true\nkeyUsage = keyCertSign, cRLSign\n"
                   "[ca_email]\nbasicConstraints = critical,CA:true\n"
                   "extendedKeyUsage = emailProtection\n"
                   "[plain]\nbasicConstraints = CA:false\n"
                   "[code]\nkeyUsage = digitalSignature\nextendedKeyUsage = codeSigning\n"
                   "[any]\nextendedKeyUsage = anyExtendedKeyUsage\n"
                   "[email]\nextendedKeyUsage = emailProtection\n"
                   "[nodigsig]\nkeyUsage = nonRepudiation\n");
        EXPECT_EQ(sh("cd " + dir.path() +
                     " && openssl req -x509 -config shapes.cnf -extensions ca -newkey ed25519 "
                     "-nodes -keyout root.key -out root.pem -subj /CN=root -days 2"),
                  0);
        const struct {
            const char *name, *algorithm, *extensions, *issuer;
        } made[] = {{"inter", "ED25519", "ca", "root"},
                    {"inter-email", "ED25519", "ca_email", "root"},
                    {"plain", "ED25519", "plain", "root"},
                    {"rsa2048", "RSA -pkeyopt rsa_keygen_bits:2048", "code", "root"},
                    {"rsa1024", "RSA -pkeyopt rsa_keygen_bits:1024", "code", "root"},
                    {"p256", "EC -pkeyopt ec_paramgen_curve:P-256", "any", "root"},
                    {"p384", "EC -pkeyopt ec_paramgen_curve:P-384", "code", "root"},
                    {"p521", "EC -pkeyopt ec_paramgen_curve:P-521", "code", "root"},
                    {"email", "ED25519", "email", "root"},
                    {"nodigsig", "ED25519", "nodigsig", "root"},
                    {"leaf", "ED25519", "code", "inter"},
                    {"revoked", "ED25519", "code", "inter"},
                    {"under-email", "ED25519", "code", "inter-email"}};
        for (const auto& m : made)
            EXPECT_EQ(
                sh("cd " + dir.path() + " && openssl genpkey -algorithm " + m.algorithm + " -out " +
                   m.name + ".key && openssl req -x509 -config shapes.cnf " + "-extensions " +
                   m.extensions + " -key " + m.name + ".key -CA " + m.issuer + ".pem -CAkey " +
                   m.issuer + ".key -subj /CN=" + m.name + " -days 2 -out " + m.name + ".pem"),
                0)
                << m.name;
        write_file(dir.file("root+inter.pem"), pem("root") + pem("inter"));
        write_file(dir.file("root+list.pem"), pem("root") + revocationList("root", {}));
        write_file(dir.file("root+inter-list.pem"),
                   pem("root") + revocationList("inter", {"revoked"}));
        write_file(dir.file("root+root-list.pem"), pem("root") + revocationList("root", {"inter"}));
    }
    std::string pem(const std::string& name) const { return read_file(dir.file(name + ".pem")); }

    // PEM: `issuer`'s list revoking the certificates `revoked`.
    std::string revocationList(const std::string& issuer,
                               const std::vector<std::string>& revoked) const {
        const auto key =
            fromPem<detail::KeyPtr>(dir.file(issuer + ".key"), PEM_read_bio_PrivateKey);
        const auto by = fromPem<detail::X509Ptr>(dir.file(issuer + ".pem"), PEM_read_bio_X509);
        const std::unique_ptr<X509_CRL, decltype(&X509_CRL_free)> crl(X509_CRL_new(),
                                                                      &X509_CRL_free);
        const std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> since(
            ASN1_TIME_adj(nullptr, std::time(nullptr), 0, -3600), &ASN1_TIME_free),
            until(ASN1_TIME_adj(nullptr, std::time(nullptr), 1, 0), &ASN1_TIME_free);
        EXPECT_EQ(X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(by.get())), 1);
        EXPECT_EQ(X509_CRL_set1_lastUpdate(crl.get(), since.get()), 1);
        EXPECT_EQ(X509_CRL_set1_nextUpdate(crl.get(), until.get()), 1);
        for (const std::string& name : revoked) {
            const auto gone = fromPem<detail::X509Ptr>(dir.file(name + ".pem"), PEM_read_bio_X509);
            X509_REVOKED* entry = X509_REVOKED_new();
            X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(gone.get()));
            X509_REVOKED_set_revocationDate(entry, since.get());
            X509_CRL_add0_revoked(crl.get(), entry);
        }
        X509_CRL_sort(crl.get());
        EXPECT_GT(X509_CRL_sign(crl.get(), key.get(), nullptr), 0);
        const detail::BioPtr out(BIO_new(BIO_s_mem()));
        PEM_write_bio_X509_CRL(out.get(), crl.get());
        char* text = nullptr;
        const long size = BIO_get_mem_data(out.get(), &text);
        return std::string(text, static_cast<std::size_t>(size));
    }
    TempDir dir;
};

// One rule for every signer's certificate, whichever signature it makes:
// verification refuses what pack warns of, and nothing else but a chain
// that does not lead to an anchor, or leads through a revoked certificate.
TEST(Integrity, SignerCertificatesFollowOneRule) {
    const Shapes shapes;
    const std::string untrusted = "the signer is not trusted: ";
    const struct {
        std::string signer, carried, trust;  // NAME, a certificate it carries, a trust file
        std::string problem;                 // empty: it verifies
        bool packWarns;                      // the problem is the certificate's own
    } rows[] = {
        {"plain", "", "root", "", false},  // Ed25519, no extended key usage
        {"rsa2048", "", "root", "", false},
        {"p256", "", "root", "", false},  // any extended key usage
        {"p384", "", "root", "", false},
        {"leaf", "inter", "root", "", false},
        {"leaf", "", "root+inter", "", false},
        {"leaf", "", "root", untrusted + "unable to get local issuer certificate", false},
        {"email", "", "root",
         untrusted + "the certificate's extended key usage does not include code signing", true},
        {"nodigsig", "", "root",
         untrusted + "the certificate's key usage does not include digital signatures", true},
        {"rsa1024", "", "root",
         untrusted + "the certificate's RSA key has 1024 bits; at least 2048 are needed", true},
        {"p521", "", "root",
         untrusted + "the certificate's ECDSA key is on the curve secp521r1; P-256 or P-384 are "
                     "needed",
         true},
        {"under-email", "inter-email", "root",
         untrusted +
             "the issuing certificate CN=inter-email is restricted to uses other than code signing",
         true},
        // A list binds the certificates its issuer issued, and only those.
        {"leaf", "inter", "root+list", "", false},
        {"leaf", "inter", "root+inter-list", "", false},
        {"revoked", "inter", "root+inter-list", untrusted + "certificate revoked", false},
        {"leaf", "inter", "root+root-list", untrusted + "certificate revoked", false},
    };
    for (const auto& row : rows) {
        const std::string what = row.signer + " carrying " + row.carried + ", " + row.trust;
        write_file(shapes.dir.file("bundle.pem"),
                   shapes.pem(row.signer) + (row.carried.empty() ? "" : shapes.pem(row.carried)));
        const Signer signer(shapes.dir.file(row.signer + ".key"), shapes.dir.file("bundle.pem"));
        const SignatureCheck check = checkSignature(bytesOf(signer.sign("list")), "list",
                                                    {shapes.dir.file(row.trust + ".pem")});
        EXPECT_EQ(check.fault ? check.fault->detail : "", row.problem) << what;
        const std::vector<std::string> warned =
            row.packWarns ? std::vector<std::string>{row.problem.substr(untrusted.size())}
                          : std::vector<std::string>{};
        EXPECT_EQ(signer.certificateProblems(std::time(nullptr)), warned) << what;
    }
    // The copy of a trust file that a root keeps revokes what the file does.
    std::string copy;
    for (const auto& item : readTrustAnchors({shapes.dir.file("root+inter-list.pem")}))
        copy += item.pem;
    write_file(shapes.dir.file("copy.pem"), copy);
    write_file(shapes.dir.file("bundle.pem"), shapes.pem("revoked") + shapes.pem("inter"));
    const Signer revoked(shapes.dir.file("revoked.key"), shapes.dir.file("bundle.pem"));
    const auto check =
        checkSignature(bytesOf(revoked.sign("list")), "list", {shapes.dir.file("copy.pem")});
    EXPECT_EQ(check.fault ? check.fault->detail : "", untrusted + "certificate revoked");
}

// `original` rewritten as an attacker who leaves the ZIP directory alone
// would: as many bytes, their CRC-32 forced by the last four.
std::string forgery(const std::string& original) {
    const auto crcOf = [](const std::string& bytes, std::size_t size) {
        return static_cast<std::uint32_t>(
            crc32(0L, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(size)));
    };
    const z_crc_t* table = get_crc_table();
    std::string forged(original.size(), '#');
    // The register four steps before the end, run backwards from its value
    // at the end; each table entry has a top byte of its own.
    std::uint32_t state = ~crcOf(original, original.size());
    for (int step = 0; step < 4; ++step) {
        std::uint32_t index = 0;
        while ((table[index] >> 24) != (state >> 24)) ++index;
        state = ((state ^ table[index]) << 8) | index;
    }
    state ^= ~crcOf(forged, forged.size() - 4);
    for (int i = 0; i < 4; ++i) forged[forged.size() - 4 + i] = static_cast<char>(state >> (8 * i));
    EXPECT_EQ(crcOf(forged, forged.size()), crcOf(original, original.size()));
    return forged;
}

// A package signed by the EC signer whose items are all stored, so that
// each can be rewritten in place. Returns the file's bytes.
std::string storedSignedPackage(const std::string& path, const std::string& big) {
    PackageBuilder builder;
    builder.defaultType("txt", "text/plain")
        .defaultType("bin", "application/octet-stream")
        .defaultType("p7s", SIGNATURE_CONTENT_TYPE)
        .overrideType(DIGESTS_PART_NAME, DIGESTS_CONTENT_TYPE)
        .relationship("d", DIGESTS_RELATIONSHIP_TYPE, DIGESTS_PART_NAME)
        .relationship("s", SIGNATURE_RELATIONSHIP_TYPE, SIGNATURE_PART_NAME)
        .part("files/big.bin", big)
        .part("files/small.txt", "small");
    const std::string list =
        formatDigestList({2,
                          sha256(builder.contentTypesText()),
                          {{"_rels/.rels", sha256(builder.relationshipsText())},
                           {"files/big.bin", sha256(big)},
                           {"files/small.txt", sha256("small")}}});
    builder.part(kList, list).part(kSig, bytesOf(keys().signer("EC").sign(list)));
    std::vector<ZipItem> items = builder.items();
    for (ZipItem& item : items) item.deflate = false;
    write_zip(path, items);
    return read_file(path);
}

// The folder's snapshot, each entry's bytes as their SHA-256, so that a
// failure stays legible.
Tree hashedTree(const std::string& root) {
    Tree tree = snapshot_tree(root);
    for (auto& entry : tree) entry.second = sha256(entry.second);
    return tree;
}

// The package file rewritten while a verified extraction runs: either it
// is refused or it installs exactly the signed bytes.
TEST(Integrity, WhatIsExtractedIsWhatWasVerified) {
    TempDir dir;
    const std::string pkg = dir.file("p.tsappinstall");
    std::string big(2 << 20, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 % 251);
    const std::string good = storedSignedPackage(pkg, big);
    const VerificationPolicy policy{{keys().anchor()}};
    ASSERT_TRUE(extractVerified(pkg, dir.file("good"), policy).report.ok());
    const Tree signedTree = hashedTree(dir.file("good"));
    // Items read twice are pinned in memory when first read; the others
    // are hashed in the read that writes them.
    const struct {
        std::string item;
        bool afterOpen, afterCheck;  // whether the run then installs the signed bytes
    } rows[] = {{CONTENT_TYPES_ITEM, true, true},
                {"_rels/.rels", true, true},
                {kList, false, true},
                {kSig, false, true},
                {"files/small.txt", false, false},
                {"files/big.bin", false, false}};
    // Right after opening; at the extraction's first poll, verification
    // done; at its sixth, while the large part is read.
    const int moments[] = {0, 1, 6};
    int run = 0;
    for (const auto& row : rows) {
        write_file(pkg, good);
        const std::string original = zip_item(pkg, row.item);
        std::string forged = good;
        forged.replace(ZipPatcher(pkg).dataOffset(row.item), original.size(), forgery(original));
        for (const int moment : moments) {
            write_file(pkg, good);
            opc::model::OpenedPackage package(u16(pkg));
            int polls = 0;
            opc::extraction::Options options;
            options.cancelled = [&] {
                if (++polls == moment) write_file(pkg, forged);
                return false;
            };
            if (moment == 0) write_file(pkg, forged);
            const std::string dest = dir.file("d" + std::to_string(++run));
            bool ok = false;
            try {
                ok = extractVerified(package.package(), dest, policy, options).report.ok();
            } catch (const opc::Exception&) {
                // a part changed while it was read fails its CRC-32: refused too
            }
            const std::string what = row.item + " rewritten at " + std::to_string(moment);
            EXPECT_EQ(hashedTree(dest), ok ? signedTree : Tree{}) << what;
            if (moment < 2) {
                EXPECT_EQ(ok, moment == 0 ? row.afterOpen : row.afterCheck) << what;
            }
        }
    }
}

// `size` zero bytes deflated a mebibyte at a time, so that they are never
// held, as the item `name`.
ZipItem deflatedZeros(const std::string& name, std::uint64_t size) {
    const std::string chunk(1 << 20, '\0');
    ZipItem item{name, {}, true, ZipItem::Decoded{size, 0}};
    z_stream z{};
    EXPECT_EQ(deflateInit2(&z, 1, Z_DEFLATED, -MAX_WBITS, 8, Z_RLE), Z_OK);
    char out[1 << 16];
    for (std::uint64_t left = size; left > 0;) {
        const auto n = static_cast<uInt>(std::min<std::uint64_t>(left, chunk.size()));
        left -= n;
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(chunk.data()));
        z.avail_in = n;
        item.decoded->crc32 = static_cast<std::uint32_t>(
            crc32(item.decoded->crc32, reinterpret_cast<const Bytef*>(chunk.data()), n));
        do {
            z.next_out = reinterpret_cast<Bytef*>(out);
            z.avail_out = sizeof out;
            deflate(&z, left > 0 ? Z_NO_FLUSH : Z_FINISH);
            item.data.append(out, sizeof out - z.avail_out);
        } while (z.avail_out == 0);
    }
    deflateEnd(&z);
    return item;
}

TEST(Integrity, OversizedIntegrityPartsAreRefusedUnread) {
    TempDir dir;
    const std::string pkg = dir.file("p.tsappinstall");
    const VerificationPolicy policy{{keys().anchor()}};
    const struct {
        std::string item;
        Fault fault;
    } rows[] = {{kList,
                 {FaultKind::MalformedDigestList, DIGESTS_PART_NAME,
                  "it declares 419430400 bytes; a digest list may have at most 16777216"}},
                {kSig,
                 {FaultKind::MalformedSignature, SIGNATURE_PART_NAME,
                  "it declares 419430400 bytes; a signature may have at most 1048576"}}};
    const long before = peak_rss_kib();
    for (const auto& row : rows) {
        std::vector<ZipItem> items =
            PackageBuilder()
                .overrideType(DIGESTS_PART_NAME, DIGESTS_CONTENT_TYPE)
                .defaultType("p7s", SIGNATURE_CONTENT_TYPE)
                .relationship("d", DIGESTS_RELATIONSHIP_TYPE, DIGESTS_PART_NAME)
                .relationship("s", SIGNATURE_RELATIONSHIP_TYPE, SIGNATURE_PART_NAME)
                .part(kList, std::string(DIGESTS_HEADER) + "\n# " + std::string(64, '0') +
                                 "  [Content_Types].xml\n")
                .part(kSig, "x")
                .items();
        for (ZipItem& item : items)
            if (item.name == row.item) item = deflatedZeros(row.item, 400u << 20);
        write_zip(pkg, items);
        const auto found = [&](const std::vector<Fault>& faults) {
            for (const Fault& f : faults)
                if (f.kind == row.fault.kind && f.item == row.fault.item)
                    return f.detail == row.fault.detail;
            return false;
        };
        EXPECT_TRUE(found(verifyPackage(pkg, policy).faults)) << row.item;
        opc::extraction::Options options;
        options.maxBytes = 1 << 20;
        EXPECT_TRUE(found(extractVerified(pkg, dir.file("d"), policy, options).report.faults))
            << row.item;
    }
    EXPECT_LT(peak_rss_kib() - before, 64 * 1024) << "KiB more at the peak";
}

// Extraction percent-decodes part names; the list names the files it
// writes, escaped where sha256sum escapes them.
TEST(Integrity, Sha256sumChecksAnExtractedFolder) {
    if (sh("command -v sha256sum") != 0) GTEST_SKIP() << "no sha256sum here";
    TempDir dir;
    const std::string pkg = dir.file("p.tsappinstall"), dest = dir.file("out");
    opc::zippackage::PackageWriter writer(pkg);
    for (const std::string name :
         {"files/a b.txt", "files/line\nbreak\r.txt", "files/caf\xC3\xA9.txt", CONTENT_TYPES_ITEM})
        writer.addPart(name, "text/plain", {name.begin(), name.end()});
    const Signer ec = keys().signer("EC");
    writer.addDigests(&ec);
    writer.commit();
    ASSERT_TRUE(extractVerified(pkg, dest, {{keys().anchor()}}).report.ok());
    EXPECT_EQ(read_file(dest + "/files/a b.txt"), "files/a b.txt");
    EXPECT_EQ(sh("cd " + dest + " && sha256sum --strict -c _digests/sha256sums"), 0);
}

// Lists written before version 2 name ZIP items, and still verify so.
TEST(Integrity, OldListsOfItemNamesStillVerify) {
    TempDir dir;
    const std::string pkg = dir.file("p.tsappinstall");
    opc::zippackage::PackageWriter writer(pkg);
    writer.addPart("files/a b.txt", "text/plain", {'a'});
    const Signer ec = keys().signer("EC");
    writer.addDigests(&ec);
    writer.commit();
    const auto resign = [&](const DigestList& list) {
        const std::string text = formatDigestList(list);
        edit(pkg, kList, text), edit(pkg, kSig, bytesOf(ec.sign(text)));
    };
    DigestList old{
        1,
        sha256(zip_item(pkg, CONTENT_TYPES_ITEM)),
        {{"_rels/.rels", sha256(zip_item(pkg, "_rels/.rels"))}, {"files/a%20b.txt", sha256("a")}}};
    resign(old);
    const VerificationPolicy policy{{keys().anchor()}};
    EXPECT_TRUE(verifyPackage(pkg, policy).ok());
    EXPECT_TRUE(extractVerified(pkg, dir.file("out"), policy).report.ok());
    EXPECT_EQ(read_file(dir.file("out/files/a b.txt")), "a");
    old.parts.back().sha256 = sha256("b");
    resign(old);
    EXPECT_EQ(pairs(verifyPackage(pkg, policy).faults),
              (Faults{{FaultKind::DigestMismatch, "/files/a%20b.txt"}}));
}

#ifdef TSAPP_TOOL
// The signature as a user checks it: with the tool, and with standard tools
// in the folder the tool extracted (the commands in docs/trust.md).
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
        EXPECT_EQ(read_file(dir.file("out")), pkg + ": OK, " +
                                                  (t.empty() ? "unsigned" : "signed by CN=" + t) +
                                                  "\n0 of 1 packages bad\n");
        std::string check = "cd " + dir.file("e" + t) + " && sha256sum -c _digests/sha256sums";
        if (t == "RSA" || t == "EC")  // OpenSSL's cms command cannot verify Ed25519
            check +=
                " && openssl cms -verify -binary -inform DER -in _digests/sha256sums.p7s -content "
                "_digests/sha256sums -CAfile " +
                ca + " -purpose any -out /dev/null";
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

// A package carries at most MAX_KEY_ROTATIONS proofs: that many are read,
// one more is refused.
TEST(Integrity, KeyRotationsAreCappedInNumber) {
    const std::string proof = signKeyRotation(keys().signer("EC"), std::string(64, 'a'));
    std::string proofs;
    for (std::size_t i = 0; i < MAX_KEY_ROTATIONS; ++i) proofs += proof;
    EXPECT_EQ(readKeyRotations(proofs).size(), MAX_KEY_ROTATIONS);
    EXPECT_THROW(readKeyRotations(proofs + proof), IntegrityError);
}

}  // namespace
