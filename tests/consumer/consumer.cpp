// What a host application does with the installed library alone: packs an
// app from its source folder, reads the package back, publishes it in a
// signed folder repository, records the repository in an apps root,
// installs the app from it by name and lists what is installed.
//   consumer SOURCE WORK SIGNER_KEY SIGNER_CERT CA
// WORK must exist and be empty; SIGNER_CERT must lead to CA.

#include <tsappinstall/Fault.hpp>
#include <tsappinstall/compat/Compatibility.hpp>
#include <tsappinstall/facade/Tsappinstall.hpp>
#include <tsappinstall/installer/Installer.hpp>
#include <tsappinstall/pack/PackPlan.hpp>
#include <tsappinstall/repository/Indexer.hpp>
#include <tsappinstall/store/AppStore.hpp>

#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace tsappinstall;

// The sample's texts are ASCII.
std::string narrow(const std::u16string& text) {
    return std::string(text.begin(), text.end());
}

// Packs `source` into `folder` with a fixed GUID and time, so that every run
// packs the same bytes.
fs::path packSample(const fs::path& source, const fs::path& folder) {
    pack::PackRequest request;
    request.source = source;
    request.guid = "0123abcd-0000-4000-8000-0000000000c0";
    request.output = (folder / "hello.tsappinstall").string();
    request.when = 1700000000;
    pack::PackPlan plan;
    const std::vector<std::string> problems = pack::planPack(request, plan);
    if (!problems.empty()) throw std::runtime_error("cannot pack: " + problems.front());
    pack::writePack(plan, plan.output);
    return plan.output;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: consumer SOURCE WORK SIGNER_KEY SIGNER_CERT CA\n";
        return 2;
    }
    const fs::path source = argv[1], work = argv[2];
    try {
        const fs::path repo = work / "repo";
        fs::create_directory(repo);
        const fs::path package = packSample(source, repo);

        // The facade reads what the packer wrote: the package's own answer,
        // not the plan's.
        const AppManifest manifest =
            Corvane::addons::apps::Tsappinstall().getAppInfo(package.u16string());
        std::cout << narrow(manifest.name) << ' ' << narrow(manifest.version) << '\n';

        repository::IndexOptions indexing;
        indexing.repository = "consumer";
        indexing.signingKey = argv[3];
        indexing.signingCertificate = argv[4];
        const repository::IndexOutcome index = repository::indexFolder(repo, indexing);
        for (const auto& problem : index.badPackages)
            std::cerr << problem.file << ": " << problem.what << '\n';
        std::cout << "published an index of " << index.packages << " package(s)\n";

        // The sample app asks for releases 2025.1 to 2027.4 on linux-x86_64
        // or windows-x86_64 with tessal.core 2025.1 or later; this host
        // fits all three, so nothing needs forcing.
        const compat::HostProfile host{"2026.2", "linux-x86_64", {{"tessal.core", "2026.1"}}};
        store::AppStore apps(work / "apps");
        installer::Installer installer(apps);
        installer.add({"main", repo.string(), {argv[5]}, ""});
        const std::optional<installer::Offer> offer = installer.find("Hello Tessal", host);
        if (!offer) throw std::runtime_error("the repository offers no Hello Tessal for this host");
        installer.install(*offer, host, {});

        for (const store::InstalledApp& app : apps.list()) {
            const std::optional<installer::Remote> origin = installer::originOf(app.current);
            std::cout << "installed " << app.current.name << ' ' << app.current.version << " from "
                      << (origin ? origin->key() : "a file") << '\n';
        }
    } catch (const store::StoreError& e) {
        for (const std::string& line : e.lines()) std::cerr << line << '\n';
        return 1;
    } catch (const Error& e) {
        std::cerr << describe(e.fault()) << '\n';
        return 1;
    } catch (const std::exception& e) {
        std::cerr << e.what() << '\n';
        return 1;
    }
    return 0;
}
