#include <map>

#include "tsappinstall/integrity/Digests.hpp"

namespace tsappinstall::integrity {

struct DigestCheck::State {
    struct Expected {
        std::string sha256;
        bool seen = false;
    };
    std::map<std::string, Expected> expected;
    std::vector<Fault> faults;
    Expected* current = nullptr;  // null while between items or skipping one
    std::string currentItem;
    Sha256 hash;

    void fault(FaultKind kind, const std::string& item, std::string detail) {
        faults.push_back({kind, partNameOfItem(item), std::move(detail)});
    }
};

DigestCheck::DigestCheck(const std::vector<DigestEntry>& expected)
    : state_(std::make_unique<State>()) {
    for (const DigestEntry& entry : expected) state_->expected[entry.item] = {entry.sha256};
}

DigestCheck::~DigestCheck() = default;

void DigestCheck::begin(const std::string& item) {
    State& s = *state_;
    s.current = nullptr;
    s.currentItem = item;
    const auto found = s.expected.find(item);
    if (found == s.expected.end()) {
        s.fault(FaultKind::UnlistedItem, item, "not in the digest list");
    } else if (found->second.seen) {
        s.fault(FaultKind::UnlistedItem, item, "the package holds it twice");
    } else {
        s.current = &found->second;
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
    for (auto& [item, expected] : s.expected) {
        if (!expected.seen) s.fault(FaultKind::MissingItem, item, "listed but not in the package");
        expected.seen = true;  // a second finish adds nothing
    }
    return s.faults;
}

}  // namespace tsappinstall::integrity
