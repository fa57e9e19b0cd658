#include "tsappinstall/platform/opc/Package.hpp"

#include <zlib.h>

#include <algorithm>
#include <map>
#include <optional>
#include <unordered_map>

#include "platform/base/Ascii.hpp"
#include "platform/opc/OpcNames.hpp"
#include "platform/opc/PackageXml.hpp"
#include "platform/xml/XercesScoped.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/XercesHelper.hpp"

namespace opc::model {
namespace {

using opc::interfaces::PhysicalEntry;
using opc::model::detail::DocumentPoolReset;

using opc::names::kRelationshipsContentType;
constexpr const char* kPackageRelationshipsKey = opc::names::kPackageRelationshipsPart;

struct PartRecord {
    PartName name;
    std::string contentType;
    std::uint64_t entryIndex;           // the part's entry, or its first piece's
    std::vector<std::uint64_t> pieces;  // entries in piece order; empty for a part in one entry
    PhysicalEntry joined;               // the pieces described as one entry
};

[[noreturn]] void refuse(const std::string& why) {
    throw opc::Exception(opc::Reason::NotPackage, "not a valid package: " + why);
}

bool is_content_types_item(const std::string& itemName) {
    return opc::detail::ascii_iequals(itemName, "[Content_Types].xml");
}

// An item holding one piece of an interleaved part: "a.xml/[3].piece",
// "a.xml/[7].last.piece", in any case, belongs to the part "/a.xml".
struct Piece {
    std::string partItem;  // "a.xml"
    std::uint64_t number = 0;
    bool last = false;
    std::uint64_t entryIndex = 0;
};

std::optional<Piece> piece_of(const PhysicalEntry& entry) {
    const std::size_t slash = entry.name.rfind('/');
    const std::string last = entry.name.substr(slash == std::string::npos ? 0 : slash + 1);
    if (last.size() < 2 || last[0] != '[') return std::nullopt;
    std::size_t pos = 1;
    while (pos < last.size() && last[pos] >= '0' && last[pos] <= '9') ++pos;
    if (pos == 1 || pos == last.size() || last[pos] != ']') return std::nullopt;
    const std::string suffix = opc::detail::ascii_lower(last.substr(pos + 1));
    if (suffix != ".piece" && suffix != ".last.piece") return std::nullopt;
    // One spelling per number, and no number beyond what an entry count allows.
    const std::string digits = last.substr(1, pos - 1);
    if ((digits.size() > 1 && digits[0] == '0') || digits.size() > 9)
        refuse("\"" + entry.name + "\" is not a valid piece name");
    if (slash == std::string::npos) refuse("\"" + entry.name + "\" is a piece of no part");
    return Piece{entry.name.substr(0, slash), std::stoull(digits), suffix == ".last.piece",
                 entry.index};
}

// The pieces of one part, in any order as found, checked to run from
// [0].piece to one [n].last.piece without a gap, and described as one entry
// whose sizes are their sums and whose CRC-32 is that of their bytes in turn.
void join_pieces(PartRecord& part, std::vector<Piece>& pieces,
                 const std::vector<PhysicalEntry>& entries) {
    std::sort(pieces.begin(), pieces.end(),
              [](const Piece& a, const Piece& b) { return a.number < b.number; });
    const std::string shown = "the interleaved part \"" + part.name.ascii() + "\"";
    PhysicalEntry joined = entries.at(pieces.front().entryIndex);
    joined.name = pieces.front().partItem;
    joined.size = joined.compressedSize = 0;
    joined.crc32 = static_cast<std::uint32_t>(crc32(0L, Z_NULL, 0));
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (pieces[i].number != i) {
            refuse(shown +
                   (pieces[i].number < i ? " has two pieces numbered "
                                         : " lacks its piece numbered ") +
                   std::to_string(i - (pieces[i].number < i)));
        }
        if (pieces[i].last != (i + 1 == pieces.size()))
            refuse(shown + (pieces[i].last ? " has pieces after its last piece"
                                           : " has no last piece (\"[n].last.piece\")"));
        const PhysicalEntry& entry = entries.at(pieces[i].entryIndex);
        if (entry.size > UINT64_MAX - joined.size)
            refuse(shown + " declares more bytes than can be counted");
        if (entry.compressionMethod != joined.compressionMethod)
            joined.compressionMethod = PhysicalEntry::kDeflated;  // mixed: not one stored copy
        joined.crc32 = static_cast<std::uint32_t>(
            crc32_combine(joined.crc32, entry.crc32, static_cast<z_off_t>(entry.size)));
        joined.size += entry.size;
        joined.compressedSize += entry.compressedSize;
        part.pieces.push_back(entry.index);
    }
    part.joined = std::move(joined);
}

// Making a parser costs more than parsing the two documents, so each thread
// keeps one for every package it opens.
xercesc::DOMLSParser* package_xml_parser() {
    thread_local const XercesPtr<xercesc::DOMLSParser> parser(XercesHelper::createParser());
    return parser.get();
}

constexpr std::uint64_t kXmlLimit = XercesHelper::kMaxDocumentBytes;

void refuse_oversized_xml(std::uint64_t size) {
    if (size > kXmlLimit)
        throw InvalidXMLDocument("the XML document is larger than " + std::to_string(kXmlLimit) +
                                 " bytes");
}

// The item is parsed from bytes that stay in memory, so that digests are
// checked and files extracted from the same bytes the package was
// understood from. Past the parser's limit the item is refused as the
// parser would refuse it, before anything is read.
std::unique_ptr<InputStream> pinnedXml(opc::interfaces::IPhysicalPackage& container,
                                       const PhysicalEntry& entry) {
    refuse_oversized_xml(entry.size);
    container.pinEntry(entry.index, kXmlLimit);
    return container.openEntry(entry.index);
}

InputStream& pinnedXml(Part& part) {
    refuse_oversized_xml(part.getEntry().size);
    part.pin(kXmlLimit);
    return part.getInputStream();
}

Part part_of(opc::interfaces::IPhysicalPackage& container, const PartRecord& record) {
    if (!record.pieces.empty())
        return Part(container, record.name, record.contentType, record.pieces, record.joined);
    return Part(container, record.name, record.contentType, record.entryIndex);
}

}  // namespace

struct Package::State {
    std::vector<PartRecord> parts;
    std::unordered_map<std::string, std::size_t> byKey;
    std::vector<Relationship> relationships;
    std::uint64_t contentTypesIndex = 0;
    std::map<std::size_t, std::vector<Piece>> piecesOf;  // by index in `parts`, while opening

    void addPart(const PhysicalEntry& entry) {
        const std::optional<Piece> piece = piece_of(entry);
        PartName name = PartName::fromZipItemName(piece ? piece->partItem : entry.name);
        const auto [at, added] = byKey.emplace(name.key(), parts.size());
        if (added) {
            parts.push_back({std::move(name), {}, entry.index, {}, {}});
        } else if (!piece || piecesOf.count(at->second) == 0) {
            const std::string& known = parts[at->second].name.ascii();
            refuse(piece || piecesOf.count(at->second) != 0
                       ? "\"" + known + "\" is both a part and an interleaved part"
                       : "two items are named \"" + known + "\" ignoring case");
        }
        if (piece) piecesOf[at->second].push_back(*piece);
    }

    void joinPieces(const std::vector<PhysicalEntry>& entries) {
        for (auto& [index, pieces] : piecesOf) join_pieces(parts[index], pieces, entries);
        piecesOf.clear();
    }

    // "/a" beside "/a/b": a name may not be a folder of another.
    void refuseNestedNames() const {
        for (const PartRecord& part : parts) {
            const std::string& key = part.name.key();
            for (std::size_t slash = key.find('/', 1); slash != std::string::npos;
                 slash = key.find('/', slash + 1)) {
                const auto outer = byKey.find(key.substr(0, slash));
                if (outer != byKey.end()) {
                    refuse("the part \"" + parts[outer->second].name.ascii() + "\" lies above \"" +
                           part.name.ascii() + "\"");
                }
            }
        }
    }

    void assignContentTypes(const detail::ContentTypes& types) {
        for (PartRecord& part : parts) {
            const std::string* type = types.find(part.name);
            if (type == nullptr)
                refuse("the part \"" + part.name.ascii() + "\" has no content type");
            part.contentType = *type;
        }
    }
};

Package::Package(opc::interfaces::IPhysicalPackage& container) : container_(container) {}

Package::~Package() = default;

void Package::open(opc::interfaces::OpenMode mode) {
    if (mode != opc::interfaces::OpenMode::Read)
        throw opc::Exception("packages can only be opened for reading");
    if (state_) throw opc::Exception("the package is already open");
    auto state = std::make_unique<State>();
    const PhysicalEntry* contentTypes = nullptr;
    for (const PhysicalEntry& entry : container_.getEntries()) {
        if (is_content_types_item(entry.name)) {
            if (contentTypes != nullptr) refuse("it holds \"[Content_Types].xml\" twice");
            contentTypes = &entry;
        } else if (!entry.isDirectory()) {
            state->addPart(entry);
        }
    }
    if (contentTypes == nullptr) refuse("\"[Content_Types].xml\" is missing");
    state->joinPieces(container_.getEntries());
    state->contentTypesIndex = contentTypes->index;
    state->refuseNestedNames();
    xercesc::DOMLSParser* parser = package_xml_parser();
    const DocumentPoolReset poolReset(parser);
    state->assignContentTypes(
        detail::readContentTypes(parser, *pinnedXml(container_, *contentTypes)));

    const auto rels = state->byKey.find(kPackageRelationshipsKey);
    if (rels != state->byKey.end()) {
        const PartRecord& record = state->parts[rels->second];
        if (!detail::sameMediaType(record.contentType, kRelationshipsContentType)) {
            refuse("\"/_rels/.rels\" does not have the relationships content type");
        }
        Part part = part_of(container_, record);
        state->relationships =
            detail::readRelationships(parser, pinnedXml(part), u"/_rels/.rels", u"/");
    }
    state_ = std::move(state);
}

void Package::close() {
    state_.reset();
    container_.close();
}

const opc::interfaces::PhysicalEntry& Package::getContentTypesEntry() const {
    return container_.getEntries().at(openState().contentTypesIndex);
}

const Package::State& Package::openState() const {
    if (!state_) throw opc::Exception("the package is not open");
    return *state_;
}

Part Package::getPart(const PartName& name) const {
    const State& state = openState();
    const auto found = state.byKey.find(name.key());
    if (found == state.byKey.end())
        throw opc::Exception("the package has no part \"" + name.ascii() + "\"");
    return part_of(container_, state.parts[found->second]);
}

bool Package::containsPart(const PartName& name) const {
    return openState().byKey.count(name.key()) != 0;
}

std::vector<PartName> Package::getPartNames() const {
    std::vector<PartName> names;
    for (const PartRecord& part : openState().parts) names.push_back(part.name);
    return names;
}

std::vector<Relationship> Package::getRelationshipsByType(const std::u16string& type) const {
    std::vector<Relationship> matching;
    for (const Relationship& relationship : openState().relationships) {
        if (relationship.getType() == type) matching.push_back(relationship);
    }
    return matching;
}

const std::vector<Relationship>& Package::getRelationships() const {
    return openState().relationships;
}

std::vector<Relationship> readPartRelationships(InputStream& stream, const std::u16string& partName,
                                                const std::u16string& sourceBase) {
    xercesc::DOMLSParser* parser = package_xml_parser();
    const DocumentPoolReset poolReset(parser);
    return detail::readRelationships(parser, stream, partName, sourceBase);
}

}  // namespace opc::model
