// Ranged downloads: of a package whose installed version holds most of
// its files, only the end of the ZIP file, the digest list and the items
// that differ are fetched. Everything fetched is hostile until checked:
// the directory must fit the package the index lists, the list must be the
// one the index pins, and each item must hash to what the list says before
// the next one is taken.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "Download.hpp"
#include "PartialFile.hpp"
#include "Transfer.hpp"
#include "platform/base/Random.hpp"
#include "platform/zip/Inflater.hpp"
#include "platform/zip/ZipDirectory.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/ZipPhysicalPackage.hpp"

namespace tsappinstall::repository::detail {
namespace {

using Item = RangedPlan::Item;
using Reader = std::function<void(std::uint64_t offset, unsigned char* into, std::size_t count)>;

// The first bite of the tail: the whole directory of a package of a few
// dozen files, so that most plans take one request for it.
constexpr std::uint64_t kFirstTail = 8192;
constexpr std::size_t kLocalHeaderBytes = 30;
constexpr std::uint32_t kLocalHeaderSignature = 0x04034b50;
// The app's own files: only these may be taken from the installed version.
// The manifest, the relationships and the images are the package's and
// always come along.
const char* const kFilesFolder = "files/";

[[noreturn]] void refuse(FaultKind kind, const PackageEntry& entry, const std::string& why) {
    throw Error(kind, entry.file + ": " + why);
}

std::string inQuotes(const std::string& name) {
    return "\"" + name + "\"";
}

std::uint16_t le16(const unsigned char* p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}
std::uint32_t le32(const unsigned char* p) {
    return static_cast<std::uint32_t>(le16(p)) | (static_cast<std::uint32_t>(le16(p + 2)) << 16);
}
void put16(std::string& out, std::uint16_t v) {
    out += static_cast<char>(v & 0xFF);
    out += static_cast<char>(v >> 8);
}
void put32(std::string& out, std::uint32_t v) {
    put16(out, static_cast<std::uint16_t>(v & 0xFFFF));
    put16(out, static_cast<std::uint16_t>(v >> 16));
}

// Bytes of the package in hand, by offset.
class Held {
  public:
    void add(std::uint64_t offset, std::string bytes) { spans_[offset] = std::move(bytes); }
    bool covers(std::uint64_t from, std::uint64_t to) const {
        const auto found = spans_.upper_bound(from);
        if (found == spans_.begin()) return false;
        const auto& [at, bytes] = *std::prev(found);
        return at + bytes.size() >= to;
    }
    void read(std::uint64_t offset, unsigned char* into, std::size_t count) const {
        if (!covers(offset, offset + count))
            throw Error(FaultKind::Other, "bytes " + std::to_string(offset) + "+" +
                                              std::to_string(count) +
                                              " of the package are not held");
        const auto& [at, bytes] = *std::prev(spans_.upper_bound(offset));
        std::memcpy(into, bytes.data() + (offset - at), count);
    }
    std::uint64_t bytes() const {
        std::uint64_t sum = 0;
        for (const auto& [at, bytes] : spans_) sum += bytes.size();
        return sum;
    }
    const std::map<std::uint64_t, std::string>& spans() const { return spans_; }

  private:
    std::map<std::uint64_t, std::string> spans_;
};

// The raw bytes [from, from + size) through a reader, as a stream.
class ReaderStream : public opc::InputStream {
  public:
    ReaderStream(const Reader& read, std::uint64_t from, std::uint64_t size)
        : read_(read), at_(from), left_(size) {}
    std::size_t read(unsigned char* buffer, std::size_t size) override {
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(size, left_));
        if (n == 0) return 0;
        read_(at_, buffer, n);
        at_ += n;
        left_ -= n;
        return n;
    }

  private:
    const Reader& read_;
    std::uint64_t at_;
    std::uint64_t left_;
};

// Decodes `item` through `read` into `out`: its local header must name it
// with its method, and its data must end before the next item begins; what
// comes out must be its size (and, inflated, its CRC-32).
void decodeItem(const PackageEntry& entry, const Reader& read, const Item& item,
                const std::function<void(const unsigned char*, std::size_t)>& out) {
    const std::string what = "the item " + inQuotes(item.name);
    if (item.end - item.header < kLocalHeaderBytes + item.name.size())
        refuse(FaultKind::NotZip, entry, what + " has no room for its local header");
    std::vector<unsigned char> header(kLocalHeaderBytes + item.name.size());
    read(item.header, header.data(), header.size());
    if (le32(header.data()) != kLocalHeaderSignature || le16(&header[26]) != item.name.size() ||
        std::memcmp(&header[kLocalHeaderBytes], item.name.data(), item.name.size()) != 0 ||
        le16(&header[8]) != item.method)
        refuse(FaultKind::NotZip, entry, what + ": its local header disagrees with the directory");
    const std::uint64_t data = item.header + header.size() + le16(&header[28]);
    if (data > item.end || item.end - data < item.compressedSize)
        refuse(FaultKind::NotZip, entry, what + " reaches into the next item");
    std::uint64_t produced = 0;
    try {
        ReaderStream raw(read, data, item.compressedSize);
        std::vector<unsigned char> chunk(1 << 16), decoded(1 << 16);
        if (item.method == opc::interfaces::PhysicalEntry::kStored) {
            for (std::size_t n; (n = raw.read(decoded.data(), decoded.size())) > 0;) {
                out(decoded.data(), n);
                produced += n;
            }
        } else {
            opc::detail::Inflater inflater(raw, item.compressedSize, chunk.data(), chunk.size(),
                                           what);
            for (std::size_t n; (n = inflater.read(decoded.data(), decoded.size())) > 0;) {
                produced += n;
                if (produced > item.size) break;
                out(decoded.data(), n);
            }
            if (produced == item.size && inflater.crc32() != item.crc32)
                refuse(FaultKind::DamagedEntry, entry, what + " fails its CRC-32");
        }
    } catch (const opc::Exception& e) {
        refuse(FaultKind::DamagedEntry, entry, e.what());
    }
    if (produced != item.size)
        refuse(FaultKind::DamagedEntry, entry,
               what + " decodes to a size other than its " + std::to_string(item.size) + " bytes");
}

std::string decodedText(const PackageEntry& entry, const Reader& read, const Item& item,
                        std::uint64_t limit) {
    if (item.size > limit)
        refuse(FaultKind::MalformedDigestList, entry,
               "the item " + inQuotes(item.name) + " is larger than " + std::to_string(limit) +
                   " bytes");
    std::string text;
    decodeItem(entry, read, item, [&](const unsigned char* data, std::size_t size) {
        text.append(reinterpret_cast<const char*>(data), size);
    });
    return text;
}

std::string sha256Of(const std::string& bytes) {
    integrity::Sha256 hash;
    hash.update(bytes.data(), bytes.size());
    return hash.finishHex();
}

// The item as the list has it, or refused.
void verifyItem(const PackageEntry& entry, const Reader& read, const Item& item) {
    integrity::Sha256 hash;
    decodeItem(entry, read, item,
               [&](const unsigned char* data, std::size_t size) { hash.update(data, size); });
    const std::string found = hash.finishHex();
    if (found != item.sha256)
        refuse(FaultKind::DigestMismatch, entry,
               "the item " + inQuotes(item.name) + " has the SHA-256 " + found +
                   ", its digest list says " + item.sha256);
}

// A local header for a folder entry, which holds no data and is never
// fetched, written from the directory's record of it.
std::string localHeaderOf(const Item& item) {
    std::string h;
    put32(h, kLocalHeaderSignature);
    put16(h, 20);  // version needed: deflate
    put16(h, 0);   // no flags: the sizes are in the header
    put16(h, item.method);
    put16(h, item.dosTime);
    put16(h, item.dosDate);
    put32(h, item.crc32);
    put32(h, static_cast<std::uint32_t>(std::min<std::uint64_t>(item.compressedSize, 0xFFFFFFFFu)));
    put32(h, static_cast<std::uint32_t>(std::min<std::uint64_t>(item.size, 0xFFFFFFFFu)));
    put16(h, static_cast<std::uint16_t>(item.name.size()));
    put16(h, 0);
    return h + item.name;
}

Deadline deadlineOf(const PackageEntry& entry, const ClientOptions& options) {
    const std::uint64_t forSize = options.minimumRate == 0 ? 0 : entry.size / options.minimumRate;
    return Deadline(options.downloadSeconds + static_cast<long>(forSize));
}

const char* const kIgnored = "the server does not serve ranges (it sent the whole file)";

}  // namespace

std::vector<ByteSpan> coalesced(const std::vector<const RangedPlan::Item*>& items) {
    std::vector<ByteSpan> spans;
    for (const RangedPlan::Item* item : items) {
        if (!spans.empty() && item->header <= spans.back().to + kRangeGap)
            spans.back().to = std::max(spans.back().to, item->end);
        else
            spans.push_back({item->header, item->end});
    }
    return spans;
}

RangedPlan DownloadAccess::planRanged(const Repository& repository, const PackageEntry& entry,
                                      const std::map<std::string, HeldFile>& installed,
                                      const std::vector<std::string>& packageAnchors) {
    if (entry.digestList.empty())
        throw NotRanged("the index does not pin the package's digest list");
    if ("/" + entry.digestList != integrity::DIGESTS_PART_NAME)
        throw NotRanged("the index pins a digest list at " + inQuotes(entry.digestList) +
                        ", not at " + inQuotes(integrity::DIGESTS_PART_NAME + 1));
    if (!isPlainFileName(entry.file))
        throw Error(FaultKind::BadIndex, "not a plain package name: " + entry.file);
    const ClientOptions& options = repository.options_;
    TransferOptions transfer{options.serverCa,
                             options.stallSeconds,
                             deadlineOf(entry, options),
                             {},
                             repository.connection_.get()};
    const auto fetchInto = [&](const std::vector<ByteSpan>& spans, Held& into) {
        std::map<std::uint64_t, std::string> got;
        for (const ByteSpan& span : spans) got[span.from].resize(span.size());
        try {
            fetchSpans(repository.location_, entry.file, entry.size, spans, transfer,
                       [&](std::uint64_t offset, const char* data, std::size_t size) {
                           auto& [at, bytes] = *std::prev(got.upper_bound(offset));
                           std::memcpy(&bytes[offset - at], data, size);
                       });
        } catch (const RangesIgnored&) {
            throw NotRanged(kIgnored);
        }
        for (auto& [at, bytes] : got) into.add(at, std::move(bytes));
    };

    // The tail, from the end backwards, as far as the directory's reader
    // asks: whatever the end record claims is held to the package's size
    // and the limits before a byte more is fetched.
    Held held;
    std::uint64_t tailFrom = entry.size - std::min(entry.size, kFirstTail);
    std::string tail;
    {
        Held first;
        fetchInto({{tailFrom, entry.size}}, first);
        tail = first.spans().begin()->second;
    }
    const opc::zippackage::ByteSource source = [&](std::uint64_t offset, unsigned char* into,
                                                   std::size_t count) {
        if (offset < tailFrom) {
            Held more;
            fetchInto({{offset, tailFrom}}, more);
            tail.insert(0, more.spans().begin()->second);
            tailFrom = offset;
        }
        std::memcpy(into, tail.data() + (offset - tailFrom), count);
    };
    using Limits = opc::zippackage::ZipPhysicalPackage;
    opc::zippackage::ZipDirectory directory;
    try {
        directory = opc::zippackage::readCentralDirectory(
            source, entry.size,
            {Limits::kMaxEntries, Limits::kMaxCentralDirectoryBytes, Limits::kMaxDeflateRatio});
    } catch (const opc::Exception& e) {
        refuse(FaultKind::NotZip, entry, e.what());
    }
    held.add(tailFrom, std::move(tail));

    // The items by offset, each reaching to where the next begins.
    std::vector<const opc::interfaces::PhysicalEntry*> byOffset;
    for (const auto& e : directory.entries) byOffset.push_back(&e);
    std::sort(byOffset.begin(), byOffset.end(), [](const auto* a, const auto* b) {
        return a->localHeaderOffset < b->localHeaderOffset;
    });
    std::vector<Item> items;
    std::map<std::string, std::size_t> byName;
    for (std::size_t i = 0; i < byOffset.size(); ++i) {
        const auto& e = *byOffset[i];
        Item item{e.name,
                  e.localHeaderOffset,
                  i + 1 < byOffset.size() ? byOffset[i + 1]->localHeaderOffset
                                          : directory.directoryOffset,
                  e.size,
                  e.compressedSize,
                  e.compressionMethod,
                  e.crc32,
                  e.dosTime,
                  e.dosDate,
                  {}};
        if (!byName.emplace(e.name, items.size()).second)
            refuse(FaultKind::NotZip, entry, "its directory lists " + inQuotes(e.name) + " twice");
        items.push_back(std::move(item));
    }
    const auto itemNamed = [&](const char* partName) -> Item* {
        const auto found = byName.find(partName + 1);
        return found == byName.end() ? nullptr : &items[found->second];
    };
    Item* const listItem = itemNamed(integrity::DIGESTS_PART_NAME);
    Item* const signatureItem = itemNamed(integrity::SIGNATURE_PART_NAME);
    if (!listItem)
        refuse(FaultKind::NoDigestList, entry,
               "the index pins a digest list the package does not hold");

    // The list and the signature, then nothing until they hold.
    std::vector<const Item*> integrityItems;
    for (const Item* item :
         {static_cast<const Item*>(listItem), static_cast<const Item*>(signatureItem)})
        if (item && !held.covers(item->header, item->end)) integrityItems.push_back(item);
    std::sort(integrityItems.begin(), integrityItems.end(),
              [](const Item* a, const Item* b) { return a->header < b->header; });
    if (!integrityItems.empty()) fetchInto(coalesced(integrityItems), held);
    const Reader fromHeld = [&](std::uint64_t offset, unsigned char* into, std::size_t count) {
        held.read(offset, into, count);
    };
    const std::string listText =
        decodedText(entry, fromHeld, *listItem, integrity::MAX_DIGEST_LIST_BYTES);
    listItem->sha256 = sha256Of(listText);
    if (listItem->sha256 != entry.digestListSha256)
        refuse(FaultKind::DigestMismatch, entry,
               "its digest list has the SHA-256 " + listItem->sha256 + ", the index pins " +
                   entry.digestListSha256);
    integrity::DigestList list;
    try {
        list = integrity::parseDigestList(listText);
    } catch (const Error& e) {
        refuse(FaultKind::MalformedDigestList, entry, e.what());
    }
    if (list.version != 2)
        throw NotRanged("the package's digest list (version " + std::to_string(list.version) +
                        ") does not name its files by path");
    if (signatureItem) {
        const std::string signature =
            decodedText(entry, fromHeld, *signatureItem, integrity::MAX_SIGNATURE_BYTES);
        signatureItem->sha256 = sha256Of(signature);
        if (!entry.signer.empty() && !packageAnchors.empty()) {
            const auto check = integrity::checkSignature(signature, listText, packageAnchors);
            if (check.fault)
                throw Error(*check.fault, entry.file + ": its signature: " + check.fault->detail);
        }
    } else if (!entry.signer.empty()) {
        refuse(FaultKind::Unsigned, entry,
               "the index lists it as signed, but it holds no signature");
    }

    // Every other item is listed, every listed one is there, and those the
    // installed version holds as the list has them stay out.
    std::map<std::string, const std::string*> listed;
    for (const auto& part : list.parts) listed.emplace(part.name, &part.sha256);
    std::size_t found = 0;
    RangedPlan plan;
    for (Item& item : items) {
        const bool folder = item.name.back() == '/';
        if (folder || &item == listItem || &item == signatureItem) {
            if (folder) plan.left.push_back(item);
            continue;
        }
        std::string path;
        if (item.name == integrity::CONTENT_TYPES_ITEM) {
            if (list.contentTypesSha256.empty())
                refuse(FaultKind::UnlistedItem, entry,
                       "its digest list does not list " + inQuotes(item.name));
            item.sha256 = list.contentTypesSha256;
        } else {
            try {
                path = integrity::listedName("/" + item.name, 2);
            } catch (const opc::Exception& e) {
                refuse(FaultKind::BadPath, entry, e.what());
            }
            const auto digest = listed.find(path);
            if (digest == listed.end())
                refuse(FaultKind::UnlistedItem, entry,
                       "the item " + inQuotes(item.name) + " is not in its digest list");
            item.sha256 = *digest->second;
            ++found;
        }
        const auto have = installed.find(path);
        if (path.compare(0, std::strlen(kFilesFolder), kFilesFolder) == 0 &&
            have != installed.end() && have->second.sha256 == item.sha256 &&
            have->second.size == item.size) {
            plan.absent.insert(item.name);
            plan.left.push_back(item);
        } else {
            plan.changed += item.size;
        }
    }
    if (found != list.parts.size())
        refuse(FaultKind::MissingItem, entry,
               "its digest list names " + std::to_string(list.parts.size() - found) +
                   " items the package does not hold");

    std::vector<const Item*> toFetch;
    for (const Item& item : items) {
        const bool folder = item.name.back() == '/';
        if (folder || plan.absent.count(item.name)) continue;
        plan.fetched.push_back(item);
    }
    for (const Item& item : plan.fetched)
        if (!held.covers(item.header, item.end)) toFetch.push_back(&item);
    plan.spans = coalesced(toFetch);
    plan.held = held.spans();
    plan.download = held.bytes();
    for (const ByteSpan& span : plan.spans) plan.download += span.size();
    return plan;
}

Downloaded DownloadAccess::downloadRanged(const Repository& repository, const PackageEntry& entry,
                                          const RangedPlan& plan, const fs::path& folder,
                                          const FileOps& ops) {
    const ClientOptions& options = repository.options_;
    const OpsFd into(ops, ops.openat(AT_FDCWD, folder.c_str(), O_RDONLY | O_DIRECTORY));
    if (!into) failOn(FaultKind::CannotWrite, "cannot open", folder);
    const std::string name = entry.file + ".ranged";
    PartialFile partial(ops, into.get(), name, folder / name, false);
    const std::string target = opc::detail::randomToken(4) + "-" + entry.file;
    try {
        // Full size, holes where nothing is written.
        partial.truncate(0);
        partial.truncate(entry.size);
        std::uint64_t done = 0;
        for (const auto& [at, bytes] : plan.held) {
            partial.writeAt(at, bytes.data(), bytes.size());
            done += bytes.size();
        }
        // Absent items get no header: the store opens the file with them
        // left out, and writing one header a page apart costs a page each.
        for (const Item& item : plan.left) {
            if (plan.absent.count(item.name)) continue;
            const std::string header = localHeaderOf(item);
            partial.writeAt(item.header, header.data(), header.size());
        }
        if (options.progress) options.progress(done, plan.download);
        const Reader fromFile = [&](std::uint64_t offset, unsigned char* buffer,
                                    std::size_t count) {
            if (ops.readAt(partial.fd(), buffer, count, static_cast<long long>(offset)) !=
                static_cast<long>(count))
                failOn(FaultKind::CannotRead, "cannot read", partial.path());
        };
        // Items in hand are checked now; the others as soon as their last
        // byte is in, in the order they arrive.
        std::vector<const Item*> pending;
        for (const Item& item : plan.fetched) {
            bool inHand = false;
            for (const auto& [at, bytes] : plan.held)
                inHand = inHand || (at <= item.header && at + bytes.size() >= item.end);
            if (inHand)
                verifyItem(entry, fromFile, item);
            else
                pending.push_back(&item);
        }
        std::size_t next = 0;
        const std::uint64_t before = done;
        TransferOptions transfer{options.serverCa,
                                 options.stallSeconds,
                                 deadlineOf(entry, options),
                                 {},
                                 repository.connection_.get()};
        if (options.progress)
            transfer.progress = [&](std::uint64_t got) {
                options.progress(before + got, plan.download);
            };
        try {
            fetchSpans(repository.location_, entry.file, entry.size, plan.spans, transfer,
                       [&](std::uint64_t offset, const char* data, std::size_t size) {
                           partial.writeAt(offset, data, size);
                           while (next < pending.size() && pending[next]->end <= offset + size)
                               verifyItem(entry, fromFile, *pending[next++]);
                       });
        } catch (const RangesIgnored&) {
            throw NotRanged(kIgnored);
        }
        if (next != pending.size())
            refuse(FaultKind::DownloadFailed, entry, "not every item arrived");
    } catch (...) {
        partial.remove();
        throw;
    }
    return {folder / target, partial.renameTo(target)};
}

}  // namespace tsappinstall::repository::detail
