#include "BackgroundDigestCheck.hpp"

#include <algorithm>
#include <cstdint>

namespace tsappinstall::integrity::detail {

BackgroundDigestCheck::BackgroundDigestCheck(DigestCheck& check,
                                             std::vector<opc::model::PartName> skipped)
    : check_(check), skipped_(std::move(skipped)) {
    spare_.reserve(kMaxQueued);  // so that the worker's push_back never allocates
    worker_ = std::thread([this] { run(); });
}

BackgroundDigestCheck::~BackgroundDigestCheck() {
    stop();
}

void BackgroundDigestCheck::begin(const opc::model::PartName& part) {
    skipping_ = std::find(skipped_.begin(), skipped_.end(), part) != skipped_.end();
    if (!skipping_) filling_.events.push_back({Event::Begin, part.ascii(), 0, 0});
}

void BackgroundDigestCheck::update(const unsigned char* data, std::size_t size) {
    if (skipping_ || size == 0) return;
    auto& bytes = filling_.bytes;
    auto& events = filling_.events;
    if (events.empty() || events.back().kind != Event::Bytes)
        events.push_back({Event::Bytes, {}, bytes.size(), bytes.size()});
    bytes.insert(bytes.end(), data, data + size);
    events.back().to = bytes.size();
    if (bytes.size() >= kBatchBytes) post(false);
}

void BackgroundDigestCheck::end() {
    if (!skipping_) filling_.events.push_back({Event::End, {}, 0, 0});
    skipping_ = false;
}

void BackgroundDigestCheck::taken(const opc::model::PartName& part, const std::string& sha256) {
    if (std::find(skipped_.begin(), skipped_.end(), part) != skipped_.end()) return;
    check_.taken(part.ascii(), sha256, SIZE_MAX - 1);
}

void BackgroundDigestCheck::beforeCommit() {
    stop();
    if (error_) std::rethrow_exception(error_);
    const std::vector<Fault>& faults = check_.finish();
    if (!faults.empty()) throw DigestFaults{faults};
}

// Hands the batch being filled to the worker and starts another. The
// last one may pass the bound, so that stopping never waits on a full
// queue.
void BackgroundDigestCheck::post(bool last) {
    Batch next;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!last) changed_.wait(lock, [this] { return queue_.size() < kMaxQueued; });
        queue_.push_back(std::move(filling_));
        if (!spare_.empty()) {
            next = std::move(spare_.back());
            spare_.pop_back();
        }
    }
    changed_.notify_all();
    next.events.clear();
    next.bytes.clear();
    filling_ = std::move(next);
}

void BackgroundDigestCheck::stop() noexcept {
    if (!worker_.joinable()) return;
    std::exception_ptr lost;  // the last batch, when there was no memory to queue it
    try {
        post(true);
    } catch (...) {
        lost = std::current_exception();
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    worker_.join();
    if (lost && !error_) error_ = lost;
}

void BackgroundDigestCheck::run() {
    for (;;) {
        Batch batch;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !queue_.empty() || stopping_; });
            if (queue_.empty()) return;
            batch = std::move(queue_.front());
            queue_.pop_front();
        }
        changed_.notify_all();
        // After a failure the rest is drained unread, so the extraction
        // never waits on a full queue.
        if (!error_) {
            try {
                hash(batch);
            } catch (...) {
                error_ = std::current_exception();
            }
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (spare_.size() < kMaxQueued) spare_.push_back(std::move(batch));
    }
}

void BackgroundDigestCheck::hash(const Batch& batch) {
    for (const Event& event : batch.events) {
        if (event.kind == Event::Begin)
            check_.begin(event.item);
        else if (event.kind == Event::Bytes)
            check_.update(batch.bytes.data() + event.from, event.to - event.from);
        else
            check_.end();
    }
}

}  // namespace tsappinstall::integrity::detail
