// tsapp extract: unpack every part into a folder; tsapp recover: repair a
// folder whose extraction was killed.
//
// Runs the same steps as the facade's extractAppFile, with the same modes
// (--keep chooses FailIfExists), but through the extractor directly: that
// lets a terminal show progress, lets the user set the size limit and
// durability, lets SIGINT, SIGTERM and SIGHUP roll the extraction back, and
// lets an error line carry the cause by kind.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "Progress.hpp"
#include "Text.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsapp::tool {
namespace {

struct ExtractSettings {
    std::uint64_t maxBytes = 0;  // 0: no limit but the free space
    bool sync = false;
    bool keep = false;  // fail, changing nothing, when a file would be replaced
    bool verify = false;
    std::vector<std::string> trust;  // implies verify
    bool allowUnsigned = false;
};

opc::extraction::Options optionsOf(const ExtractSettings& settings) {
    opc::extraction::Options options;
    options.maxBytes = settings.maxBytes;
    options.sync = settings.sync;
    options.cancelled = [] { return caughtSignal != 0; };
    return options;
}

opc::qvservices::ReplaceMode replaceModeOf(const ExtractSettings& settings) {
    return settings.keep ? opc::qvservices::ReplaceMode::FailIfExists
                         : opc::qvservices::ReplaceMode::Replace;
}

std::vector<std::string> extract(const std::filesystem::path& nativePath,
                                 const std::filesystem::path& nativeFolder,
                                 const ExtractSettings& settings) {
    opc::model::OpenedPackage package(nativePath);
    opc::extraction::Extractor manager(package.package(), opc::FileSystemOpsSelector(),
                                       optionsOf(settings));
    ProgressLine progress;
    if (::isatty(STDERR_FILENO)) {
        manager.setProgress([&](std::uint64_t b, std::uint64_t tb, std::size_t p, std::size_t tp) {
            progress.update(b, tb, p, tp);
        });
    }
    auto outcome =
        manager.extractAll(nativeFolder, opc::qvservices::RestoreMode::AllParts,
                           opc::qvservices::TransformMode::PercentDecode, replaceModeOf(settings));
    package.close();
    return outcome.leftAside;
}

// Each fault on a line of its own, then a line saying that nothing changed.
// `shown` is the package as the user named it.
std::vector<std::string> extractVerified(const std::filesystem::path& nativePath,
                                         const std::filesystem::path& nativeFolder,
                                         const ExtractSettings& settings,
                                         const std::string& shown) {
    namespace integrity = tsappinstall::integrity;
    const integrity::VerifiedExtraction result = integrity::extractVerified(
        nativePath, nativeFolder, {settings.trust, !settings.allowUnsigned}, optionsOf(settings),
        replaceModeOf(settings));
    if (result.report.ok()) return result.leftAside;
    for (const integrity::Fault& fault : result.report.faults)
        printError(shown + ": " + tsappinstall::describe(fault));
    throw Failure(shown,
                  "verification failed; the folder " + nativeFolder.string() + " is as it was");
}

int runExtract(const std::string& package, const std::string& folder,
               const ExtractSettings& settings) {
    const std::filesystem::path packagePath = nativePath(package);
    const std::filesystem::path nativeFolder = nativePath(folder);
    catchStopSignals();
    try {
        const bool verify = settings.verify || !settings.trust.empty();
        for (const auto& left : verify
                                    ? extractVerified(packagePath, nativeFolder, settings, package)
                                    : extract(packagePath, nativeFolder, settings))
            std::cerr << "tsapp: warning: " << left << "\n";
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& e) {
        if (caughtSignal) {
            // Rolled back, unless the library says what it could not undo.
            const auto* failure = dynamic_cast<const opc::Exception*>(&e);
            const bool clean = failure != nullptr && failure->reason() == opc::Reason::Cancelled;
            printError("interrupted; " +
                       (clean ? "the folder " + nativeFolder.string() + " is as it was"
                              : std::string(e.what())));
            return 128 + caughtSignal;
        }
        const auto* failure = dynamic_cast<const opc::Exception*>(&e);
        const bool atDestination =
            failure != nullptr && (failure->reason() == opc::Reason::CannotWrite ||
                                   failure->reason() == opc::Reason::BadPath);
        throw Failure(atDestination ? folder : package, causeOf(e));
    }
    return kGood;
}

// An apps root settles what an interrupted install, upgrade, rollback or
// remove left, from its records.
int recoverStore(const std::string& folder) {
    tsappinstall::store::AppStore apps(nativePath(folder));
    const auto done = apps.recover();
    for (const auto& line : done) std::cout << line << "\n";
    if (done.empty()) std::cout << "nothing to recover in " << nativePath(folder).string() << "\n";
    return kGood;
}

int runRecover(const std::string& folder, bool discardUnreadable) {
    if (std::filesystem::exists(nativePath(folder) / "store.db")) return recoverStore(folder);
    const std::string nativeFolder = nativePath(folder).string();
    const auto recovery =
        opc::extraction::recover(nativeFolder, opc::FileSystemOpsSelector(), discardUnreadable);
    for (const auto& line : recovery.done) std::cout << line << "\n";
    for (const auto& left : recovery.leftAside) printError(folder + ": could not repair " + left);
    for (const auto& left : recovery.unreadable)
        printError(folder + ": left alone " + left + "; --discard removes it");
    for (const auto& left : recovery.skipped)
        std::cerr << "tsapp: warning: " << folder << ": left alone " << left
                  << ": not an extraction folder of this user's\n";
    if (recovery.done.empty() && recovery.leftAside.empty() && recovery.unreadable.empty())
        std::cout << "nothing to recover in " << nativeFolder << "\n";
    return recovery.leftAside.empty() && recovery.unreadable.empty() ? kGood : kBad;
}

}  // namespace

std::vector<Command> addExtract(CLI::App& app) {
    struct ExtractOptions {
        std::string package;
        std::string folder;
        ExtractSettings settings;
    };
    auto e = std::make_shared<ExtractOptions>();
    CLI::App* extract =
        app.add_subcommand("extract", "Unpack every part of the package into a folder.");
    extract->add_option("PKG", e->package, "App package")->required()->check(nonEmpty());
    extract->add_option("DIR", e->folder, "Destination folder (created when missing)")
        ->required()
        ->check(nonEmpty());
    extract->add_flag("-k,--keep", e->settings.keep,
                      "Fail, changing nothing, when a file would be replaced");
    extract
        ->add_option("--max-size", e->settings.maxBytes,
                     "Most bytes the parts may add up to (default: no limit but the free space)")
        ->transform(CLI::AsSizeValue(false));
    extract->add_flag("--sync", e->settings.sync,
                      "Flush every file and folder to disk before the new files count");
    extract->add_flag("--verify", e->settings.verify,
                      "Check the signature, then every part's digest as it is written; on any "
                      "fault change nothing");
    extract
        ->add_option("--trust", e->settings.trust,
                     "PEM file of trusted certificates (repeatable; implies --verify)")
        ->allow_extra_args(false);
    extract->add_flag("--allow-unsigned", e->settings.allowUnsigned,
                      "With --verify, accept a package without a signature when its digests match");

    struct RecoverOptions {
        std::string folder;
        bool discard = false;
    };
    auto r = std::make_shared<RecoverOptions>();
    CLI::App* recover =
        app.add_subcommand("recover",
                           "Complete an extraction into DIR that a crash interrupted, remove "
                           "leftovers; in an apps root, settle an interrupted install or remove.");
    recover->add_option("DIR", r->folder, "Destination folder of the interrupted extraction")
        ->required()
        ->check(nonEmpty());
    recover->add_flag("--discard", r->discard,
                      "Remove staging folders of ours whose journal cannot be read");

    return {
        {extract, [e] { return runExtract(e->package, e->folder, e->settings); },
         [e] { return e->package; }},
        {recover, [r] { return runRecover(r->folder, r->discard); }, [r] { return r->folder; }}};
}

}  // namespace tsapp::tool
