#include <algorithm>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

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
    std::map<std::string, Expected> parts;              // by the name listed
    std::mutex mutex;                                   // what follows, and `seen` above
    std::vector<std::pair<std::size_t, Fault>> faults;  // with their item's order
    std::vector<Fault> sorted;                          // what finish() returns

    void fault(std::size_t order, FaultKind kind, const std::string& item, std::string detail) {
        std::lock_guard<std::mutex> lock(mutex);
        faults.push_back({order, {kind, item, std::move(detail)}});
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

    // The digest `item` must have, claimed for it; null, with a fault, when
    // it is not listed or was claimed before.
    const std::string* claim(const std::string& item, std::size_t order) {
        std::string why;
        Expected* expected = find(item, why);
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (expected != nullptr && !expected->seen) {
                expected->seen = true;
                return &expected->sha256;
            }
        }
        fault(order, FaultKind::UnlistedItem, item, expected ? "the package holds it twice" : why);
        return nullptr;
    }

    std::string partNameOf(const std::string& listed) const {
        return version == 1 ? "/" + listed : partNameOfPath(listed);
    }
};

DigestCheck::Item::Item(DigestCheck& check, const std::string& item, std::size_t order)
    : check_(check), item_(item), order_(order), expected_(check.state_->claim(item, order)) {}

DigestCheck::Item::~Item() = default;

void DigestCheck::Item::update(const void* data, std::size_t size) {
    if (expected_ != nullptr) hash_.update(data, size);
}

void DigestCheck::Item::end() {
    if (expected_ == nullptr) return;
    const std::string actual = hash_.finishHex();
    if (actual != *expected_)
        check_.state_->fault(order_, FaultKind::DigestMismatch, item_,
                             "SHA-256 is " + actual + ", the list says " + *expected_);
    expected_ = nullptr;
}

void DigestCheck::Item::abandon(const std::string& why) {
    if (expected_ != nullptr) check_.state_->fault(order_, FaultKind::UnreadableItem, item_, why);
    expected_ = nullptr;
}

DigestCheck::DigestCheck(const DigestList& expected) : state_(std::make_unique<State>()) {
    state_->version = expected.version;
    state_->contentTypes.sha256 = expected.contentTypesSha256;
    for (const DigestEntry& entry : expected.parts) state_->parts[entry.name] = {entry.sha256};
}

DigestCheck::~DigestCheck() = default;

void DigestCheck::begin(const std::string& item) {
    current_ = std::make_unique<Item>(*this, item, begun_++);
}

void DigestCheck::update(const void* data, std::size_t size) {
    if (current_) current_->update(data, size);
}

void DigestCheck::end() {
    if (current_) current_->end();
    current_.reset();
}

void DigestCheck::abandon(const std::string& why) {
    if (current_) current_->abandon(why);
    current_.reset();
}

void DigestCheck::taken(const std::string& item, const std::string& sha256, std::size_t order) {
    const std::string* expected = state_->claim(item, order);
    if (expected != nullptr && *expected != sha256)
        state_->fault(order, FaultKind::DigestMismatch, item,
                      "SHA-256 is " + sha256 + ", the list says " + *expected);
}

const std::vector<Fault>& DigestCheck::finish() {
    State& s = *state_;
    const std::size_t last = SIZE_MAX;
    const auto missing = [&](Expected& expected, const std::string& item) {
        if (!expected.seen)
            s.faults.push_back(
                {last, {FaultKind::MissingItem, item, "listed but not in the package"}});
        expected.seen = true;  // a second finish adds nothing
    };
    if (!s.contentTypes.sha256.empty()) missing(s.contentTypes, CONTENT_TYPES_ITEM);
    for (auto& [name, expected] : s.parts) missing(expected, s.partNameOf(name));
    std::stable_sort(s.faults.begin(), s.faults.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    s.sorted.clear();
    for (const auto& fault : s.faults) s.sorted.push_back(fault.second);
    return s.sorted;
}

}  // namespace tsappinstall::integrity
