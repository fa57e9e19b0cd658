// tsapp pack: builds a sealed app package from a source folder, with its
// content digests and, when asked, the author's signature over them and
// the proofs that the author's key follows an earlier one (tsapp rotate).
//
// The folder holds tsapp.json (the manifest fields, see the README), the
// icon and screenshot it names, and a folder of app files. Everything is
// checked before anything is written; the package is then written to a
// temporary file beside the output, given the same full check that
// `tsapp check` runs, and only renamed into place when it passes, so pack
// never leaves a package its own check rejects.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "Commands.hpp"
#include "Progress.hpp"
#include "tsappinstall/Guid.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/integrity/KeyRotation.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/pack/PackPlan.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsapp::tool {
namespace {

namespace fs = std::filesystem;
using tsappinstall::pack::PackPlan;
using tsappinstall::pack::PackRequest;

// The package is written here first; removed unless it was renamed.
struct TemporaryPackage {
    std::string path;
    ~TemporaryPackage() {
        std::error_code ignored;
        if (!path.empty()) fs::remove(path, ignored);
    }
};

// The signer's key, its certificate and the key's passphrase.
struct KeyOptions {
    std::string key, cert, passFile, passEnv;
};

struct PackOptions {
    PackRequest request;
    KeyOptions signing;
    std::vector<std::string> rotationProofs;
    unsigned jobs = 0;
    bool strict = false, dryRun = false, quiet = false, json = false;
};

// The package, with a progress line when stderr is a terminal.
tsappinstall::pack::WrittenPack writePackage(const PackPlan& plan, const std::string& path,
                                             const tsappinstall::integrity::Signer* signer,
                                             const std::string& keyRotations,
                                             const PackOptions& o) {
    ProgressLine progress;
    tsappinstall::pack::PackWriting writing;
    writing.signer = signer;
    writing.keyRotations = keyRotations;
    writing.jobs = o.jobs;
    if (!o.quiet && ::isatty(STDERR_FILENO))
        writing.progress = [&](std::uint64_t done, std::uint64_t total) {
            progress.update(done, total, "packed");
        };
    return tsappinstall::pack::writePack(plan, path, writing);
}

// The key's passphrase from --pass-file (its first line) or --pass-env.
std::optional<std::string> passphrase(const KeyOptions& o) {
    if (!o.passFile.empty()) {
        std::ifstream in(o.passFile, std::ios::binary);
        std::string line;
        if (!in) throw Failure(o.passFile, "cannot be read");
        std::getline(in, line);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return line;
    }
    if (!o.passEnv.empty()) {
        const char* value = std::getenv(o.passEnv.c_str());
        if (value == nullptr) throw Failure(o.passEnv, "the environment variable is not set");
        return std::string(value);
    }
    return std::nullopt;
}

// Read before anything is written: a wrong key stops the tool here.
void loadSigner(const KeyOptions& o, std::optional<tsappinstall::integrity::Signer>& signer) {
    const std::optional<std::string> secret = passphrase(o);
    try {
        if (secret)
            signer.emplace(o.key, o.cert, *secret);
        else
            signer.emplace(o.key, o.cert);
    } catch (const std::exception& e) {
        throw Failure(o.key, causeOf(e));
    }
}

// The proofs of every file, one after the other as given, each file
// checked to hold nothing but proofs.
std::string readRotationProofs(const std::vector<std::string>& files) {
    std::string proofs;
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) throw Failure(file, "cannot be read");
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        try {
            tsappinstall::integrity::readKeyRotations(text);
        } catch (const std::exception& e) {
            throw Failure(file, causeOf(e));
        }
        proofs += text.back() == '\n' ? text : text + '\n';
    }
    try {
        if (!proofs.empty()) tsappinstall::integrity::readKeyRotations(proofs);  // count, size
    } catch (const std::exception& e) {
        throw Failure("--rotation-proof", causeOf(e));
    }
    return proofs;
}

// --dry-run: what would be packed, with its sizes, and where.
void listPlan(const PackPlan& plan, bool json) {
    std::vector<std::pair<std::string, std::uint64_t>> parts = {
        {plan.icon.filename().string(), plan.sizes[0]},
        {plan.screenshot.filename().string(), plan.sizes[1]}};
    for (std::size_t i = 0; i < plan.files.size(); ++i)
        parts.emplace_back("files/" + plan.files[i], plan.sizes[i + 2]);
    std::uint64_t total = 0;
    for (const auto& part : parts) total += part.second;
    if (json) {
        nlohmann::ordered_json files = nlohmann::ordered_json::array();
        for (const auto& [path, size] : parts) files.push_back({{"path", path}, {"size", size}});
        std::cout << nlohmann::ordered_json{{"package", plan.output},
                                            {"files", files},
                                            {"bytes", total}}
                         .dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                  << '\n';
        return;
    }
    for (const auto& [path, size] : parts)
        std::cout << size << '\t' << fl::i18n::shown(path) << '\n';
    std::cout << parts.size() << " files, " << total << " bytes, would be packed into "
              << fl::i18n::shown(plan.output) << '\n';
}

int runPack(const PackOptions& o) {
    const std::string extension = std::string(".") + Corvane::addons::apps::APP_FILE_EXTENSION;
    if (!o.request.output.empty() && fs::path(o.request.output).extension() != extension)
        throw Failure(o.request.output, "the package's name must end in " + extension);
    // A source or an output folder that is not there is said as such, not
    // as a file in it that cannot be read or made.
    const auto requireFolder = [](const fs::path& folder, const std::string& about) {
        struct stat info {};
        if (::stat(folder.c_str(), &info) != 0) throw Failure(about, std::strerror(errno));
        if (!S_ISDIR(info.st_mode)) throw Failure(about, "not a folder");
    };
    requireFolder(o.request.source, o.request.source.string());
    if (!o.request.output.empty()) {
        const fs::path parent = fs::path(o.request.output).parent_path();
        requireFolder(parent.empty() ? fs::path(".") : parent, o.request.output);
    }
    PackPlan plan;
    const std::vector<std::string> problems = tsappinstall::pack::planPack(o.request, plan);
    const std::string source = o.request.source.string();
    for (const auto& problem : problems)
        printError(problem.rfind("tsapp.json", 0) == 0 ? (fs::path(source) / problem).string()
                                                       : problem);
    if (!problems.empty()) return kBad;
    std::vector<std::string> warnings = plan.warnings;
    std::optional<tsappinstall::integrity::Signer> signer;
    if (!o.signing.key.empty()) {
        loadSigner(o.signing, signer);
        for (const std::string& problem : signer->certificateProblems(std::time(nullptr)))
            warnings.push_back(o.signing.cert + ": warning: " + problem);
    }
    const std::string keyRotations = readRotationProofs(o.rotationProofs);
    for (const auto& warning : warnings) printError(warning);
    if (o.strict && !warnings.empty()) {
        printError(source + ": refused (--strict): the warnings above");
        return kBad;
    }
    if (o.dryRun) {
        listPlan(plan, o.json);
        return kGood;
    }
    const std::string& output = plan.output;
    const fs::path destination(output);
    // Found now, not as a failed rename of the temporary file after all
    // the work.
    std::error_code error;
    if (fs::is_directory(destination, error)) throw Failure(output, "Is a directory");
    TemporaryPackage temporary{
        (destination.parent_path() /
         ("." + destination.stem().string() + "." + std::to_string(::getpid()) + extension))
            .string()};
    // From here on a failure is about the package being written.
    tsappinstall::pack::WrittenPack written;
    try {
        written = writePackage(plan, temporary.path, signer ? &*signer : nullptr, keyRotations, o);
        // Every part is decoded again and checked against the digest list:
        // that is what catches a fault of the compressor or of the disk.
        AppManifestSerializer serializer;
        const auto report = tsappinstall::inspect::checkPackage(temporary.path, serializer);
        if (!report.good())
            throw std::runtime_error("the written package fails its check: " +
                                     report.faults.front().detail);
        fs::rename(temporary.path, output);
    } catch (const std::exception& e) {
        throw Failure(output, causeOf(e));
    }
    temporary.path.clear();
    const std::size_t parts = plan.files.size() + (signer ? 6 : 5) + (keyRotations.empty() ? 0 : 1);
    if (o.json)
        std::cout << nlohmann::ordered_json{{"package", output},
                                            {"size", written.size},
                                            {"sha256", written.sha256},
                                            {"guid", plan.manifest.GUID},
                                            {"parts", parts}}
                         .dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                  << '\n';
    else if (!o.quiet)
        std::cout << fl::i18n::shown(output) << ": " << parts << " parts, " << written.size
                  << " bytes, GUID " << plan.manifest.GUID << ", SHA-256 " << written.sha256
                  << '\n';
    return kGood;
}

struct RotateOptions {
    KeyOptions old;
    std::string newCert;
};

int runRotate(const RotateOptions& o) {
    std::optional<tsappinstall::integrity::Signer> old;
    loadSigner(o.old, old);
    std::string newKey;
    try {
        newKey = tsappinstall::integrity::readCertificate(o.newCert).keyFingerprint;
    } catch (const std::exception& e) {
        throw Failure(o.newCert, causeOf(e));
    }
    try {
        std::cout << tsappinstall::integrity::signKeyRotation(*old, newKey);
    } catch (const tsappinstall::integrity::IntegrityError& e) {
        throw Failure(o.newCert, causeOf(e));
    }
    return kGood;
}

// A key (`keyName`), its certificate and its passphrase (--pass-file or
// --pass-env); the key and the certificate are both required, or else
// need each other.
void addKeyOptions(CLI::App* command, KeyOptions& o, bool required, const char* keyName,
                   const char* keyHelp, const char* certName, const char* certHelp) {
    auto* key = command->add_option(keyName, o.key, keyHelp);
    auto* cert = command->add_option(certName, o.cert, certHelp);
    command->add_option("--pass-file", o.passFile,
                        "Read the key's passphrase from the first line of this file");
    command->add_option("--pass-env", o.passEnv,
                        "Take the key's passphrase from this environment variable");
    if (required) {
        key->required();
        cert->required();
        return;
    }
    key->needs(cert);
    cert->needs(key);
}

// Checked once the command line is parsed rather than with needs() and
// excludes(), whose notes would push the options' help onto a line of its
// own.
void checkPassphraseOptions(const KeyOptions& o, const char* keyName) {
    if (!o.passFile.empty() && !o.passEnv.empty())
        throw CLI::ValidationError("--pass-file", "cannot be given with --pass-env");
    if ((!o.passFile.empty() || !o.passEnv.empty()) && o.key.empty())
        throw CLI::ValidationError("--pass-file/--pass-env", std::string("needs ") + keyName);
}

}  // namespace

std::vector<Command> addPack(CLI::App& app) {
    auto o = std::make_shared<PackOptions>();
    CLI::App* pack = app.add_subcommand(
        "pack",
        "Build a sealed app package with content digests from a folder holding tsapp.json.");
    addRequired(pack, "SRC", o->request.source, "Source folder");
    addNonEmpty(pack, "-o,--output", o->request.output,
                "Package to write (.tsappinstall; default: NAME-VERSION.tsappinstall here)");
    pack->add_option("--guid", o->request.guid,
                     "GUID of the app, 8-4-4-4-12 hex digits (default: a fresh one)")
        ->check(CLI::Validator(
            [](std::string& value) {
                return tsappinstall::isGuid(value) ? std::string()
                                                   : "not 8-4-4-4-12 hex digits: " + value;
            },
            "GUID", "guid"));
    pack->add_option("--exclude", o->request.excludes,
                     "Leave out app files matching this pattern (as in SRC/.tsappignore; "
                     "repeatable)");
    pack->add_option("-j,--jobs", o->jobs,
                     "Files compressed at once (default: one per core); the package is the "
                     "same whatever the number");
    pack->add_flag("--dry-run", o->dryRun,
                   "Check everything and list the files that would be packed, with their sizes; "
                   "write nothing");
    pack->add_flag("-q,--quiet", o->quiet, "Print nothing but warnings and failures");
    pack->add_flag("--json", o->json,
                   "Print the result as JSON: package, size, sha256, guid, parts");
    pack->add_flag("--strict", o->strict,
                   "Refuse to pack when there is any warning (an expired or unfit certificate, "
                   "an empty folder)");
    addKeyOptions(pack, o->signing, false, "--sign", "Sign the digests with this PEM private key",
                  "--cert", "The signer's PEM certificate (and chain)");
    pack->add_option("--rotation-proof", o->rotationProofs,
                     "Carry this file's key rotation proofs (tsapp rotate; repeatable, oldest "
                     "first); needs --sign")
        ->allow_extra_args(false);
    pack->parse_complete_callback([o] {
        checkPassphraseOptions(o->signing, "--sign");
        if (!o->rotationProofs.empty() && o->signing.key.empty())
            throw CLI::ValidationError("--rotation-proof", "needs --sign");
    });

    auto r = std::make_shared<RotateOptions>();
    CLI::App* rotate = app.add_subcommand(
        "rotate",
        "Print a proof, signed by an old key, that a new key follows it (for pack "
        "--rotation-proof).");
    addKeyOptions(rotate, r->old, true, "--old-key",
                  "The old PEM private key, which signs the proof", "--old-cert",
                  "The old key's PEM certificate (and chain)");
    addRequired(rotate, "--new-cert", r->newCert, "A PEM certificate of the new key");
    rotate->parse_complete_callback([r] { checkPassphraseOptions(r->old, "--old-key"); });
    return {{pack, [o] { return runPack(*o); }, [o] { return o->request.source.string(); }},
            {rotate, [r] { return runRotate(*r); }, [r] { return r->old.key; }}};
}

}  // namespace tsapp::tool
