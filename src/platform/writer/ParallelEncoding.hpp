#pragma once

// Parts encoded on several threads and handed back in their order, so the
// package's bytes do not depend on how many threads made them. Memory is
// bounded: a part is started only while the parts started and not yet
// written hold at most kBudgetBytes, except the one the writer waits for.

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/writer/PartEncoder.hpp"

namespace opc::zippackage::detail {

struct EncodingJob {
    std::uint64_t bytes = 0;  // what it costs while held
    std::function<EncodedPart(PartEncoder&)> encode;
};

class ParallelEncoding {
  public:
    static constexpr std::uint64_t kBudgetBytes = 16u << 20;

    ParallelEncoding(std::vector<EncodingJob> jobs, unsigned threads);
    ~ParallelEncoding();  // abandons what is left and joins the threads
    ParallelEncoding(const ParallelEncoding&) = delete;
    ParallelEncoding& operator=(const ParallelEncoding&) = delete;

    // Waits for job `index`, which must be the next not yet written;
    // rethrows what its encoding threw.
    EncodedPart take(std::size_t index);
    // Job `index` is written: its memory is free.
    void written(std::size_t index);

  private:
    struct Slot {
        std::optional<EncodedPart> part;
        std::exception_ptr error;
    };
    void work();
    bool mayStart(std::size_t index) const;

    std::vector<EncodingJob> jobs_;
    std::vector<Slot> slots_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t nextToStart_ = 0;
    std::size_t nextToWrite_ = 0;
    std::uint64_t heldBytes_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace opc::zippackage::detail
