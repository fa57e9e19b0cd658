// tsapp extract: unpack every part into a folder.
//
// Runs the same steps as the facade's extractAppFile, with the same modes
// (--keep chooses FailIfExists), but through the file-system manager
// directly: that lets a terminal show progress, and lets an error line
// carry the cause by kind.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/platform/filesystem/Path.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsapp::tool {
namespace {

using Clock = std::chrono::steady_clock;

// Shows "bytes and parts done" on stderr once the extraction has run for
// half a second, at most ten times a second, and clears the line at the end.
class ProgressLine {
  public:
    void update(std::uint64_t bytes, std::uint64_t totalBytes, std::size_t parts,
                std::size_t totalParts) {
        const auto now = Clock::now();
        if (now - start_ < std::chrono::milliseconds(500) ||
            now - last_ < std::chrono::milliseconds(100))
            return;
        last_ = now;
        shown_ = true;
        std::fprintf(stderr, "\r%.1f of %.1f MB, %zu of %zu parts", bytes / 1048576.0,
                     totalBytes / 1048576.0, parts, totalParts);
        std::fflush(stderr);
    }
    ~ProgressLine() {
        if (shown_) std::fprintf(stderr, "\r\033[K");
    }

  private:
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_{};
    bool shown_ = false;
};

void extract(const std::u16string& nativePath, const std::u16string& nativeFolder,
             opc::qvservices::ReplaceMode replace) {
    opc::model::OpenedPackage package(nativePath);
    opc::qvservices::FileSystemManager manager(package.package(), opc::FileSystemOpsSelector());
    ProgressLine progress;
    if (::isatty(STDERR_FILENO)) {
        manager.setProgress([&](std::uint64_t b, std::uint64_t tb, std::size_t p, std::size_t tp) {
            progress.update(b, tb, p, tp);
        });
    }
    manager.extractAll(nativeFolder, opc::qvservices::RestoreMode::AllParts,
                       opc::qvservices::TransformMode::PercentDecode, replace);
    package.close();
}

}  // namespace

int runExtract(const std::string& package, const std::string& folder, bool keep) {
    using fl::filesystem::detail::make_native_form;
    const std::u16string nativePath = make_native_form(utf16(package), true);
    const std::u16string nativeFolder = make_native_form(utf16(folder), true);
    try {
        extract(nativePath, nativeFolder,
                keep ? opc::qvservices::ReplaceMode::FailIfExists
                     : opc::qvservices::ReplaceMode::Replace);
    } catch (const opc::Exception& e) {
        const bool atDestination =
            e.reason() == opc::Reason::CannotWrite || e.reason() == opc::Reason::BadPath;
        throw Failure(atDestination ? folder : package, causeOf(e));
    }
    return kGood;
}

}  // namespace tsapp::tool
