#pragma once

// Feeds the parts an extraction writes to a DigestCheck on a thread of its
// own: hashing then overlaps inflating and writing instead of adding to
// them (SHA-256 runs at about the speed extraction does).

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
    // Waits for the hashing thread; throws DigestFaults.
    void beforeCommit() override;

  private:
    enum class Kind { Begin, Bytes, End, Stop };
    struct Message {
        Kind kind;
        std::string item;                  // Begin
        std::vector<unsigned char> bytes;  // Bytes
    };

    void post(Message message);
    void run();
    void stop() noexcept;

    // Chunks waiting at most: the extraction may run this far ahead.
    static constexpr std::size_t kMaxQueued = 16;

    DigestCheck& check_;
    std::vector<opc::model::PartName> skipped_;
    bool skipping_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Message> queue_;
    std::vector<std::vector<unsigned char>> spare_;  // drained chunks, reused
    std::exception_ptr error_;
    std::thread worker_;
};

}  // namespace tsappinstall::integrity::detail
