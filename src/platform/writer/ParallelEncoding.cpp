#include "platform/writer/ParallelEncoding.hpp"

#include <algorithm>

namespace opc::zippackage::detail {

ParallelEncoding::ParallelEncoding(std::vector<EncodingJob> jobs, unsigned threads)
    : jobs_(std::move(jobs)), slots_(jobs_.size()) {
    const std::size_t count =
        std::max<std::size_t>(1, std::min<std::size_t>(threads, jobs_.size()));
    for (std::size_t i = 0; i < count; ++i) threads_.emplace_back([this] { work(); });
}

ParallelEncoding::~ParallelEncoding() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

// The job the writer waits for always may start, or nothing would move.
bool ParallelEncoding::mayStart(std::size_t index) const {
    const EncodingJob& job = jobs_[index];
    return index == nextToWrite_ || heldBytes_ + job.bytes <= kBudgetBytes;
}

void ParallelEncoding::work() {
    PartEncoder encoder;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] {
            return stopping_ || nextToStart_ == jobs_.size() || mayStart(nextToStart_);
        });
        if (stopping_ || nextToStart_ == jobs_.size()) return;
        const std::size_t index = nextToStart_++;
        EncodingJob& job = jobs_[index];
        heldBytes_ += job.bytes;
        lock.unlock();
        Slot slot;
        try {
            slot.part = job.encode(encoder);
        } catch (...) {
            slot.error = std::current_exception();
        }
        job.encode = nullptr;  // what it captured goes now
        lock.lock();
        slots_[index] = std::move(slot);
        changed_.notify_all();
    }
}

EncodedPart ParallelEncoding::take(std::size_t index) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return slots_[index].part || slots_[index].error; });
    Slot slot = std::move(slots_[index]);
    slots_[index] = {};
    if (slot.error) std::rethrow_exception(slot.error);
    return std::move(*slot.part);
}

void ParallelEncoding::written(std::size_t index) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        heldBytes_ -= jobs_[index].bytes;
        nextToWrite_ = index + 1;
    }
    changed_.notify_all();
}

}  // namespace opc::zippackage::detail
