#pragma once

// The one read of a package's items: every reader that needs their bytes
// (extraction, the package check, verification, the packer's hashing)
// pours them through this loop into a sink of its own, so that each byte is
// read from the file once and checked (size and CRC-32) on the way.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/Package.hpp"

namespace opc::model {

class ItemSink {
  public:
    virtual ~ItemSink() = default;
    // Whether to read the item `item`: "[Content_Types].xml" as the
    // container names it (`part` null: it is no part), or a part by name.
    // `order` is the item's place in the container's order (0 for the
    // content types, then the parts), whichever order the loop reads them
    // in: a sink that reports per item sorts by it.
    virtual bool begin(const std::string& item, Part* part, std::size_t order) = 0;
    virtual void update(const unsigned char* data, std::size_t size) = 0;
    virtual void end() = 0;
    // The item could not be read whole: its bytes failed their size or
    // CRC-32 check, or the file failed. The loop goes on with the next item
    // unless this throws.
    virtual void fail(const Exception& error) = 0;
};

// Reads "[Content_Types].xml", then every part in the container's order,
// through its checked stream, in pieces of one buffer reused for all.
// `beforePiece`, when set, runs before each piece is read: a cancellation
// may throw from it.
void readEveryItem(Package& package, ItemSink& sink, const std::function<void()>& beforePiece = {});

// The same read on as many threads as there are sinks, or items if fewer
// (the calling thread is one of them), each pouring the items it takes
// into its own sink, so sinks share nothing the loop knows of. With
// several sinks the largest items are taken first, so that a big part
// starts at once while the others share the rest. When a sink or
// `beforePiece` (called from every thread) throws, the other threads stop
// before their next piece, leaving their sinks where they were, and the
// first exception is rethrown once all have stopped.
void readEveryItem(Package& package, const std::vector<ItemSink*>& sinks,
                   const std::function<void()>& beforePiece = {});

// The sinks of a read on `threads` threads, the i-th made by `make(i)`,
// and the pointers the read takes.
template <class Sink>
struct SinksPerThread {
    std::vector<std::unique_ptr<Sink>> owned;
    std::vector<ItemSink*> sinks;

    template <class Make>
    SinksPerThread(unsigned threads, Make make) {
        for (unsigned i = 0; i < threads; ++i) {
            owned.push_back(make(i));
            sinks.push_back(owned.back().get());
        }
    }
};

// The threads a caller asking for `asked` gets: 0 asks for one per core,
// and none gets more than kMostThreads (each holds its buffers).
inline constexpr unsigned kMostThreads = 64;
unsigned threadCount(unsigned asked);

}  // namespace opc::model
