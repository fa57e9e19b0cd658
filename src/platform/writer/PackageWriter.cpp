#include "tsappinstall/platform/opc/PackageWriter.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <utility>

#include "platform/base/Ascii.hpp"
#include "platform/base/UniqueFd.hpp"
#include "platform/opc/OpcNames.hpp"
#include "platform/writer/ParallelEncoding.hpp"
#include "platform/writer/PartEncoder.hpp"
#include "platform/writer/ZipOutput.hpp"
#include "tsappinstall/Threads.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/KeyRotation.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"

namespace opc::zippackage {
namespace {

using opc::names::kContentTypesNamespace;
using opc::names::kRelationshipsContentType;
using opc::names::kRelationshipsNamespace;

using detail::EncodedPart;
using detail::PartEncoder;
using detail::ZipOutput;
using opc::detail::ascii_lower;
using opc::detail::markup_escaped;

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
    unsigned jobs = 0;
    Progress progress;
    std::uint64_t writtenSize = 0;
    std::string writtenSha256;

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
    std::size_t coveredParts() const {
        return parts.size() - (digests ? (signer != nullptr ? 2 : 1) : 0);
    }
    std::vector<std::string> writeParts(ZipOutput& zip);
    void writeDigestParts(ZipOutput& zip, PartEncoder& encoder, const std::string& contentTypesSha,
                          const std::string& relsSha, const std::vector<std::string>& partShas);

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
            xml += "<Default Extension=\"" + markup_escaped(ext) + "\" ContentType=\"" +
                   markup_escaped(type) + "\"/>";
        }
        for (const auto& [name, type] : overrides) {
            xml += "<Override PartName=\"" + markup_escaped(name) + "\" ContentType=\"" +
                   markup_escaped(type) + "\"/>";
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
            xml += "<Relationship Id=\"" + markup_escaped(r.id) + "\" Type=\"" +
                   markup_escaped(r.type) + "\" Target=\"" + markup_escaped(r.target) + "\"/>";
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

void PackageWriter::addKeyRotations(const std::string& pem) {
    namespace integrity = tsappinstall::integrity;
    impl_->add(integrity::KEY_ROTATIONS_PART_NAME + 1, integrity::KEY_ROTATIONS_CONTENT_TYPE,
               {pem.begin(), pem.end()}, {}, Compression::Deflate);
    addRelationship("tsappKeyRotations", integrity::KEY_ROTATIONS_RELATIONSHIP_TYPE,
                    integrity::KEY_ROTATIONS_PART_NAME);
}

void PackageWriter::setModificationTime(std::time_t when) {
    impl_->modificationTime = when;
}

void PackageWriter::setJobs(unsigned jobs) {
    impl_->jobs = jobs;
}

void PackageWriter::setProgress(Progress progress) {
    impl_->progress = std::move(progress);
}

std::uint64_t PackageWriter::writtenSize() const {
    return impl_->writtenSize;
}

const std::string& PackageWriter::writtenSha256() const {
    return impl_->writtenSha256;
}

namespace {

std::vector<unsigned char> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

void addEncoded(ZipOutput& zip, const std::string& name, const EncodedPart& part) {
    zip.addEntry(name, part.deflated, part.crc, part.size, part.data.data(), part.data.size());
}

// The size of a source file as planned; a link or anything but a regular
// file is refused here, before a byte is written.
std::uint64_t sourceSize(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        throw opc::Exception("cannot read \"" + path + "\": " + std::strerror(errno));
    if (!S_ISREG(st.st_mode))
        throw opc::Exception("cannot read \"" + path + "\": not a regular file");
    return static_cast<std::uint64_t>(st.st_size);
}

// A new file beside `destination`, renamed onto it by keep() and removed
// unless it was kept.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& destination) {
        const std::size_t slash = destination.rfind('/');
        const std::string folder =
            slash == std::string::npos ? std::string() : destination.substr(0, slash + 1);
        const std::string base =
            slash == std::string::npos ? destination : destination.substr(slash + 1);
        std::random_device random;
        for (int attempt = 0; attempt < 100 && !fd_; ++attempt) {
            path_ = folder + "." + base + "." + std::to_string(random()) + ".tmp";
            fd_ = opc::detail::UniqueFd(
                ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
            if (!fd_ && errno != EEXIST) break;
        }
        if (!fd_) {
            const std::string why = std::strerror(errno);
            path_.clear();
            throw opc::Exception("cannot create the package \"" + destination + "\": " + why);
        }
    }
    ~TemporaryFile() {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int fd() const { return fd_.get(); }
    void keep(const std::string& destination) {
        if (::close(fd_.release()) != 0 || ::rename(path_.c_str(), destination.c_str()) != 0)
            throw opc::Exception("cannot write the package \"" + destination +
                                 "\": " + std::strerror(errno));
        path_.clear();
    }

  private:
    std::string path_;
    opc::detail::UniqueFd fd_;
};

}  // namespace

// Parts are encoded on every core and written in the order they were
// added; a large file is encoded as many pieces, so it keeps every core
// busy too. Returns each part's SHA-256.
std::vector<std::string> PackageWriter::Impl::writeParts(ZipOutput& zip) {
    const std::size_t count = coveredParts();
    std::vector<detail::EncodingJob> work;
    std::vector<std::size_t> firstJob(count + 1);
    std::vector<std::uint64_t> pieced(count);  // a file's size when it is cut into pieces
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < count; ++i) {
        PendingPart& part = parts[i];
        const bool deflate = part.compression == Compression::Deflate;
        firstJob[i] = work.size();
        if (part.sourceFile.empty()) {
            total += part.bytes.size();
            work.push_back({part.bytes.size(), [&part, deflate](PartEncoder& e) {
                                return e.encode(std::move(part.bytes), deflate);
                            }});
            continue;
        }
        const std::uint64_t size = sourceSize(part.sourceFile);
        total += size;
        if (size <= detail::kWholePartBytes) {
            work.push_back({size, [&part, deflate, size](PartEncoder& e) {
                                return e.encode(detail::readWholeFile(part.sourceFile, size),
                                                deflate);
                            }});
            continue;
        }
        pieced[i] = size;
        for (std::uint64_t at = 0; at < size; at += detail::kPieceBytes) {
            // A deflated piece is held twice until written: as read and as packed.
            const std::uint64_t held = std::min(detail::kPieceBytes, size - at) * (deflate ? 2 : 1);
            work.push_back({held, [&part, deflate, size, at](PartEncoder&) {
                                return detail::encodePiece(part.sourceFile, size, at, deflate);
                            }});
        }
    }
    firstJob[count] = work.size();

    std::uint64_t done = 0;
    const auto advance = [&](std::uint64_t bytes) {
        done += bytes;
        if (progress) progress(done, total);
    };
    std::vector<std::string> shas;
    shas.reserve(count);
    detail::ParallelEncoding encoding(std::move(work), tsappinstall::jobsOrCores(jobs));
    for (std::size_t i = 0; i < count; ++i) {
        const PendingPart& part = parts[i];
        if (pieced[i] == 0) {
            const EncodedPart encoded = encoding.take(firstJob[i]);
            addEncoded(zip, part.name.substr(1), encoded);
            shas.push_back(encoded.sha256);
            advance(encoded.size);
            encoding.written(firstJob[i]);
            continue;
        }
        // Sizes and CRC-32 are known only at the end: they go in a descriptor.
        zip.beginStreamedEntry(part.name.substr(1), part.compression == Compression::Deflate,
                               pieced[i]);
        tsappinstall::integrity::Sha256 sha;
        uLong crc = crc32(0, nullptr, 0);
        for (std::size_t job = firstJob[i]; job < firstJob[i + 1]; ++job) {
            const EncodedPart piece = encoding.take(job);
            zip.writeStreamedData(piece.data.data(), piece.data.size());
            const std::vector<unsigned char>& source = piece.deflated ? piece.source : piece.data;
            sha.update(source.data(), source.size());
            crc = crc32_combine(crc, piece.crc, static_cast<z_off_t>(piece.size));
            advance(piece.size);
            encoding.written(job);
        }
        zip.endStreamedEntry(static_cast<std::uint32_t>(crc), pieced[i]);
        shas.push_back(sha.finishHex());
    }
    return shas;
}

// The digest and signature parts were added as placeholders, so that the
// content types and relationships the digests cover name them; their bytes
// are made here, once everything else is written. Parts are listed by the
// paths they are extracted to (a version-2 list).
void PackageWriter::Impl::writeDigestParts(ZipOutput& zip, PartEncoder& encoder,
                                           const std::string& contentTypesSha,
                                           const std::string& relsSha,
                                           const std::vector<std::string>& partShas) {
    namespace integrity = tsappinstall::integrity;
    integrity::DigestList list;
    list.contentTypesSha256 = contentTypesSha;
    list.parts.push_back({integrity::listedName("/_rels/.rels", 2), relsSha});
    for (std::size_t i = 0; i < partShas.size(); ++i)
        list.parts.push_back({integrity::listedName(parts[i].name, 2), partShas[i]});
    const std::string text = integrity::formatDigestList(list);
    const PendingPart& listPart = parts[partShas.size()];
    addEncoded(zip, listPart.name.substr(1), encoder.encode(bytesOf(text), true));
    if (signer == nullptr) return;
    const PendingPart& signaturePart = parts[partShas.size() + 1];
    addEncoded(zip, signaturePart.name.substr(1), encoder.encode(signer->sign(text), false));
}

void PackageWriter::commit() {
    Impl& impl = *impl_;
    if (impl.digests) impl.addDigestPlaceholders();
    const std::string contentTypes = impl.contentTypesXml();
    const std::string rels = impl.relationshipsXml();
    TemporaryFile file(impl.outputPath);
    ZipOutput zip(file.fd(), impl.outputPath, impl.modificationTime);
    PartEncoder encoder;
    const EncodedPart typesEntry = encoder.encode(bytesOf(contentTypes), true);
    const EncodedPart relsEntry = encoder.encode(bytesOf(rels), true);
    addEncoded(zip, "[Content_Types].xml", typesEntry);
    addEncoded(zip, "_rels/.rels", relsEntry);
    const std::vector<std::string> shas = impl.writeParts(zip);
    if (impl.digests)
        impl.writeDigestParts(zip, encoder, typesEntry.sha256, relsEntry.sha256, shas);
    impl.writtenSha256 = zip.finish();
    impl.writtenSize = zip.size();
    file.keep(impl.outputPath);
}

}  // namespace opc::zippackage
