// tsapp extract: unpack every part into a folder.
//
// Runs the same steps as the facade's extractAppFile, with the same modes,
// but through the file-system manager directly: that lets a terminal show
// progress, and lets an error line carry the cause after the library's
// own text.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/messages/MessageIds.hpp"
#include "tsappinstall/platform/filesystem/Path.hpp"
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

void extract(const std::u16string& nativePath, const std::u16string& nativeFolder) {
    opc::model::OpenedPackage package(nativePath);
    opc::qvservices::FileSystemManager manager(package.package(), opc::FileSystemOpsSelector());
    ProgressLine progress;
    if (::isatty(STDERR_FILENO)) {
        manager.setProgress([&](std::uint64_t b, std::uint64_t tb, std::size_t p, std::size_t tp) {
            progress.update(b, tb, p, tp);
        });
    }
    manager.extractAll(nativeFolder, opc::qvservices::RestoreMode::AllParts,
                       opc::qvservices::TransformMode::PercentDecode,
                       opc::qvservices::ReplaceMode::Replace);
    package.close();
}

}  // namespace

int runExtract(const std::string& package, const std::string& folder) {
    using fl::filesystem::detail::make_native_form;
    const std::u16string nativePath = make_native_form(utf16(package), true);
    const std::u16string nativeFolder = make_native_form(utf16(folder), true);
    try {
        extract(nativePath, nativeFolder);
    } catch (const std::exception& e) {
        namespace ids = tsapp_builtins::tsapp_builtins;
        printError(ids::message_text(ids::TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(
                       nativePath, nativeFolder)) +
                   " (" + e.what() + ")");
        return kBad;
    }
    return kGood;
}

}  // namespace tsapp::tool
