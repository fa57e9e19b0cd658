#pragma once

// A published repository for the repository's tests, of packages packed in
// code, and a loopback server that misbehaves on purpose.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/PackSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/repository/Index.hpp"
#include "tsappinstall/repository/Indexer.hpp"

namespace tsapp::test {

inline int sh(const std::string& command) {
    return std::system(("(" + command + ") >/dev/null 2>&1").c_str());
}

// Packs the sample app with `changes` to its tsapp.json as `file`, signed
// with SIGNER.key and SIGNER.pem when `signer` is given. An `svgIcon`
// takes the icon's place after planning, since pack refuses an SVG that
// could run script, and the indexer must meet one anyway; so does what
// `edit` changes, for text pack would refuse. `files` are written into the
// app's files folder (path below it -> bytes) before it is packed.
inline void packApp(const std::string& folder, const std::string& file,
                    const nlohmann::json& changes, const std::string& signer = "",
                    const std::string& svgIcon = "",
                    const std::function<void(tsappinstall::pack::PackPlan&)>& edit = {},
                    const std::map<std::string, std::string>& files = {}) {
    namespace fs = std::filesystem;
    const std::string source = folder + "/.src-" + file;
    fs::copy(std::string(TSAPP_SOURCE_DIR) + "/sample/app", source, fs::copy_options::recursive);
    for (const auto& [path, bytes] : files) write_file(source + "/files/" + path, bytes);
    auto description = nlohmann::json::parse(read_file(source + "/tsapp.json"));
    description.merge_patch(changes);
    if (!svgIcon.empty()) {
        write_file(source + "/icon.svg", "<svg xmlns='http://www.w3.org/2000/svg'/>");
        description["icon"] = "icon.svg";
    }
    const std::string guid = description.value("guid", "");
    description.erase("guid");  // a request's, not a field
    write_file(source + "/tsapp.json", description.dump());
    tsappinstall::pack::PackPlan plan = packPlan(source, folder + "/" + file, guid);
    if (!svgIcon.empty()) write_file(plan.icon.string(), svgIcon);
    if (edit) edit(plan);
    writePlan(plan, signer);
    fs::remove_all(source);
}

inline const char* const kHostile = "<script>document.title='owned'</script>";

// A signed repository of three apps, one in two versions, a bad package
// and a package whose icon is an SVG that could run script; a CA, the
// index's signer below it, a rogue CA and a TLS certificate for 127.0.0.1.
struct Published {
    Published() {
        const std::string keys =
            "cd " + dir.path() +
            " && openssl req -x509 -newkey ed25519 -nodes -keyout ca.key -out ca.pem -subj /CN=CA"
            " -days 2 && openssl req -x509 -newkey ed25519 -nodes -keyout rogue.key -out "
            "rogue.pem -subj /CN=rogue -days 2 && openssl genpkey -algorithm ED25519 -out "
            "signer.key && openssl req -x509 -key signer.key -CA ca.pem -CAkey ca.key -days 2 "
            "-subj /CN=Publisher -out signer.pem && openssl req -x509 -newkey ec -pkeyopt "
            "ec_paramgen_curve:P-256 -nodes -keyout tls.key -CA ca.pem -CAkey ca.key -days 2 "
            "-subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -out tls.pem";
        EXPECT_EQ(sh(keys), 0);
        std::filesystem::create_directory(repo());
        const std::string hello = "0123abcd-0000-4000-8000-00000000000a";
        packApp(repo(), "hello-1.0.tsappinstall", {{"version", "1.0"}, {"guid", hello}});
        packApp(repo(), "hello-1.10.tsappinstall", {{"version", "1.10"}, {"guid", hello}},
                dir.file("signer"));
        packApp(repo(), "other.tsappinstall",
                {{"guid", "0123abcd-0000-4000-8000-00000000000b"},
                 {"name", "<b>Other</b>"},
                 {"description", kHostile},
                 {"maxTESSALVer", "2025.9"}});
        packApp(repo(), "scripted.tsappinstall",
                {{"guid", "0123abcd-0000-4000-8000-00000000000c"}, {"name", "Scripted"}}, "",
                "<svg xmlns='http://www.w3.org/2000/svg'><script>alert(1)</script></svg>");
        write_file(repo() + "/bad.tsappinstall", "not a package");
    }
    std::string repo() const { return dir.file("repo"); }
    tsappinstall::repository::IndexOptions signing(const std::string& id = "stable") const {
        tsappinstall::repository::IndexOptions options;
        options.repository = id;
        options.jobs = 4;
        options.signingKey = dir.file("signer.key");
        options.signingCertificate = dir.file("signer.pem");
        return options;
    }
    TempDir dir;
};

inline std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& item : std::filesystem::directory_iterator(folder))
        names.push_back(item.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The test server, on a free loopback port, stopped with the test.
class Server {
  public:
    Server(const std::string& root, const std::string& portFile,
           const std::vector<std::string>& tls = {})
        : portFile_(portFile) {
        std::vector<std::string> args = {
            "python3", std::string(TSAPP_SOURCE_DIR) + "/tests/repository/repo_server.py", root,
            portFile};
        args.insert(args.end(), tls.begin(), tls.end());
        pid_ = ::fork();
        if (pid_ == 0) {
            std::vector<char*> argv;
            for (auto& arg : args) argv.push_back(arg.data());
            argv.push_back(nullptr);
            ::execvp(argv[0], argv.data());
            ::_exit(127);
        }
        for (int i = 0; i < 200 && !file_exists(portFile); ++i) ::usleep(50000);
        port_ = file_exists(portFile) ? read_file(portFile) : "0";
    }
    ~Server() {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    std::string url(const std::string& scheme, const std::string& mode) const {
        return scheme + "://127.0.0.1:" + port_ + "/" + mode + "/";
    }
    // Bytes of the bodies sent for `name` so far, and the requests for it.
    std::pair<std::uint64_t, std::size_t> sent(const std::string& name) const {
        std::istringstream log(file_exists(portFile_ + ".requests")
                                   ? read_file(portFile_ + ".requests")
                                   : std::string());
        std::string connection, mode, file, range;
        std::uint64_t bytes = 0, total = 0;
        std::size_t requests = 0;
        while (log >> connection >> mode >> file >> range >> bytes)
            if (file == name) total += bytes, ++requests;
        return {total, requests};
    }
    // The connections accepted so far.
    std::size_t connections() const {
        const std::string log = read_file(portFile_ + ".connections");
        return static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n'));
    }

  private:
    pid_t pid_ = -1;
    std::string port_;
    std::string portFile_;
};

// The version of the index published in `folder`.
inline std::uint64_t versionOf(const std::string& folder) {
    return tsappinstall::repository::parseIndex(read_file(folder + "/index.json")).version;
}

}  // namespace tsapp::test
