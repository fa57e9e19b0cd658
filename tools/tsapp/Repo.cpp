// tsapp repo index: publish a folder of packages as a repository.
// tsapp search: find apps in a repository's signed index.

#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "Commands.hpp"
#include "RepoClient.hpp"
#include "Text.hpp"
#include "tsappinstall/repository/Client.hpp"
#include "tsappinstall/repository/Indexer.hpp"

namespace tsapp::tool {
namespace {

namespace repository = tsappinstall::repository;

// "30d", "12h", "90m", "45s": how long a published index stays valid.
std::int64_t parseDuration(const std::string& text) {
    static const std::map<char, std::int64_t> units = {
        {'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}};
    const auto unit = text.empty() ? units.end() : units.find(text.back());
    const std::string digits = text.substr(0, text.size() - 1);
    if (unit == units.end() || digits.empty() || digits.size() > 9 ||
        digits.find_first_not_of("0123456789") != std::string::npos)
        throw CLI::ValidationError("--valid-for",
                                   "a number followed by d, h, m or s, such as 30d: " + text);
    return std::stoll(digits) * unit->second;
}

// A manifest's text on a terminal: control characters could move the
// cursor or retitle the window, so they show as "?".
std::string printable(std::string text) {
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return text;
}

struct IndexCommand {
    std::string folder;
    std::string validFor = "30d";
    bool skipBad = false;
    repository::IndexOptions options;
};

int runIndex(IndexCommand& o) {
    o.options.validFor = parseDuration(o.validFor);
    const auto folder = nativePath(o.folder);
    const repository::IndexOutcome outcome = repository::indexFolder(folder, o.options);
    for (const auto& bad : outcome.badPackages)
        std::cout << printable(bad.file) << ": left out: " << printable(bad.what) << '\n';
    for (const auto& image : outcome.leftOutImages)
        std::cout << printable(image.file) << ": image left out: " << printable(image.what) << '\n';
    std::cout << "index version " << outcome.version << ": " << outcome.packages
              << " packages listed, " << outcome.read << " read, " << outcome.badPackages.size()
              << " bad\n";
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
    std::vector<repository::Repository> repos;
    if (o.location.empty())
        repos = recordedIndexes(o.root);
    else
        repos.emplace_back(o.location, o.options);
    std::map<std::string, const repository::PackageEntry*> newest;
    for (const auto& repo : repos)
        for (const auto* entry : repository::search(repo.index(), o.text)) {
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
        std::cout << printable(e->name) << ' ' << printable(e->version) << " ("
                  << printable(e->guid) << ")\n  " << printable(e->summary)
                  << (e->authorName.empty() ? "" : " - " + printable(e->authorName)) << '\n';
    }
    if (o.json)
        std::cout << all.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                  << '\n';
    if (newest.empty() && repos.empty())
        throw Failure("search", "no repository is recorded; give --repo or run tsapp repo add");
    if (newest.empty())
        throw Failure(o.location.empty() ? std::string("search") : o.location,
                      "no app matches \"" + printable(o.text) + "\"");
    return kGood;
}

void addClientOptions(CLI::App* command, repository::ClientOptions& options) {
    command
        ->add_option("--trust", options.trustAnchors,
                     "PEM file of a CA the index's signer must lead to (repeatable)")
        ->check(nonEmpty());
    command->add_flag("--unsigned", options.allowUnsigned,
                      "Read an index without checking its signature (no --trust)");
    command
        ->add_option("--repo-ca", options.serverCa,
                     "PEM file of the CA for an https: server (default: the system's)")
        ->check(nonEmpty());
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
    indexCli->add_option("DIR", index->folder, "Repository folder")->required()->check(nonEmpty());
    indexCli->add_option("-j,--jobs", index->options.jobs,
                         "Packages read at once (default: one per core)");
    indexCli->add_option("--valid-for", index->validFor,
                         "How long the index stays valid: 30d (default), 12h, 90m, 45s");
    indexCli->add_flag("--skip-bad", index->skipBad, "Exit 0 although bad packages were left out");
    indexCli
        ->add_option("--sign", index->options.signingKey,
                     "Sign the index with this PEM private key")
        ->check(nonEmpty());
    indexCli
        ->add_option("--cert", index->options.signingCertificate,
                     "The signer's PEM certificate (and chain)")
        ->check(nonEmpty());
    indexCli->get_option("--sign")->needs(indexCli->get_option("--cert"));
    indexCli->get_option("--cert")->needs(indexCli->get_option("--sign"));

    auto search = std::make_shared<SearchCommand>();
    CLI::App* searchCli =
        app.add_subcommand("search", "Find apps in a repository by name, summary or author.");
    searchCli->add_option("TEXT", search->text, "Text to look for (any case)")->required();
    searchCli
        ->add_option("--repo", search->location,
                     "Repository: a folder, a file: URL or an http(s): URL (default: the recorded "
                     "ones)")
        ->check(nonEmpty());
    searchCli
        ->add_option("--root", search->root,
                     "Apps root whose recorded repositories to search (default: as install)")
        ->check(nonEmpty());
    searchCli->add_flag("--json", search->json, "One JSON array of the apps found");
    addClientOptions(searchCli, search->options);

    std::vector<Command> commands = {
        {indexCli, [index] { return runIndex(*index); }, [index] { return index->folder; }},
        {searchCli, [search] { return runSearch(*search); },
         [search] { return search->location.empty() ? "search" : search->location; }}};
    for (auto& command : addRepoRecords(app, repo)) commands.push_back(std::move(command));
    return commands;
}

}  // namespace tsapp::tool
