#pragma once

// Writing side of the package layer: builds a conforming package (content
// types, package relationships, parts) in a ZIP container.

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"

namespace tsappinstall::integrity {
class Signer;
}

namespace opc::zippackage {

// Collects parts and package relationships, then writes them in commit().
// The output file appears atomically: libzip writes a temporary file beside
// it and renames it into place when everything has been written, so a
// failed or abandoned writer leaves whatever was at the path untouched.
//
// Part names are given as relative UTF-8 paths ("lib/a b.js"); they become
// part names by percent-encoding every byte outside the characters a part
// name segment may hold ("/lib/a%20b.js").
class TSAPP_API PackageWriter {
  public:
    enum class Compression { Stored, Deflate };

    explicit PackageWriter(std::string outputPath);
    ~PackageWriter();
    PackageWriter(const PackageWriter&) = delete;
    PackageWriter& operator=(const PackageWriter&) = delete;

    // Adds a part from memory or from a file (read while committing, so large
    // files are streamed). Returns the part name. Throws opc::Exception for
    // an empty path, a "." or ".." segment, or a name already added
    // (compared ignoring ASCII case, as part names are).
    std::string addPart(const std::string& path, const std::string& contentType,
                        std::vector<unsigned char> bytes,
                        Compression compression = Compression::Deflate);
    std::string addPartFromFile(const std::string& path, const std::string& contentType,
                                const std::string& sourceFile,
                                Compression compression = Compression::Deflate);

    // Adds a package-level relationship to an internal target part name.
    void addRelationship(const std::string& id, const std::string& type,
                         const std::string& targetPartName);

    // Every entry gets this modification time (default: now), so that two
    // runs over the same input can write identical files.
    void setModificationTime(std::time_t when);

    // Makes commit add a digest part listing the SHA-256 of the final bytes
    // of [Content_Types].xml and of every other part, /_rels/.rels included,
    // and, given a signer, a detached CMS signature over that list; both
    // with their package relationships. The signer must outlive commit.
    void addDigests(const tsappinstall::integrity::Signer* signer = nullptr);

    // Writes [Content_Types].xml, /_rels/.rels and every part, and renames
    // the result into place. Throws opc::Exception; nothing is at the output
    // path that was not there before when it throws.
    void commit();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace opc::zippackage
