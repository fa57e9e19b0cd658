#pragma once

// Fetching bytes from a repository's location: a folder, a file: URL or an
// http(s): URL. Whatever the source, no more than a given limit is taken,
// and a transfer that stalls, runs past its deadline, fails or leaves the
// server's host ends with an Error naming why.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tsappinstall::repository {

// What the transfers from one repository share: one transfer handle, and
// with it the server's connection and TLS session, so that the index, its
// signature and the packages of one command arrive over one connection.
// It owns the handle alone, so it is never copied.
class Connection {
  public:
    Connection();
    ~Connection();

    struct Handle;
    Handle& handle();

  private:
    std::unique_ptr<Handle> handle_;
};

// When a transfer must be over, however steadily its bytes arrive: a
// server that sends a byte now and then would otherwise never be caught
// by the stall rule.
class Deadline {
  public:
    Deadline() = default;  // none
    explicit Deadline(long seconds);
    // Whether it has passed, or will within `slackMillis` (a timer set to
    // it may fire a moment early).
    bool passed(long slackMillis = 0) const;
    // What is left, at least 1 ms while it has not passed.
    long remainingMillis() const;
    // "NAME: not received within N seconds" as the Error to throw.
    [[noreturn]] void fail(const std::string& name) const;

  private:
    std::chrono::steady_clock::time_point at_ = std::chrono::steady_clock::time_point::max();
    long seconds_ = 0;
};

struct TransferOptions {
    std::string serverCa;  // PEM file replacing the system's CA store
    long stallSeconds = 30;
    Deadline deadline;
    std::function<void(std::uint64_t)> progress;  // bytes received in this transfer
    Connection* connection = nullptr;             // kept between transfers when given
};

// Where the bytes go. start() comes before the first byte and tells
// whether the source honoured the offset asked for (false: it starts over
// from the first byte); write() may throw to stop the transfer.
struct TransferSink {
    std::function<void(bool resumed)> start;
    std::function<void(const char* data, std::size_t size)> write;
};

// Fetches `name` below `location` from byte `from` on. Throws Error: a
// file that is not there (none in the folder, HTTP 404 or 410) or that is
// not a regular file (a FIFO would block the reader) as CannotRead, any
// other failure (timeouts, TLS, another host, other HTTP statuses) as
// DownloadFailed; passes on what the sink throws.
void fetch(const std::string& location, const std::string& name, std::uint64_t from,
           const TransferOptions& options, const TransferSink& sink);

// Bytes [from, to) of a file.
struct ByteSpan {
    std::uint64_t from = 0;
    std::uint64_t to = 0;
    std::uint64_t size() const { return to - from; }
};

// What fetchSpans() throws when an http(s) server answers a range with the
// whole file (HTTP 200): it does not serve ranges, and a caller that
// wanted a few parts takes the whole package instead.
class RangesIgnored : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Fetches `spans` of `name`, a file of `total` bytes, one after another
// over the options' connection, handing each piece to `write` with its
// offset in the file. An http(s) reply must be HTTP 206 with a
// Content-Range naming exactly the span asked and `total`, and carry
// exactly the span's bytes; a folder's or file: URL's file is read with
// pread and must be `total` bytes long. Throws Error: DownloadFailed for a
// reply that breaks these rules (naming how) or a transfer that fails,
// SizeMismatch for a file whose size is no longer `total`, CannotRead as
// fetch() does; RangesIgnored as above; passes on what `write` throws.
void fetchSpans(
    const std::string& location, const std::string& name, std::uint64_t total,
    const std::vector<ByteSpan>& spans, const TransferOptions& options,
    const std::function<void(std::uint64_t offset, const char* data, std::size_t size)>& write);

// Whether `location` is an http: or https: URL rather than a local one.
bool isRemote(const std::string& location);

}  // namespace tsappinstall::repository
