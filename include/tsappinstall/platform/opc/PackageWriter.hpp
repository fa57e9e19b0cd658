#pragma once

// Writing side of the package layer: builds a conforming package (content
// types, package relationships, parts) in a ZIP container.

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"

namespace tsappinstall::integrity {
class Signer;
}

namespace opc::zippackage {

// Collects parts and package relationships, then writes them in commit().
// The output file appears atomically: it is written as a temporary file
// beside the path and renamed into place when everything has been written,
// so a failed or abandoned writer leaves whatever was at the path untouched.
// Parts are compressed on several threads (setJobs) and written in the
// order they were added, so the bytes written never depend on the number.
//
// Part names are given as relative UTF-8 paths ("lib/a b.js"); they become
// part names by percent-encoding every byte outside the characters a part
// name segment may hold ("/lib/a%20b.js").
class TSAPP_API PackageWriter {
  public:
    // Deflate stores the bytes when deflating them does not make them
    // smaller, as zip does.
    enum class Compression { Stored, Deflate };
    // Source bytes written so far, and in all; called on commit's thread.
    using Progress = std::function<void(std::uint64_t done, std::uint64_t total)>;

    explicit PackageWriter(std::string outputPath);
    ~PackageWriter();
    PackageWriter(const PackageWriter&) = delete;
    PackageWriter& operator=(const PackageWriter&) = delete;

    // Adds a part from memory or from a regular file (read while committing,
    // large files in bounded pieces; one that is a link, or whose size changed
    // since it was added, fails the commit). Returns the part name. Throws opc::Exception for
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

    // Every entry gets this modification time (default: now) in UTC, so that
    // two runs over the same input can write identical files anywhere. ZIP
    // holds times from 1980 to 2107; one outside is written as the nearest
    // year it holds.
    void setModificationTime(std::time_t when);

    // Parts compressed at once (0, the default: one per core).
    void setJobs(unsigned jobs);
    // Told how far commit has come, at least once per part and once per
    // megabyte of a large file.
    void setProgress(Progress progress);

    // Makes commit add a digest part listing the SHA-256 of the final bytes
    // of [Content_Types].xml and of every other part, /_rels/.rels included,
    // and, given a signer, a detached CMS signature over that list; both
    // with their package relationships. The signer must outlive commit.
    void addDigests(const tsappinstall::integrity::Signer* signer = nullptr);

    // Adds key rotation proofs (PEM, see tsappinstall/integrity/KeyRotation.hpp)
    // as their part, with its package relationship; the digest list covers
    // it like any other part.
    void addKeyRotations(const std::string& pem);

    // Writes [Content_Types].xml, /_rels/.rels and every part, and renames
    // the result into place. Throws opc::Exception; nothing is at the output
    // path that was not there before when it throws.
    void commit();
    // After commit: the size and SHA-256 (64 hex digits) of the file written,
    // taken from its bytes as they were written.
    std::uint64_t writtenSize() const;
    const std::string& writtenSha256() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace opc::zippackage
