#pragma once

#include <string>

#include "tsappinstall/export.hpp"
#include "tsappinstall/platform/opc/URI.hpp"

namespace opc::model {

// A validated part name: "/" followed by non-empty segments of unreserved
// characters, sub-delimiters, ":", "@" and percent-encoded octets. A segment
// may not be "." or "..", end with a dot, or hold a percent-encoded "/",
// "\" or unreserved character. Characters outside ASCII are taken as their
// percent-encoded UTF-8 octets ("/ü" is "/%C3%BC"), so the name is always
// ASCII. Two names are equivalent when they are equal ignoring ASCII case;
// comparisons and key() follow that rule.
class TSAPP_API PartName {
  public:
    // Throws opc::Exception when `name` is not a valid part name.
    explicit PartName(const std::u16string& name);
    // The part a resolved internal target names. Throws opc::Exception for an
    // external target, a reference with a scheme, query or fragment, and for
    // anything that is not a valid part name.
    explicit PartName(const URI& uri);

    // The part stored in the ZIP item `itemName` ("lib/a.js" is "/lib/a.js").
    // Throws opc::Exception when that is not a valid part name.
    static PartName fromZipItemName(const std::string& itemName);

    std::u16string toString() const;
    const std::string& ascii() const { return name_; }
    // The equivalence key: the name with ASCII letters in lower case.
    const std::string& key() const { return key_; }
    // The ZIP item name that stores the part: the name without its "/".
    std::string zipItemName() const { return name_.substr(1); }
    // The name with every "%XY" decoded: the path it stands for
    // ("/lib/a%20b.js" is "/lib/a b.js"), in bytes that need not be UTF-8.
    std::string decoded() const;
    // The last segment's text after its last dot; empty when it has none.
    std::string extension() const;
    // Whether `other` lies below this name ("/a" and "/a/b").
    bool isPrefixOf(const PartName& other) const;

    bool operator==(const PartName& other) const { return key_ == other.key_; }
    bool operator!=(const PartName& other) const { return key_ != other.key_; }
    bool operator<(const PartName& other) const { return key_ < other.key_; }

    // Why `name` is not a valid part name, or empty when it is. `name` must
    // already be ASCII (see the class comment).
    static std::string whyInvalid(const std::string& name);
    // "/dir/_rels/name.rels" holds the relationships of "/dir/name", and
    // "/_rels/.rels" those of the package: the name of what this part holds
    // the relationships of ("/" for the package), or empty when it is no
    // relationship part.
    std::string relationshipsSource() const;

    // The part name of a relative UTF-8 path ("lib/a b.js" gives
    // "/lib/a%20b.js"): every octet a segment may not hold as it is
    // percent-encoded. Throws opc::Exception for an empty, "." or ".."
    // segment or a name ending with a dot.
    static std::string forPath(const std::string& path);
    // Percent-encodes every octet above 0x7F (upper-case hex digits).
    static std::string encodeNonAscii(const std::string& utf8);

  private:
    PartName() = default;
    void assign(const std::string& utf8);

    std::string name_;
    std::string key_;
};

}  // namespace opc::model
