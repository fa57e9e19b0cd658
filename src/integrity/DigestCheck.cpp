#include <map>

#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"

namespace tsappinstall::integrity {
namespace {

struct Expected {
    std::string sha256;
    bool seen = false;
};

// The part a version-2 list means by a path: the name the writer gives it.
std::string partNameOfPath(const std::string& path) {
    try {
        return opc::model::PartName::forPath(path);
    } catch (const opc::Exception&) {
        return "/" + path;  // no part has it; shown as it is listed
    }
}

}  // namespace

struct DigestCheck::State {
    int version = 2;
    Expected contentTypes;
    std::map<std::string, Expected> parts;  // by the name listed
    std::vector<Fault> faults;
    Expected* current = nullptr;  // null while between items or skipping one
    std::string currentItem;
    Sha256 hash;

    void fault(FaultKind kind, const std::string& item, std::string detail) {
        faults.push_back({kind, item, std::move(detail)});
    }

    // What the list says about `item`; null, with the reason, when nothing.
    Expected* find(const std::string& item, std::string& why) {
        why = "not in the digest list";
        if (item == CONTENT_TYPES_ITEM)
            return contentTypes.sha256.empty() ? nullptr : &contentTypes;
        if (item.empty() || item.front() != '/') return nullptr;
        try {
            const auto found = parts.find(listedName(item, version));
            return found == parts.end() ? nullptr : &found->second;
        } catch (const opc::Exception& e) {
            why = e.what();
            return nullptr;
        }
    }

    std::string partNameOf(const std::string& listed) const {
        return version == 1 ? "/" + listed : partNameOfPath(listed);
    }
};

DigestCheck::DigestCheck(const DigestList& expected) : state_(std::make_unique<State>()) {
    state_->version = expected.version;
    state_->contentTypes.sha256 = expected.contentTypesSha256;
    for (const DigestEntry& entry : expected.parts) state_->parts[entry.name] = {entry.sha256};
}

DigestCheck::~DigestCheck() = default;

void DigestCheck::begin(const std::string& item) {
    State& s = *state_;
    s.current = nullptr;
    s.currentItem = item;
    std::string why;
    Expected* expected = s.find(item, why);
    if (expected == nullptr) {
        s.fault(FaultKind::UnlistedItem, item, why);
    } else if (expected->seen) {
        s.fault(FaultKind::UnlistedItem, item, "the package holds it twice");
    } else {
        s.current = expected;
        s.current->seen = true;
    }
}

void DigestCheck::update(const void* data, std::size_t size) {
    if (state_->current != nullptr) state_->hash.update(data, size);
}

void DigestCheck::end() {
    State& s = *state_;
    const std::string actual = s.hash.finishHex();
    if (s.current != nullptr && actual != s.current->sha256)
        s.fault(FaultKind::DigestMismatch, s.currentItem,
                "SHA-256 is " + actual + ", the list says " + s.current->sha256);
    s.current = nullptr;
}

void DigestCheck::abandon(const std::string& why) {
    State& s = *state_;
    s.hash.finishHex();
    if (s.current != nullptr) s.fault(FaultKind::UnreadableItem, s.currentItem, why);
    s.current = nullptr;
}

const std::vector<Fault>& DigestCheck::finish() {
    State& s = *state_;
    const auto missing = [&](Expected& expected, const std::string& item) {
        if (!expected.seen) s.fault(FaultKind::MissingItem, item, "listed but not in the package");
        expected.seen = true;  // a second finish adds nothing
    };
    if (!s.contentTypes.sha256.empty()) missing(s.contentTypes, CONTENT_TYPES_ITEM);
    for (auto& [name, expected] : s.parts) missing(expected, s.partNameOf(name));
    return s.faults;
}

}  // namespace tsappinstall::integrity
