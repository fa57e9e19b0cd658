#pragma once

// Content digests: one part lists the SHA-256 of [Content_Types].xml and of
// every other part (bar the signature), one line each as sha256sum prints
// them, so that standard tools check them too. Two versions exist:
//
//  2 (what the library writes): the line "# tsapp-digests 2", then
//    "# HEX  [Content_Types].xml", then "HEX  PATH" per part, PATH being the
//    file the part becomes when it is extracted: its name percent-decoded,
//    without the leading "/" ("/files/a%20b.js" is "files/a b.js"). Names
//    holding "\", a line feed or a carriage return are written as
//    sha256sum writes them: "\HEX  NAME" with "\\", "\n" and "\r" in
//    NAME. `sha256sum -c` reads "#" lines as comments (the content types
//    item is never extracted) and so checks an extracted folder.
//  1 (older packages): "HEX  ITEM" lines only, ITEM the part name without
//    its "/" (the ZIP item name) or "[Content_Types].xml", so that
//    `sha256sum -c` checks a tree unpacked with unzip.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/integrity/Fault.hpp"

namespace opc::model {
class Package;
}

namespace tsappinstall::integrity {

inline constexpr const char* DIGESTS_PART_NAME = "/_digests/sha256sums";
inline constexpr const char* DIGESTS_CONTENT_TYPE = "text/vnd.corvane.tessal.app-digests";
inline constexpr const char* DIGESTS_RELATIONSHIP_TYPE =
    "http://schemas.corvane.com/tessal/app/2026/relationships/contentDigests";
inline constexpr const char* SIGNATURE_PART_NAME = "/_digests/sha256sums.p7s";
inline constexpr const char* SIGNATURE_CONTENT_TYPE = "application/pkcs7-signature";
inline constexpr const char* SIGNATURE_RELATIONSHIP_TYPE =
    "http://schemas.corvane.com/tessal/app/2026/relationships/authorSignature";
inline constexpr const char* CONTENT_TYPES_ITEM = "[Content_Types].xml";
inline constexpr const char* DIGESTS_HEADER = "# tsapp-digests 2";

// The most bytes the digest part and the signature part may declare; a
// larger one is refused before a byte of it is read. A list of the most
// parts a package may hold (100,000) with paths of 100 bytes takes 17 MB;
// a signature with its certificate chain takes a few kilobytes.
inline constexpr std::uint64_t MAX_DIGEST_LIST_BYTES = 16u << 20;
inline constexpr std::uint64_t MAX_SIGNATURE_BYTES = 1u << 20;

// SHA-256 over bytes given in pieces.
class TSAPP_API Sha256 {
  public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void update(const void* data, std::size_t size);
    // 64 lower-case hex digits; the object starts over afterwards.
    std::string finishHex();

  private:
    struct Context;
    std::unique_ptr<Context> context_;
};

struct DigestEntry {
    std::string name;    // as listed: "files/a b.js" (version 2), "files/a%20b.js" (1)
    std::string sha256;  // 64 lower-case hex digits
};

struct DigestList {
    int version = 2;
    // Empty when [Content_Types].xml is not listed; version 2 lists it always.
    std::string contentTypesSha256;
    std::vector<DigestEntry> parts;  // in the order listed
};

TSAPP_API std::string formatDigestList(const DigestList& list);
// Accepts exactly what formatDigestList writes, and " *" for "  " (binary
// mode): 64 lower-case hex digits per line, names escaped (version 2) only
// where sha256sum escapes them. Anything else, and a name listed twice,
// throws IntegrityError naming the line.
TSAPP_API DigestList parseDigestList(const std::string& text);

// The name a list of `version` gives the part `partName`
// ("/files/a%20b.js"). Throws opc::Exception for a name without its
// leading "/" and, for version 2, one that cannot be a file path.
TSAPP_API std::string listedName(const std::string& partName, int version);

// The version-2 digests of an open package's items: [Content_Types].xml
// and every part except the targets of the digest and signature
// relationships.
TSAPP_API DigestList computeDigests(opc::model::Package& package);

// Checks items against a digest list as their bytes come by, in any order
// and in any pieces, so that a reader can check while it does its own work
// with the bytes (extraction inflates each part once). Feed every item with
// begin, update..., end (or abandon when reading it failed); finish then
// adds a fault for every listed item never fed. Several threads may feed
// it at once through an Item each. Items are named to begin
// as the package names them, whatever the list's version: a part by its
// part name ("/files/a%20b.js"), the content types by its ZIP item name.
class TSAPP_API DigestCheck {
  public:
    explicit DigestCheck(const DigestList& expected);
    ~DigestCheck();
    DigestCheck(const DigestCheck&) = delete;
    DigestCheck& operator=(const DigestCheck&) = delete;

    void begin(const std::string& item);
    void update(const void* data, std::size_t size);
    void end();
    void abandon(const std::string& why);
    // An item whose bytes were not fed but found, by whoever had them, to
    // have the SHA-256 `sha256` (hex): checked as if fed. Safe from any
    // thread; `order` as for Item.
    void taken(const std::string& item, const std::string& sha256, std::size_t order);
    // The faults in the order of the items they concern, those of listed
    // items never fed last.
    const std::vector<Fault>& finish();

    // For readers that feed several items at once, each on a thread of its
    // own: one item's check (update..., then end or abandon), fed by one
    // thread while others feed theirs. `order` is the item's place in the
    // package, by which finish() sorts the faults.
    class TSAPP_API Item {
      public:
        Item(DigestCheck& check, const std::string& item, std::size_t order);
        ~Item();
        Item(const Item&) = delete;
        Item& operator=(const Item&) = delete;

        void update(const void* data, std::size_t size);
        void end();
        void abandon(const std::string& why);

      private:
        DigestCheck& check_;
        std::string item_;
        std::size_t order_;
        const std::string* expected_ = nullptr;  // null when not to be checked
        Sha256 hash_;
    };

  private:
    struct State;
    std::unique_ptr<State> state_;
    std::unique_ptr<Item> current_;  // the item begin() started
    std::size_t begun_ = 0;
};

}  // namespace tsappinstall::integrity
