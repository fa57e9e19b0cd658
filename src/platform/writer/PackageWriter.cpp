#include "tsappinstall/platform/opc/PackageWriter.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"

#include <zip.h>

#include <fstream>
#include <map>
#include <utility>

#include "platform/base/Ascii.hpp"
#include "platform/opc/OpcNames.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"

namespace opc::zippackage {
namespace {

using opc::names::kContentTypesNamespace;
using opc::names::kRelationshipsContentType;
using opc::names::kRelationshipsNamespace;

struct ArchiveDiscarder {
    void operator()(zip_t* archive) const { zip_discard(archive); }
};
using ArchivePtr = std::unique_ptr<zip_t, ArchiveDiscarder>;

using opc::detail::ascii_lower;

std::string escape_xml(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// The extension of a part name's last segment, lower-cased; empty if none.
std::string extension_of(const std::string& partName) {
    const std::size_t slash = partName.rfind('/');
    const std::size_t dot = partName.rfind('.');
    if (dot == std::string::npos || dot < slash + 1 || dot + 1 == partName.size()) return {};
    return ascii_lower(partName.substr(dot + 1));
}

}  // namespace

struct PackageWriter::Impl {
    struct PendingPart {
        std::string name;
        std::string contentType;
        std::vector<unsigned char> bytes;
        std::string sourceFile;  // read at commit when not empty
        Compression compression;
    };
    struct PendingRelationship {
        std::string id, type, target;
    };

    std::string outputPath;
    std::vector<PendingPart> parts;
    std::map<std::string, std::string> lowerNames;  // equivalence of part names
    std::vector<PendingRelationship> relationships;
    std::time_t modificationTime = std::time(nullptr);
    bool digests = false;
    const tsappinstall::integrity::Signer* signer = nullptr;

    std::string add(const std::string& path, const std::string& contentType,
                    std::vector<unsigned char> bytes, std::string sourceFile,
                    Compression compression) {
        std::string name = opc::model::PartName::forPath(path);
        if (opc::extraction::isReservedPartName(name))
            throw opc::Exception("\"" + name +
                                 "\" cannot be a part name: the extractor reserves names "
                                 "beginning with \".~tsapp\"");
        if (!lowerNames.emplace(ascii_lower(name), name).second) {
            throw opc::Exception("the package already holds a part named like \"" + name + "\"");
        }
        parts.push_back({name, contentType, std::move(bytes), std::move(sourceFile), compression});
        return name;
    }

    void addDigestPlaceholders() {
        namespace integrity = tsappinstall::integrity;
        using C = Compression;
        add(integrity::DIGESTS_PART_NAME + 1, integrity::DIGESTS_CONTENT_TYPE, {}, {}, C::Deflate);
        relationships.push_back(
            {"tsappDigests", integrity::DIGESTS_RELATIONSHIP_TYPE, integrity::DIGESTS_PART_NAME});
        if (signer == nullptr) return;
        add(integrity::SIGNATURE_PART_NAME + 1, integrity::SIGNATURE_CONTENT_TYPE, {}, {},
            C::Stored);
        relationships.push_back({"tsappSignature", integrity::SIGNATURE_RELATIONSHIP_TYPE,
                                 integrity::SIGNATURE_PART_NAME});
    }
    void addDigestParts(const std::string& contentTypes, const std::string& rels);

    std::string contentTypesXml() const {
        std::map<std::string, std::string> defaults{{"rels", kRelationshipsContentType}};
        std::vector<std::pair<std::string, std::string>> overrides;
        for (const PendingPart& part : parts) {
            const std::string ext = extension_of(part.name);
            if (ext.empty()) {
                overrides.emplace_back(part.name, part.contentType);
                continue;
            }
            const auto [it, inserted] = defaults.emplace(ext, part.contentType);
            if (!inserted && it->second != part.contentType)
                overrides.emplace_back(part.name, part.contentType);
        }
        std::string xml =
            "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n<Types xmlns=\"";
        xml += kContentTypesNamespace;
        xml += "\">";
        for (const auto& [ext, type] : defaults) {
            xml += "<Default Extension=\"" + escape_xml(ext) + "\" ContentType=\"" +
                   escape_xml(type) + "\"/>";
        }
        for (const auto& [name, type] : overrides) {
            xml += "<Override PartName=\"" + escape_xml(name) + "\" ContentType=\"" +
                   escape_xml(type) + "\"/>";
        }
        return xml + "</Types>";
    }

    std::string relationshipsXml() const {
        std::string xml =
            "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n<Relationships "
            "xmlns=\"";
        xml += kRelationshipsNamespace;
        xml += "\">";
        for (const PendingRelationship& r : relationships) {
            xml += "<Relationship Id=\"" + escape_xml(r.id) + "\" Type=\"" + escape_xml(r.type) +
                   "\" Target=\"" + escape_xml(r.target) + "\"/>";
        }
        return xml + "</Relationships>";
    }
};

PackageWriter::PackageWriter(std::string outputPath) : impl_(std::make_unique<Impl>()) {
    impl_->outputPath = std::move(outputPath);
}

PackageWriter::~PackageWriter() = default;

std::string PackageWriter::addPart(const std::string& path, const std::string& contentType,
                                   std::vector<unsigned char> bytes, Compression compression) {
    return impl_->add(path, contentType, std::move(bytes), {}, compression);
}

std::string PackageWriter::addPartFromFile(const std::string& path, const std::string& contentType,
                                           const std::string& sourceFile, Compression compression) {
    return impl_->add(path, contentType, {}, sourceFile, compression);
}

void PackageWriter::addRelationship(const std::string& id, const std::string& type,
                                    const std::string& targetPartName) {
    impl_->relationships.push_back({id, type, targetPartName});
}

void PackageWriter::addDigests(const tsappinstall::integrity::Signer* signer) {
    impl_->digests = true;
    impl_->signer = signer;
}

void PackageWriter::setModificationTime(std::time_t when) {
    impl_->modificationTime = when;
}

namespace {

[[noreturn]] void fail(zip_t* archive, const std::string& what) {
    throw opc::Exception(what + ": " + zip_strerror(archive));
}

void add_entry(zip_t* archive, const std::string& zipName, zip_source_t* source, bool deflate,
               std::time_t mtime) {
    if (source == nullptr) fail(archive, "cannot prepare the entry \"" + zipName + "\"");
    const zip_int64_t index = zip_file_add(archive, zipName.c_str(), source, ZIP_FL_ENC_UTF_8);
    if (index < 0) {
        zip_source_free(source);
        fail(archive, "cannot add the entry \"" + zipName + "\"");
    }
    const auto i = static_cast<zip_uint64_t>(index);
    if (zip_set_file_compression(archive, i, deflate ? ZIP_CM_DEFLATE : ZIP_CM_STORE,
                                 deflate ? 6 : 0) != 0 ||
        zip_file_set_mtime(archive, i, mtime, 0) != 0) {
        fail(archive, "cannot set up the entry \"" + zipName + "\"");
    }
}

// The bytes in memory, or those of `sourceFile` when it is given.
std::string sha256Of(const std::vector<unsigned char>& bytes, const std::string& sourceFile) {
    tsappinstall::integrity::Sha256 hash;
    if (sourceFile.empty()) {
        hash.update(bytes.data(), bytes.size());
        return hash.finishHex();
    }
    std::ifstream in(sourceFile, std::ios::binary);
    std::vector<char> buffer(1 << 16);
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        hash.update(buffer.data(), static_cast<std::size_t>(in.gcount()));
    }
    if (!in.eof()) throw opc::Exception("cannot read \"" + sourceFile + "\"");
    return hash.finishHex();
}

std::string sha256Of(const std::string& bytes) {
    tsappinstall::integrity::Sha256 hash;
    hash.update(bytes.data(), bytes.size());
    return hash.finishHex();
}

}  // namespace

// The digest and signature parts are added as placeholders first, so that
// the content types and relationships that the digests cover name them;
// their bytes are filled in once everything else is final. Parts are
// listed by the paths they are extracted to (a version-2 list).
void PackageWriter::Impl::addDigestParts(const std::string& contentTypes, const std::string& rels) {
    namespace integrity = tsappinstall::integrity;
    integrity::DigestList list;
    list.contentTypesSha256 = sha256Of(contentTypes);
    list.parts.push_back({integrity::listedName("/_rels/.rels", 2), sha256Of(rels)});
    const std::size_t covered = parts.size() - (signer != nullptr ? 2 : 1);
    for (std::size_t i = 0; i < covered; ++i)
        list.parts.push_back({integrity::listedName(parts[i].name, 2),
                              sha256Of(parts[i].bytes, parts[i].sourceFile)});
    const std::string text = integrity::formatDigestList(list);
    parts[covered].bytes.assign(text.begin(), text.end());
    if (signer != nullptr) parts[covered + 1].bytes = signer->sign(text);
}

void PackageWriter::commit() {
    if (impl_->digests) impl_->addDigestPlaceholders();
    int error = 0;
    ArchivePtr archive(zip_open(impl_->outputPath.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error));
    if (!archive) {
        zip_error_t ze;
        zip_error_init_with_code(&ze, error);
        const std::string text = zip_error_strerror(&ze);
        zip_error_fini(&ze);
        throw opc::Exception("cannot create the package \"" + impl_->outputPath + "\": " + text);
    }
    zip_t* za = archive.get();
    const std::string contentTypes = impl_->contentTypesXml();
    const std::string rels = impl_->relationshipsXml();
    // Buffers stay alive in the strings/parts until zip_close has read them.
    if (impl_->digests) impl_->addDigestParts(contentTypes, rels);
    add_entry(za, "[Content_Types].xml",
              zip_source_buffer(za, contentTypes.data(), contentTypes.size(), 0), true,
              impl_->modificationTime);
    add_entry(za, "_rels/.rels", zip_source_buffer(za, rels.data(), rels.size(), 0), true,
              impl_->modificationTime);
    for (const Impl::PendingPart& part : impl_->parts) {
        zip_source_t* source = part.sourceFile.empty()
                                   ? zip_source_buffer(za, part.bytes.data(), part.bytes.size(), 0)
                                   : zip_source_file(za, part.sourceFile.c_str(), 0, -1);
        add_entry(za, part.name.substr(1), source, part.compression == Compression::Deflate,
                  impl_->modificationTime);
    }
    if (zip_close(za) != 0) fail(za, "cannot write the package \"" + impl_->outputPath + "\"");
    archive.release();  // zip_close freed it
}

}  // namespace opc::zippackage
