// tsapp extract: unpack every part into a folder; tsapp recover: repair a
// folder whose extraction was killed.
//
// Runs the same steps as the facade's extractAppFile, with the same modes
// (--keep chooses FailIfExists), and checks the package's digest list in
// the same pass when it has one, but through the extractor directly: that
// lets a terminal show progress, lets the user set the size limit and
// durability, lets SIGINT, SIGTERM and SIGHUP roll the extraction back, and
// lets an error line carry the cause by kind.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "Progress.hpp"
#include "StoreTool.hpp"
#include "Text.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/VerifiedExtraction.hpp"
#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/FileSystemManager.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsapp::tool {
namespace {

struct ExtractSettings {
    std::uint64_t maxBytes = 0;  // 0: no limit but the free space
    bool sync = false;
    bool keep = false;               // fail, changing nothing, when a file would be replaced
    bool verify = false;             // the signature too
    std::vector<std::string> trust;  // implies verify
    bool allowUnsigned = false;
    unsigned jobs = 0;      // parts written at once; 0: one per core
    bool noVerify = false;  // not even the digests
};

// `progress` must outlive the extraction.
opc::extraction::Options optionsOf(const ExtractSettings& settings, ProgressLine& progress) {
    opc::extraction::Options options;
    options.maxBytes = settings.maxBytes;
    options.sync = settings.sync;
    options.cancelled = [] { return caughtSignal != 0; };
    options.threads = settings.jobs;
    if (::isatty(STDERR_FILENO))
        options.progress = [&progress](std::uint64_t b, std::uint64_t tb, std::size_t p,
                                       std::size_t tp) { progress.update(b, tb, p, tp); };
    return options;
}

opc::qvservices::ReplaceMode replaceModeOf(const ExtractSettings& settings) {
    return settings.keep ? opc::qvservices::ReplaceMode::FailIfExists
                         : opc::qvservices::ReplaceMode::Replace;
}

// The digests are checked whenever the package lists them; a package
// without a list is unpacked as it is, unless the signature is asked for.
tsappinstall::integrity::DigestPolicy digestPolicyOf(const ExtractSettings& settings) {
    using tsappinstall::integrity::DigestPolicy;
    if (settings.noVerify) return DigestPolicy::Off;
    if (settings.verify || !settings.trust.empty()) return DigestPolicy::Required;
    return DigestPolicy::WhenPresent;
}

// Each fault on a line of its own, then a line saying that nothing changed.
// `shown` is the package as the user named it. Without --verify the
// signature is left unread: only the digests are checked.
std::vector<std::string> unpack(opc::model::Package& package,
                                const std::filesystem::path& nativeFolder,
                                const ExtractSettings& settings, const std::string& shown) {
    namespace integrity = tsappinstall::integrity;
    const bool signature = settings.verify || !settings.trust.empty();
    ProgressLine progress;
    const integrity::VerifiedExtraction result =
        integrity::unpack(package, nativeFolder, digestPolicyOf(settings),
                          {settings.trust, !settings.allowUnsigned, signature},
                          optionsOf(settings, progress), replaceModeOf(settings));
    if (result.report.ok()) return result.leftAside;
    for (const integrity::Fault& fault : result.report.faults)
        printError(shown + ": " + tsappinstall::describe(fault));
    throw Failure(shown,
                  "verification failed; the folder " + nativeFolder.string() + " is as it was");
}

std::vector<std::string> extractPackage(const std::filesystem::path& nativePath,
                                        const std::filesystem::path& nativeFolder,
                                        const ExtractSettings& settings, const std::string& shown) {
    opc::model::OpenedPackage opened(nativePath);
    printWarnings(shown, opened.warnings());
    std::vector<std::string> leftAside = unpack(opened.package(), nativeFolder, settings, shown);
    opened.close();
    return leftAside;
}

// An extraction that failed, of the package layer's `kind` (Other for a
// failure of another layer): rolled back when interrupted, unless the
// library says what it could not undo; about the folder when writing it
// failed. Called from a catch block.
int failedExtraction(const std::exception& e, opc::Reason kind, const std::string& package,
                     const std::string& folder, const std::filesystem::path& nativeFolder) {
    if (caughtSignal) {
        const bool clean = kind == opc::Reason::Cancelled;
        printError("interrupted; " + (clean
                                          ? "the folder " + nativeFolder.string() + " is as it was"
                                          : std::string(e.what())));
        return 128 + caughtSignal;
    }
    const bool atDestination = kind == opc::Reason::CannotWrite || kind == opc::Reason::BadPath;
    throw Failure(atDestination ? folder : package, causeOf(e), kind);
}

// Extracts the package file at `path`; messages name `package`.
int extractFrom(const std::string& path, const std::string& package, const std::string& folder,
                const ExtractSettings& settings) {
    const std::filesystem::path packagePath = nativePath(path);
    const std::filesystem::path nativeFolder = nativePath(folder);
    catchStopSignals();
    try {
        for (const auto& left : extractPackage(packagePath, nativeFolder, settings, package))
            printError("warning: " + left);
    } catch (const Failure&) {
        throw;
    } catch (const opc::Exception& e) {
        return failedExtraction(e, e.reason(), package, folder, nativeFolder);
    } catch (const std::exception& e) {
        return failedExtraction(e, opc::Reason::Other, package, folder, nativeFolder);
    }
    return kGood;
}

// `package` as the user named it, "-" for standard input.
int runExtract(const std::string& package, const std::string& folder,
               const ExtractSettings& settings) {
    if (settings.noVerify && (settings.verify || !settings.trust.empty()))
        throw UsageError("--no-verify", "cannot be combined with --verify or --trust");
    checkTrustFiles(settings.trust);
    return withPackage(package, [&](const std::string& path) {
        return extractFrom(path, shownPackage(package), folder, settings);
    });
}

void printNothingToRecover(const std::string& folder) {
    std::cout << "nothing to recover in " << fl::i18n::shown(folder) << "\n";
}

// An apps root settles what an interrupted install, upgrade, rollback or
// remove left, from its records.
int recoverStore(const std::string& folder) {
    tsappinstall::store::AppStore apps(nativePath(folder), RootOption{folder}.storeOptions());
    const auto done = apps.recover();
    for (const auto& line : done) std::cout << fl::i18n::shown(line) << "\n";
    if (done.empty()) printNothingToRecover(nativePath(folder).string());
    return kGood;
}

// A folder to recover must be there: a mistyped one has nothing to
// recover, and saying so would pass a typo as good.
void requireFolder(const std::string& folder) {
    struct stat info {};
    if (::stat(nativePath(folder).c_str(), &info) != 0) throw Failure(folder, std::strerror(errno));
    if (!S_ISDIR(info.st_mode)) throw Failure(folder, "not a folder");
}

int runRecover(const std::string& given, const RootOption& root, bool discardUnreadable) {
    if (!given.empty() && !root.root.empty())
        throw UsageError("--root", "give DIR or --root, not both");
    const std::string folder = given.empty() ? root.path().string() : given;
    requireFolder(folder);
    // Anything named store.db makes it a root, which refuses a database that is no file.
    if (tsappinstall::store::AppStore::exists(nativePath(folder))) return recoverStore(folder);
    const std::string nativeFolder = nativePath(folder).string();
    const auto recovery =
        opc::extraction::recover(nativeFolder, opc::FileSystemOpsSelector(), discardUnreadable);
    for (const auto& line : recovery.done) std::cout << fl::i18n::shown(line) << "\n";
    for (const auto& left : recovery.leftAside) printError(folder + ": could not repair " + left);
    for (const auto& left : recovery.unreadable)
        printError(folder + ": left alone " + left + "; --discard removes it");
    for (const auto& left : recovery.skipped)
        printError("warning: " + folder + ": left alone " + left +
                   ": not an extraction folder of this user's");
    if (recovery.done.empty() && recovery.leftAside.empty() && recovery.unreadable.empty())
        printNothingToRecover(nativeFolder);
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
    addRequired(extract, "PKG", e->package, "App package (*.tsappinstall, - for stdin)");
    addRequired(extract, "DIR", e->folder, "Destination folder (created when missing)");
    extract->add_flag("-k,--keep", e->settings.keep,
                      "Fail, changing nothing, when a file would be replaced");
    extract
        ->add_option("--max-size", e->settings.maxBytes,
                     "Most bytes the parts may add up to, as 500M or 2G (binary units K, M, G, T; "
                     "default: no limit but the free space)")
        ->type_name("SIZE")
        ->transform(sizeValue());
    extract->add_flag("--sync", e->settings.sync,
                      "Flush every file and folder to disk before the new files count");
    extract->add_flag("--verify", e->settings.verify,
                      "Also check the signature, before anything is written; require one unless "
                      "--allow-unsigned");
    extract
        ->add_option("--trust", e->settings.trust,
                     "PEM file of trusted certificates (repeatable; implies --verify)")
        ->type_name("FILE")
        ->allow_extra_args(false)
        ->check(nonEmpty());
    extract->add_flag("--allow-unsigned", e->settings.allowUnsigned,
                      "With --verify, accept a package without a signature when its digests match");
    extract->add_flag("--no-verify", e->settings.noVerify,
                      "Do not check the digest list (checked by default as each part is written)");
    addJobs(extract, e->settings.jobs, "Parts written at once, each on a thread");

    struct RecoverOptions {
        std::string folder;
        RootOption root;
        bool discard = false;
    };
    auto r = std::make_shared<RecoverOptions>();
    CLI::App* recover =
        app.add_subcommand("recover",
                           "Complete an extraction into DIR that a crash interrupted, remove "
                           "leftovers; in an apps root, settle an interrupted install or remove.");
    addNonEmpty(recover, "DIR", r->folder,
                "Destination folder of the interrupted extraction, or an apps root (default: the "
                "apps root, as --root)");
    addRoot(recover, r->root);
    recover->add_flag("--discard", r->discard,
                      "Remove staging folders of ours whose journal cannot be read");

    return {{extract, [e] { return runExtract(e->package, e->folder, e->settings); },
             [e] { return shownPackage(e->package); }},
            {recover, [r] { return runRecover(r->folder, r->root, r->discard); },
             [r] { return r->folder.empty() ? rootSubject(r->root)() : r->folder; }}};
}

}  // namespace tsapp::tool
