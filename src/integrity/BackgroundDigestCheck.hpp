#pragma once

// Feeds the parts an extraction writes to a DigestCheck on a thread of its
// own: hashing then overlaps inflating and writing instead of adding to
// them (SHA-256 costs about half what extraction does here). Parts travel
// in batches of about a megabyte, so that a package of many small parts
// costs a few hundred hand-overs between the threads, not one per part.

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"

namespace tsappinstall::integrity::detail {

// What beforeCommit() throws when the digests disagree; the extraction is
// then rolled back.
struct DigestFaults {
    std::vector<Fault> faults;
};

class BackgroundDigestCheck final : public opc::extraction::PartObserver {
  public:
    // `check` must outlive this object. Parts in `skipped` (the digest
    // and signature parts) are not fed to it.
    BackgroundDigestCheck(DigestCheck& check, std::vector<opc::model::PartName> skipped);
    ~BackgroundDigestCheck() override;
    BackgroundDigestCheck(const BackgroundDigestCheck&) = delete;
    BackgroundDigestCheck& operator=(const BackgroundDigestCheck&) = delete;

    void begin(const opc::model::PartName& part) override;
    void update(const unsigned char* data, std::size_t size) override;
    void end() override;
    // Checked at once, on the calling thread: nothing is left to hash.
    void taken(const opc::model::PartName& part, const std::string& sha256) override;
    // Waits for the hashing thread; throws DigestFaults.
    void beforeCommit() override;

  private:
    struct Event {
        enum Kind { Begin, Bytes, End } kind;
        std::string item;              // Begin
        std::size_t from = 0, to = 0;  // Bytes: a range of the batch's bytes
    };
    struct Batch {
        std::vector<Event> events;
        std::vector<unsigned char> bytes;
    };

    void post(bool last);
    void run();
    void hash(const Batch& batch);
    void stop() noexcept;

    static constexpr std::size_t kBatchBytes = 1 << 20;
    // Batches waiting at most: the extraction may run this far ahead.
    static constexpr std::size_t kMaxQueued = 4;

    DigestCheck& check_;
    std::vector<opc::model::PartName> skipped_;
    bool skipping_ = false;
    Batch filling_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Batch> queue_;
    std::vector<Batch> spare_;  // hashed batches, their memory reused
    bool stopping_ = false;     // no more batches come
    std::exception_ptr error_;  // the worker's; read by others only after join()
    std::thread worker_;
};

}  // namespace tsappinstall::integrity::detail
