#include "BackgroundDigestCheck.hpp"

#include <algorithm>

namespace tsappinstall::integrity::detail {

BackgroundDigestCheck::BackgroundDigestCheck(DigestCheck& check,
                                             std::vector<opc::model::PartName> skipped)
    : check_(check), skipped_(std::move(skipped)), worker_([this] { run(); }) {}

BackgroundDigestCheck::~BackgroundDigestCheck() {
    stop();
}

void BackgroundDigestCheck::begin(const opc::model::PartName& part) {
    skipping_ = std::find(skipped_.begin(), skipped_.end(), part) != skipped_.end();
    if (!skipping_) post({Kind::Begin, part.zipItemName(), {}});
}

void BackgroundDigestCheck::update(const unsigned char* data, std::size_t size) {
    if (skipping_ || size == 0) return;
    Message message{Kind::Bytes, {}, {}};
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!spare_.empty()) {
            message.bytes = std::move(spare_.back());
            spare_.pop_back();
        }
    }
    message.bytes.assign(data, data + size);
    post(std::move(message));
}

void BackgroundDigestCheck::end() {
    if (!skipping_) post({Kind::End, {}, {}});
    skipping_ = false;
}

void BackgroundDigestCheck::beforeCommit() {
    stop();
    if (error_) std::rethrow_exception(error_);
    const std::vector<Fault>& faults = check_.finish();
    if (!faults.empty()) throw DigestFaults{faults};
}

void BackgroundDigestCheck::post(Message message) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return queue_.size() < kMaxQueued; });
    queue_.push_back(std::move(message));
    changed_.notify_all();
}

void BackgroundDigestCheck::stop() noexcept {
    if (!worker_.joinable()) return;
    {
        // Past the bound if need be: the worker drains the queue whatever
        // happens, so it will see this.
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back({Kind::Stop, {}, {}});
    }
    changed_.notify_all();
    worker_.join();
}

void BackgroundDigestCheck::run() {
    for (;;) {
        Message message;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !queue_.empty(); });
            message = std::move(queue_.front());
            queue_.pop_front();
            changed_.notify_all();
        }
        if (message.kind == Kind::Stop) return;
        if (error_) continue;  // drain, so that the extraction never waits forever
        try {
            switch (message.kind) {
                case Kind::Begin:
                    check_.begin(message.item);
                    break;
                case Kind::Bytes:
                    check_.update(message.bytes.data(), message.bytes.size());
                    break;
                default:
                    check_.end();
            }
        } catch (...) {
            error_ = std::current_exception();
        }
        if (message.kind == Kind::Bytes) {
            std::lock_guard<std::mutex> lock(mutex_);
            spare_.push_back(std::move(message.bytes));
        }
    }
}

}  // namespace tsappinstall::integrity::detail
