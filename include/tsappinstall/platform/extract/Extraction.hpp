#pragma once

// Extraction with the choices FileSystemManager makes for its callers
// left open: a limit on the bytes written, durability, cancellation, and
// recovery of a folder whose extraction was interrupted by a crash.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tsappinstall/export.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"

namespace opc::model {
class PartName;
}

namespace opc::extraction {

// The extractor keeps its own state (staging folders, journals, the stamp
// that proves them its own) under names beginning with ".~tsapp", in any
// ASCII case. No part may take such a name anywhere in its path: extraction
// refuses it before writing anything, and so do the checker and the
// packer. True when a segment of `partName`, as written or
// percent-decoded, is such a name.
TSAPP_API bool isReservedPartName(const std::string& partName);

// Sees the decoded bytes of every part the extraction writes, in the one
// pass that writes them, so a caller can check them (content digests)
// without reading the package twice. The bytes are given before they are known to be whole: a part
// whose CRC-32 or size turns out wrong fails the extraction after its
// bytes went by.
class TSAPP_API PartObserver {
  public:
    virtual ~PartObserver() = default;
    virtual void begin(const opc::model::PartName& part) = 0;
    virtual void update(const unsigned char* data, std::size_t size) = 0;
    virtual void end() = 0;
    // A part whose file was taken from elsewhere (Options::reuse): its
    // bytes never come by, only the SHA-256 (hex) the caller found them to
    // have. With several threads, told to the observer of the thread that
    // took it.
    virtual void taken(const opc::model::PartName& part, const std::string& sha256) {
        (void)part;
        (void)sha256;
    }
    // Once every part is written and before any becomes visible in the
    // destination: throwing here rolls the extraction back.
    virtual void beforeCommit() = 0;
    // For an extraction on several threads: an observer of its own for one
    // of them, which sees the parts that thread writes (begin, update...,
    // end) while the others see theirs; only this one gets beforeCommit().
    // Null, the default, keeps the extraction on one thread.
    virtual std::unique_ptr<PartObserver> forThread() { return nullptr; }
};

// A file that holds the bytes a part decodes to, offered in its place.
struct ReusedFile {
    // Open for reading; the extraction closes it. -1: none, the part is
    // unpacked from the package.
    int fd = -1;
    std::string sha256;  // of its bytes as the caller read them, hex
};

// A file an extraction wrote or took, as its fstat() saw it then.
struct LandedFile {
    std::uint64_t size = 0;
    unsigned mode = 0;  // permission bits
    std::uint64_t inode = 0;
    std::int64_t modifiedNs = 0;  // last data change, nanoseconds since 1970
};

struct Options {
    // The sum of the parts' declared sizes may not exceed this; 0 (the
    // default) sets no limit of the caller's. Whatever the limit, the sum
    // must fit in the free space of the destination's file system before
    // the first byte is written, and no part may yield more bytes than it
    // declares.
    std::uint64_t maxBytes = 0;
    // fsync() every file and every folder touched before the new files
    // count as installed, so that they survive a power cut too.
    bool sync = false;
    // Asked between parts and while a large part is being read, from every
    // thread of the extraction; when it returns true the extraction is
    // rolled back and throws opc::Exception. It may read a flag set by a
    // signal handler.
    std::function<bool()> cancelled;
    // Not owned; null for none.
    PartObserver* observer = nullptr;
    // Parts inflated, checked and written at once, each on a thread of its
    // own (the calling thread among them); 0 means one per core, and more
    // than 64 are not started. A big part streams through one thread while
    // the others take the small ones.
    unsigned threads = 1;
    // Called once each file is written and closed, from the thread that
    // wrote it (so, with several threads, from several at once): its part,
    // its path below the destination ("files/a b.js") and the file as the
    // file system holds it. A caller that records what it unpacked needs
    // no second look at every file.
    std::function<void(const opc::model::PartName& part, const std::string& path,
                       const LandedFile& file)>
        landed;
    // Called after each part is written and after every MiB written of a
    // large one (so that it moves while one big file is written), never by
    // two threads at once; with several threads not always by the calling one.
    qvservices::FileSystemManager::Progress progress;
    // The permission bits new files are created with, less the umask.
    unsigned fileMode = 0666;
    // Asked, from the thread that would write it, for each part before any
    // of its bytes are read: a file offered here becomes the part's file
    // and the part is not read from the package at all (a part the package
    // file leaves out is never touched). The file is cloned where the file
    // system shares blocks (FICLONE), else linked when it is on the same
    // file system and already has the mode a new file would get, else
    // copied, in the same staging and commit as every other file; `landed`
    // reports it as any other. The caller answers for its bytes being the
    // part's: it vouches for them by their SHA-256, which the observer is
    // given (PartObserver::taken).
    std::function<ReusedFile(const opc::model::PartName& part, const std::string& path)> reuse;
    // The file operations to use. Unpacking with a policy builds its
    // extractor from this, so that the library's fault-injection tests
    // fail the very path every caller takes.
    FileSystemOpsSelector ops;
};

struct Outcome {
    // What could not be cleaned up or flushed once the new files were in
    // place, one line each naming the file: old copies of replaced files
    // that could not be removed (tried twice) stay in a hidden ".~tsapp-*"
    // folder in the destination, which the next extraction into it, or
    // recover(), removes.
    std::vector<std::string> leftAside;
};

class TSAPP_API Extractor {
  public:
    Extractor(opc::model::Package& package, const FileSystemOpsSelector& selector,
              Options options = {});

    // Sets Options::progress.
    void setProgress(qvservices::FileSystemManager::Progress progress);

    // What FileSystemManager::extractAll() does, with these options. When
    // an interrupted commit cannot be undone either (a persistent fault),
    // the error names each file left aside and says that the folder needs
    // recover().
    Outcome extractAll(const std::filesystem::path& folder, qvservices::RestoreMode restore,
                       qvservices::TransformMode transform, qvservices::ReplaceMode replace);

  private:
    opc::model::Package& package_;
    const detail::FileOps* ops_;
    Options options_;
};

struct Recovery {
    std::vector<std::string> done;       // one line per repaired or removed leftover
    std::vector<std::string> leftAside;  // what could not be repaired or removed
    // Staging folders of ours whose journal cannot be read: left in place
    // (nothing says what they would do), unless discarded.
    std::vector<std::string> unreadable;
    // Folders named like staging folders that do not prove themselves an
    // extraction's of this user (a stamp bound to the very folder, private
    // modes, see the threat model in docs/trust.md): never read, never removed.
    std::vector<std::string> skipped;
};

// What every extraction into `destination` (an absolute path) does before
// it moves its own files into place, once its package is verified: an
// extraction that crashed while moving its files into place is completed
// from its journal (or undone, when it was rolling back), so that the
// folder holds one version whole; staging folders of extractions that no
// longer run, inside the folder or beside it, are removed. Staging folders
// still locked by a live extraction are left alone, and so is everything
// in `Recovery::skipped`. With `discardUnreadable`, staging folders of ours
// whose journal cannot be read are removed instead of reported.
TSAPP_API Recovery recover(const std::filesystem::path& destination,
                           const FileSystemOpsSelector& selector = FileSystemOpsSelector(),
                           bool discardUnreadable = false);

}  // namespace opc::extraction
