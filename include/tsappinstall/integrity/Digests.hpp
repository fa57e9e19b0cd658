#pragma once

// Content digests: one part lists the SHA-256 of [Content_Types].xml and of
// every other part (bar the signature), one "HEX  ITEM" line each, as
// sha256sum prints them. ITEM is the part name without its leading "/" (the
// ZIP item name), so `sha256sum -c` checks a tree unpacked with unzip.

#include <cstddef>
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
    std::string item;    // "files/a.js" or "[Content_Types].xml"
    std::string sha256;  // 64 lower-case hex digits
};

TSAPP_API std::string formatDigestList(const std::vector<DigestEntry>& entries);
// Accepts exactly what sha256sum writes for names needing no escapes: 64
// lower-case hex digits, " " or " *", a name, "\n". Anything else, and a
// name listed twice, throws IntegrityError naming the line.
TSAPP_API std::vector<DigestEntry> parseDigestList(const std::string& text);

// The item an entry names as a part name ("/files/a.js"); the content
// types item stays as it is.
TSAPP_API std::string partNameOfItem(const std::string& item);

// The digests of an open package's items: [Content_Types].xml and every part
// except the targets of the digest and signature relationships.
TSAPP_API std::vector<DigestEntry> computeDigests(opc::model::Package& package);

// Checks items against a digest list as their bytes come by, in any order
// and in any pieces, so that a reader can check while it does its own work
// with the bytes (extraction inflates each part once). Feed every item with
// begin, update..., end (or abandon when reading it failed); finish then
// adds a fault for every listed item never fed.
class TSAPP_API DigestCheck {
  public:
    explicit DigestCheck(const std::vector<DigestEntry>& expected);
    ~DigestCheck();
    DigestCheck(const DigestCheck&) = delete;
    DigestCheck& operator=(const DigestCheck&) = delete;

    void begin(const std::string& item);
    void update(const void* data, std::size_t size);
    void end();
    void abandon(const std::string& why);
    const std::vector<Fault>& finish();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tsappinstall::integrity
