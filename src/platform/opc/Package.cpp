#include "tsappinstall/platform/opc/Package.hpp"

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
    std::uint64_t entryIndex;
};

[[noreturn]] void refuse(const std::string& why) {
    throw opc::Exception(opc::Reason::NotPackage, "not a valid package: " + why);
}

bool is_content_types_item(const std::string& itemName) {
    return opc::detail::ascii_iequals(itemName, "[Content_Types].xml");
}

// "[3].piece" and "[7].last.piece", in any case.
bool is_interleaved_piece(const std::string& itemName) {
    const std::string last = itemName.substr(itemName.rfind('/') + 1);
    if (last.size() < 2 || last[0] != '[') return false;
    std::size_t pos = 1;
    while (pos < last.size() && last[pos] >= '0' && last[pos] <= '9') ++pos;
    if (pos == 1 || pos == last.size() || last[pos] != ']') return false;
    const std::string rest = opc::detail::ascii_lower(last.substr(pos + 1));
    return rest == ".piece" || rest == ".last.piece";
}

// Making a parser costs more than parsing the two documents, so each thread
// keeps one for every package it opens.
xercesc::DOMLSParser* package_xml_parser() {
    thread_local const XercesPtr<xercesc::DOMLSParser> parser(XercesHelper::createParser());
    return parser.get();
}

// The item is parsed from bytes that stay in memory, so that digests are
// checked and files extracted from the same bytes the package was
// understood from. Past the parser's limit the item is refused as the
// parser would refuse it, before anything is read.
std::unique_ptr<InputStream> pinnedXml(opc::interfaces::IPhysicalPackage& container,
                                       const PhysicalEntry& entry) {
    constexpr std::uint64_t kLimit = XercesHelper::kMaxDocumentBytes;
    if (entry.size > kLimit)
        throw InvalidXMLDocument("the XML document is larger than " + std::to_string(kLimit) +
                                 " bytes");
    container.pinEntry(entry.index, kLimit);
    return container.openEntry(entry.index);
}

}  // namespace

struct Package::State {
    std::vector<PartRecord> parts;
    std::unordered_map<std::string, std::size_t> byKey;
    std::vector<Relationship> relationships;
    std::uint64_t contentTypesIndex = 0;

    void addPart(const PhysicalEntry& entry) {
        if (is_interleaved_piece(entry.name)) {
            refuse("\"" + entry.name +
                   "\" is a piece of an interleaved part; interleaving is not supported");
        }
        PartName name = PartName::fromZipItemName(entry.name);
        if (!byKey.emplace(name.key(), parts.size()).second) {
            refuse("two items are named \"" + parts[byKey[name.key()]].name.ascii() +
                   "\" ignoring case");
        }
        parts.push_back({std::move(name), {}, entry.index});
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
    state->contentTypesIndex = contentTypes->index;
    state->refuseNestedNames();
    xercesc::DOMLSParser* parser = package_xml_parser();
    const DocumentPoolReset poolReset(parser);
    state->assignContentTypes(
        detail::readContentTypes(parser, *pinnedXml(container_, *contentTypes)));

    const auto rels = state->byKey.find(kPackageRelationshipsKey);
    if (rels != state->byKey.end()) {
        if (state->parts[rels->second].contentType != kRelationshipsContentType) {
            refuse("\"/_rels/.rels\" does not have the relationships content type");
        }
        const PhysicalEntry& entry =
            container_.getEntries().at(state->parts[rels->second].entryIndex);
        state->relationships =
            detail::readRelationships(parser, *pinnedXml(container_, entry), u"/_rels/.rels", u"/");
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
    const PartRecord& record = state.parts[found->second];
    return Part(container_, record.name, record.contentType, record.entryIndex);
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
