#include "platform/opc/ItemLoop.hpp"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>

#include "tsappinstall/Threads.hpp"

namespace opc::model {
namespace {

// Large enough that the calls cost nothing next to inflating.
constexpr std::size_t kPiece = 256u << 10;

// One item to read: the content types (no part name) or a part.
struct Item {
    std::size_t order;
    const PartName* part;  // null for the content types
    std::uint64_t size;
};

// What a thread throws at itself to stop because another one failed.
struct Stopped {};

// The items still to read, taken by any number of threads, and the first
// failure among them.
class WorkQueue {
  public:
    explicit WorkQueue(std::vector<Item> items) : items_(std::move(items)) {}

    const Item* take() {
        const std::size_t at = next_++;
        return at < items_.size() && !stopped() ? &items_[at] : nullptr;
    }
    bool stopped() const { return stop_.load(std::memory_order_relaxed); }
    void fail(std::exception_ptr error) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!error_) error_ = std::move(error);
        stop_ = true;
    }
    void rethrow() {
        if (error_) std::rethrow_exception(error_);
    }

  private:
    std::vector<Item> items_;
    std::atomic<std::size_t> next_{0};
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::exception_ptr error_;
};

class Loop {
  public:
    Loop(Package& package, ItemSink& sink, const std::function<void()>& beforePiece,
         const WorkQueue* queue)
        : package_(package),
          sink_(sink),
          beforePiece_(beforePiece),
          queue_(queue),
          buffer_(kPiece) {}

    void readAll(WorkQueue& queue) {
        while (const Item* item = queue.take()) read(*item);
    }

  private:
    void read(const Item& item) {
        if (!item.part) {
            const auto& types = package_.getContentTypesEntry();
            if (!sink_.begin(types.name, nullptr, item.order)) return;
            std::unique_ptr<InputStream> stream;
            pour([&](std::vector<unsigned char>* lent) -> InputStream& {
                stream = package_.getPhysicalPackage().openEntry(types.index, lent);
                return *stream;
            });
            return;
        }
        // Destroyed with this round, and its stream and inflater with it.
        Part part = package_.getPart(*item.part);
        if (!sink_.begin(item.part->ascii(), &part, item.order)) return;
        pour([&](std::vector<unsigned char>* lent) -> InputStream& {
            return part.getInputStream(lent);
        });
    }

    // Only a failing read is the item's fault: what the sink throws, and a
    // cancellation, end the loop.
    void pour(const std::function<InputStream&(std::vector<unsigned char>* lent)>& open) {
        std::size_t size = 0;
        InputStream* in = nullptr;
        for (;;) {
            if (queue_ && queue_->stopped()) throw Stopped{};
            if (beforePiece_) beforePiece_();
            try {
                if (!in) in = &open(&stored_);
                size = in->read(buffer_.data(), buffer_.size());
            } catch (const Exception& e) {
                sink_.fail(e);
                return;
            }
            if (size == 0) break;
            sink_.update(buffer_.data(), size);
        }
        sink_.end();
    }

    Package& package_;
    ItemSink& sink_;
    const std::function<void()>& beforePiece_;
    const WorkQueue* queue_;  // null when this is the only thread
    std::vector<unsigned char> buffer_, stored_;
};

std::vector<Item> itemsOf(const Package& package, const std::vector<PartName>& names) {
    std::vector<Item> items{{0, nullptr, package.getContentTypesEntry().size}};
    for (std::size_t i = 0; i < names.size(); ++i)
        items.push_back({i + 1, &names[i], package.getPart(names[i]).getEntry().size});
    return items;
}

// Runs `loop` on the calling thread's share of the queue; any failure
// stops the others.
void share(Loop& loop, WorkQueue& queue) noexcept {
    try {
        loop.readAll(queue);
    } catch (const Stopped&) {
    } catch (...) {
        queue.fail(std::current_exception());
    }
}

}  // namespace

unsigned threadCount(unsigned asked) {
    return std::min(tsappinstall::jobsOrCores(asked), kMostThreads);
}

void readEveryItem(Package& package, ItemSink& sink, const std::function<void()>& beforePiece) {
    readEveryItem(package, std::vector<ItemSink*>{&sink}, beforePiece);
}

void readEveryItem(Package& package, const std::vector<ItemSink*>& sinks,
                   const std::function<void()>& beforePiece) {
    const std::vector<PartName> names = package.getPartNames();
    std::vector<Item> items = itemsOf(package, names);
    if (sinks.size() <= 1) {
        WorkQueue queue(std::move(items));
        Loop loop(package, *sinks.at(0), beforePiece, nullptr);
        loop.readAll(queue);
        return;
    }
    std::stable_sort(items.begin(), items.end(),
                     [](const Item& a, const Item& b) { return a.size > b.size; });
    WorkQueue queue(std::move(items));
    // A thread without an item of its own would only cost its buffer.
    std::vector<std::unique_ptr<Loop>> loops;
    for (std::size_t i = 0; i < std::min(sinks.size(), names.size() + 1); ++i)
        loops.push_back(std::make_unique<Loop>(package, *sinks[i], beforePiece, &queue));
    std::vector<std::thread> helpers;
    try {
        for (std::size_t i = 1; i < loops.size(); ++i)
            helpers.emplace_back([&loop = *loops[i], &queue] { share(loop, queue); });
    } catch (...) {
        queue.fail(std::current_exception());  // no thread to be had: stop those started
    }
    share(*loops[0], queue);
    for (auto& helper : helpers) helper.join();
    queue.rethrow();
}

}  // namespace opc::model
