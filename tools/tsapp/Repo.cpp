// tsapp repo index: publish a folder of packages as a repository.
// tsapp search: find apps in a repository's signed index.

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "Commands.hpp"
#include "RepoClient.hpp"
#include "StoreTool.hpp"
#include "Text.hpp"
#include "tsappinstall/installer/Installer.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/repository/Client.hpp"
#include "tsappinstall/repository/Indexer.hpp"

namespace tsapp::tool {
namespace {

using Json = nlohmann::ordered_json;
using fl::i18n::shown;
namespace integrity = tsappinstall::integrity;

// "30d", "12h", "90m", "45s": how long a published index stays valid; 0
// when the text is none of those, or a time already over.
std::int64_t durationOf(const std::string& text) {
    static const std::map<char, std::int64_t> units = {
        {'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}};
    const auto unit = text.empty() ? units.end() : units.find(text.back());
    const std::string digits = text.substr(0, text.size() - 1);
    if (unit == units.end() || digits.empty() || digits.size() > 9 ||
        digits.find_first_not_of("0123456789") != std::string::npos)
        return 0;
    return std::stoll(digits) * unit->second;
}

// Checked as the command line is read, so that a bad one is a usage error.
const CLI::Validator& durationValue() {
    static const CLI::Validator validator(
        [](std::string& value) {
            return durationOf(value) > 0
                       ? std::string()
                       : "not a time to stay valid: \"" + value +
                             "\" (a number above 0 followed by d, h, m or s, such as 30d)";
        },
        "", "duration");
    return validator;
}

struct IndexCommand {
    std::string folder;
    std::string validFor = "30d";
    bool skipBad = false;
    std::vector<std::string> revoke;
    repository::IndexOptions options;
};

// A key to revoke as given: its SHA-256 already, or a certificate of it.
std::string revokedKeyOf(const std::string& given) {
    const bool isDigest = given.size() == 64 &&
                          given.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    return isDigest ? given : integrity::readCertificate(given).keyFingerprint;
}

int runIndex(IndexCommand& o) {
    o.options.validFor = durationOf(o.validFor);
    for (const std::string& given : o.revoke) o.options.revoke.push_back(revokedKeyOf(given));
    const auto folder = nativePath(o.folder);
    const repository::IndexOutcome outcome = repository::indexFolder(folder, o.options);
    // What was left out is a complaint, said where complaints go; stdout
    // keeps the one line a script reads.
    for (const auto& bad : outcome.badPackages) printError(bad.file + ": left out: " + bad.what);
    for (const auto& image : outcome.leftOutImages)
        printError(image.file + ": image left out: " + image.what);
    std::cout << "index version " << outcome.version << ": " << counted(outcome.packages, "package")
              << " listed, " << outcome.read << " read, " << outcome.badPackages.size() << " bad\n";
    return outcome.badPackages.empty() || o.skipBad ? kGood : kBad;
}

struct SearchCommand {
    std::string text;
    std::string location;  // empty: the apps root's recorded repositories
    std::string root;
    bool json = false;
    repository::ClientOptions options;
};

// One line (or JSON object) per app: the newest version that matched.
int runSearch(const SearchCommand& o) {
    checkTrustFiles(o.options.trustAnchors);
    if (!o.location.empty() && o.options.trustAnchors.empty() && !o.options.allowUnsigned)
        throw UsageError(o.location,
                         "give --trust FILE, the publisher's CA certificate that the index's "
                         "signer leads to (or --unsigned to read it unchecked)");
    std::vector<std::shared_ptr<const repository::Repository>> repos;
    if (o.location.empty())
        repos = recordedIndexes(o.root);
    else
        repos.push_back(std::make_shared<repository::Repository>(o.location, o.options));
    std::map<std::string, const repository::PackageEntry*> newest;
    for (const auto& repo : repos)
        for (const auto* entry : repository::search(repo->index(), o.text)) {
            const auto*& best = newest[entry->guid];
            if (!best || repository::compareVersions(entry->version, best->version) > 0)
                best = entry;
        }
    auto all = nlohmann::ordered_json::array();
    for (const auto& [guid, e] : newest) {
        if (o.json) {
            all.push_back({{"guid", e->guid},
                           {"name", e->name},
                           {"version", e->version},
                           {"summary", e->summary},
                           {"author", e->authorName},
                           {"file", e->file},
                           {"signer", e->signer}});
            continue;
        }
        std::cout << shown(e->name) << ' ' << shown(e->version) << " (" << shown(e->guid) << ")\n  "
                  << shown(e->summary)
                  << (e->authorName.empty() ? "" : " - " + shown(e->authorName)) << '\n';
    }
    if (o.json)
        std::cout << all.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                  << '\n';
    if (newest.empty() && repos.empty())
        throw Failure("search", "no repository is recorded; give --repo or run tsapp repo add");
    if (newest.empty())
        throw Failure(o.location.empty() ? std::string("search") : o.location,
                      "no app matches \"" + shown(o.text) + "\"");
    return kGood;
}

struct RecordSettings {
    RootOption root;
    installer::Remote remote;
    bool json = false;
};

int runAdd(const RecordSettings& s) {
    checkTrustFiles(s.remote.trust);
    checkTrustFiles(s.remote.packageTrust);
    const auto apps = openRoot(s.root);
    installer::Installer installer(*apps);
    const auto repo = onRepository(s.remote.name, [&] { return installer.add(s.remote); });
    const auto& named = repo->identity().repository;
    std::cout << "added " << shown(s.remote.name) << ": " << shown(s.remote.location)
              << (named.empty() ? std::string(", an unnamed repository")
                                : ", repository " + shown(named))
              << ", index version " << repo->index().version << ", "
              << counted(repo->index().packages.size(), "package") << "\n";
    return kGood;
}

// The certificates of the trust files, or why they cannot be read.
Json anchorsOf(const std::vector<std::string>& files) {
    Json out = Json::array();
    try {
        for (const auto& anchor : integrity::readTrustAnchors(files))
            out.push_back(Json{{"sha256", anchor.fingerprint}, {"subject", anchor.subject}});
    } catch (const tsappinstall::Error& e) {
        out.push_back(Json{{"error", e.what()}});
    }
    return out;
}

void printAnchors(const char* use, const Json& anchors) {
    for (const auto& anchor : anchors) {
        std::cout << "  " << use << ": ";
        if (anchor.contains("error"))
            std::cout << shown(anchor["error"].get<std::string>()) << "\n";
        else
            std::cout << "SHA-256 " << anchor["sha256"].get<std::string>() << " "
                      << shown(anchor["subject"].get<std::string>()) << "\n";
    }
}

// NAME  LOCATION, then what it is pinned to and the anchors trusted for it.
void printRemote(const installer::Remote& remote) {
    std::cout << shown(remote.name) << "  " << shown(remote.location) << "\n";
    if (!remote.signerKey.empty())
        std::cout << "  repository "
                  << (remote.repository.empty() ? "(unnamed)" : shown(remote.repository))
                  << ", index signed by the key SHA-256 " << shown(remote.signerKey) << "\n";
    printAnchors("index trust", anchorsOf(remote.trust));
    if (remote.packageTrust.empty())
        std::cout << "  package trust: as the index\n";
    else
        printAnchors("package trust", anchorsOf(remote.packageTrust));
}

int runList(const RecordSettings& s) {
    const auto apps = openExisting(s.root, false);
    if (!apps) return kGood;
    const installer::Installer installer(*apps);
    auto remotes = installer.remotes();
    std::sort(remotes.begin(), remotes.end(),
              [](const auto& a, const auto& b) { return byName(a.name, b.name); });
    for (const auto& remote : remotes) {
        if (!s.json) {
            printRemote(remote);
            continue;
        }
        const Json line = {{"name", remote.name},
                           {"location", remote.location},
                           {"repository", remote.repository},
                           {"signerKey", remote.signerKey},
                           {"trust", remote.trust},
                           {"trustCertificates", anchorsOf(remote.trust)},
                           {"packageTrust", remote.packageTrust},
                           {"packageTrustCertificates", anchorsOf(remote.packageAnchors())},
                           {"repoCa", remote.serverCa},
                           {"highestSeen", installer.highestSeen(remote)}};
        std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
    }
    return kGood;
}

// The root that records the repository named: a root without a database
// records none, and is left as it is.
std::unique_ptr<store::AppStore> rootRecording(const RecordSettings& s) {
    if (!store::AppStore::exists(s.root.path()))
        throw Failure(s.remote.name, "no repository of that name",
                      tsappinstall::FaultKind::UnknownRepository);
    return openRoot(s.root);
}

int runRemove(const RecordSettings& s) {
    const auto apps = rootRecording(s);
    installer::Installer installer(*apps);
    onRepository(s.remote.name, [&] { installer.remove(s.remote.name); });
    std::cout << "removed " << shown(s.remote.name) << "\n";
    return kGood;
}

int runMove(const RecordSettings& s) {
    const auto apps = rootRecording(s);
    installer::Installer installer(*apps);
    const auto repo = onRepository(
        s.remote.name, [&] { return installer.move(s.remote.name, s.remote.location); });
    std::cout << "moved " << shown(s.remote.name) << " to " << shown(s.remote.location)
              << ", index version " << repo->index().version << "\n";
    return kGood;
}

// A name people type and read back in lists: printable, no spaces at its
// ends, no control characters.
const CLI::Validator& repositoryName() {
    static const CLI::Validator validator(
        [](std::string& value) -> std::string {
            if (value.empty()) return {};  // nonEmpty() says so
            for (unsigned char c : value)
                if (c < 0x20 || c == 0x7F)
                    return "a repository name may not hold control characters (such as a tab)";
            if (value.front() == ' ' || value.back() == ' ')
                return "a repository name may not begin or end with a space";
            return {};
        },
        "", "");
    return validator;
}

void addClientOptions(CLI::App* command, repository::ClientOptions& options) {
    addNonEmpty(command, "--trust", options.trustAnchors,
                "PEM file of a CA the index's signer must lead to (repeatable)");
    command->add_flag("--unsigned", options.allowUnsigned,
                      "Read an index without checking its signature (no --trust)");
    addNonEmpty(command, "--repo-ca", options.serverCa,
                "PEM file of the CA for an https: server (default: the system's)");
}

}  // namespace

std::vector<Command> addRepo(CLI::App& app) {
    CLI::App* repo = app.add_subcommand(
        "repo",
        "Publish a folder of packages as a repository; record the repositories to install from.");
    repo->require_subcommand(1);
    auto index = std::make_shared<IndexCommand>();
    CLI::App* indexCli = repo->add_subcommand(
        "index",
        "Check every .tsappinstall in DIR and write the signed index (index.json), the images "
        "and the gallery (index.html).");
    addRequired(indexCli, "DIR", index->folder, "Repository folder");
    addNonEmpty(indexCli, "--id", index->options.repository,
                "The repository's identifier, which its index names (such as stable): needed for "
                "the first index, kept afterwards");
    addNonEmpty(indexCli, "--url", index->options.url,
                "The URL clients read the repository at, for the gallery's install commands "
                "(kept afterwards)");
    addNonEmpty(indexCli, "--title", index->options.title,
                "The gallery's title, such as the publisher's name (default: after the "
                "repository's identifier; kept afterwards)");
    addJobs(indexCli, index->options.jobs, "Packages read at once");
    indexCli
        ->add_option("--valid-for", index->validFor,
                     "How long the index stays valid: 30d (default), 12h, 90m, 45s")
        ->check(durationValue());
    indexCli->add_flag("--skip-bad", index->skipBad, "Exit 0 although bad packages were left out");
    addNonEmpty(indexCli, "--sign", index->options.signingKey,
                "Sign the index with this PEM private key");
    addNonEmpty(indexCli, "--cert", index->options.signingCertificate,
                "The signer's PEM certificate (and chain)");
    indexCli
        ->add_option("--revoke", index->revoke,
                     "Revoke a signer's key, given as its SHA-256 or a PEM certificate of it "
                     "(repeatable): clients refuse what it signed; it stays revoked")
        ->allow_extra_args(false)
        ->check(nonEmpty());
    indexCli->get_option("--sign")->needs(indexCli->get_option("--cert"));
    indexCli->get_option("--cert")->needs(indexCli->get_option("--sign"));

    auto search = std::make_shared<SearchCommand>();
    CLI::App* searchCli =
        app.add_subcommand("search", "Find apps in a repository by name, summary or author.");
    searchCli->add_option("TEXT", search->text, "Text to look for (any case)")->required();
    addNonEmpty(searchCli, "--repo", search->location,
                "Repository: a folder, a file: URL or an http(s): URL (default: the recorded "
                "ones)");
    addNonEmpty(searchCli, "--root", search->root,
                "Apps root whose recorded repositories to search (default: as install)");
    searchCli->add_flag("--json", search->json, "One JSON array of the apps found");
    addClientOptions(searchCli, search->options);

    auto added = std::make_shared<RecordSettings>();
    CLI::App* add = repo->add_subcommand(
        "add", "Record a repository in the apps root, once its index is read and trusted.");
    addRequired(add, "NAME", added->remote.name, "Name to refer to it by")->check(repositoryName());
    addRequired(add, "LOCATION", added->remote.location,
                "A folder, a file: URL or an http(s): URL");
    add->add_option("--trust", added->remote.trust,
                    "PEM file of a CA the index's signer must lead to (repeatable); its "
                    "certificates are copied into the root")
        ->required()
        ->allow_extra_args(false)
        ->check(nonEmpty());
    add->add_option("--package-trust", added->remote.packageTrust,
                    "PEM file of a CA the signers of its packages must lead to (repeatable; "
                    "default: the --trust files)")
        ->allow_extra_args(false)
        ->check(nonEmpty());
    addNonEmpty(add, "--repo-ca", added->remote.serverCa,
                "PEM file of the CA for an https: server (default: the system's)");
    addRoot(add, added->root);

    auto listed = std::make_shared<RecordSettings>();
    CLI::App* list = repo->add_subcommand("list", "List the recorded repositories.");
    list->add_flag("--json", listed->json, "One JSON object per line and repository");
    addRoot(list, listed->root);

    auto removed = std::make_shared<RecordSettings>();
    CLI::App* remove = repo->add_subcommand("remove", "Forget a recorded repository.");
    addRequired(remove, "NAME", removed->remote.name, "Its name");
    addRoot(remove, removed->root);

    auto moved = std::make_shared<RecordSettings>();
    CLI::App* move = repo->add_subcommand(
        "set-url",
        "Follow a recorded repository to a new location, once its index there is trusted; it "
        "keeps its name, pins and the highest index version seen.");
    move->alias("move");
    move->add_option("NAME", moved->remote.name, "Its name")->required()->check(nonEmpty());
    move->add_option("LOCATION", moved->remote.location, "A folder, a file: URL or an http(s): URL")
        ->required()
        ->check(nonEmpty());
    addRoot(move, moved->root);

    return {{indexCli, [index] { return runIndex(*index); }, [index] { return index->folder; }},
            {move, [moved] { return runMove(*moved); }, [moved] { return moved->remote.name; }},
            {searchCli, [search] { return runSearch(*search); },
             [search] { return search->location.empty() ? "search" : search->location; }},
            {add, [added] { return runAdd(*added); }, [added] { return added->remote.name; }},
            {list, [listed] { return runList(*listed); }, rootSubject(listed->root)},
            {remove, [removed] { return runRemove(*removed); },
             [removed] { return removed->remote.name; }}};
}

}  // namespace tsapp::tool
