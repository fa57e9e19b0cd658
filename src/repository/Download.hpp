#pragma once

// A package's download on given file operations, for the store's
// installer: its calls in the download folder go through the store's, so
// that the store's fault-injection tests reach them, and the finished file
// stays locked until the caller has installed and removed it, so that
// recovery can tell it from one a crash left.

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Transfer.hpp"
#include "platform/extract/FileOps.hpp"
#include "tsappinstall/repository/Client.hpp"

namespace tsappinstall::repository::detail {

struct Downloaded {
    std::filesystem::path path;
    opc::detail::OpsFd held;  // the file, locked (flock) exclusively
};

// Why a package cannot be fetched in ranges, as one line: the caller
// downloads it whole instead.
class NotRanged : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A file the installed version has, as its records give it.
struct HeldFile {
    std::uint64_t size = 0;
    std::string sha256;
};

// What a ranged download of a package fetches, worked out from its tail
// (end records and central directory) and its digest list, both fetched
// and checked for it: the list against the index's pin and, for a package
// the index lists as signed, its signature against the package anchors.
struct RangedPlan {
    std::set<std::string> absent;  // ZIP items left out: the installed version has them
    std::uint64_t download = 0;    // bytes fetched in all, the tail and the list's included
    std::uint64_t changed = 0;     // uncompressed bytes of the items fetched

    struct Item {
        std::string name;
        std::uint64_t header = 0;  // where its local header begins
        std::uint64_t end = 0;     // where the next item's (or the directory) begins
        std::uint64_t size = 0;
        std::uint64_t compressedSize = 0;
        std::uint16_t method = 0;
        std::uint32_t crc32 = 0;
        std::uint16_t dosTime = 0, dosDate = 0;
        std::string sha256;  // what its bytes must hash to
    };
    std::vector<Item> fetched;  // by offset: every item fetched, checked as it arrives
    std::vector<Item> left;     // by offset: the absent ones
    std::map<std::uint64_t, std::string> held;  // bytes fetched while planning, by offset
    std::vector<ByteSpan> spans;                // still to fetch, by offset
};

// Items closer than this are fetched with what lies between them: another
// request costs more than the bytes.
constexpr std::uint64_t kRangeGap = 64u << 10;
// Spans covering `items` (by offset), neighbours at most kRangeGap apart
// joined.
std::vector<ByteSpan> coalesced(const std::vector<const RangedPlan::Item*>& items);

struct DownloadAccess {
    // Repository::download() through `ops`.
    static Downloaded download(const Repository& repository, const PackageEntry& entry,
                               const std::filesystem::path& folder,
                               const opc::detail::FileOps& ops);

    // The plan of a ranged download of `entry` for an installed version
    // holding `installed` (by path). Throws NotRanged when the package
    // does not allow one (no pinned list, a list that does not name files
    // by path, a server that ignores ranges) and Error when what it
    // fetched lies: a directory that does not fit the package, a list or
    // signature that does not hold.
    static RangedPlan planRanged(const Repository& repository, const PackageEntry& entry,
                                 const std::map<std::string, HeldFile>& installed,
                                 const std::vector<std::string>& packageAnchors);
    // Writes the package sparsely into `folder`: what the plan holds and
    // what it still fetches, each item checked against the list as it
    // arrives, the absent ones left as holes, their local headers too (the
    // store opens the file with them left out).
    // Throws NotRanged when the server turns out to ignore ranges, Error
    // for a reply that lies; either way nothing is left in `folder`.
    static Downloaded downloadRanged(const Repository& repository, const PackageEntry& entry,
                                     const RangedPlan& plan, const std::filesystem::path& folder,
                                     const opc::detail::FileOps& ops);
};

}  // namespace tsappinstall::repository::detail
