#pragma once

// App packages for the store's tests, packed from the sample app with the
// manifest fields a test needs, and the checks every test makes of a root
// afterwards.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "support/PackSupport.hpp"
#include "support/TestSupport.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsapp::test {

inline const char* kGuid = "0123abcd-0000-4000-8000-000000000001";

struct AppRecipe {
    explicit AppRecipe(std::string v) : version(std::move(v)) {}
    std::string version;
    std::string guid = kGuid;
    std::string name = "Hello Tessal";
    nlohmann::json fields = nlohmann::json::object();  // more manifest fields
    std::string signer;                                // "KEYS/NAME" for NAME.key and NAME.pem
    std::string keyRotations;                          // PEM proofs the package carries
};

// The package for `recipe`, packed once per name into `dir`.
inline std::string packApp(const TempDir& dir, const AppRecipe& recipe, const std::string& name) {
    namespace fs = std::filesystem;
    const std::string out = dir.file(name + ".tsappinstall");
    if (fs::exists(out)) return out;
    const std::string src = dir.file("src-" + name);
    fs::copy(std::string(TSAPP_SOURCE_DIR) + "/sample/app", src, fs::copy_options::recursive);
    auto json = nlohmann::json::parse(read_file(src + "/tsapp.json"));
    json["version"] = recipe.version;
    json["name"] = recipe.name;
    json.update(recipe.fields);
    write_file(src + "/tsapp.json", json.dump());
    write_file(src + "/files/README.txt", "version " + recipe.version + "\n");
    packFolder(src, out, recipe.guid, recipe.signer, recipe.keyRotations);
    return out;
}

// A copy of `package` whose entry `name` holds zeros, as a package fetched
// in ranges holds nothing where nothing was fetched.
inline std::string zeroed(const std::string& package, const std::string& name,
                          const std::string& out) {
    std::string bytes = read_file(package);
    const auto le = [&](std::size_t at, int n) {
        std::uint64_t value = 0;
        for (int i = n - 1; i >= 0; --i)
            value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
        return static_cast<std::size_t>(value);
    };
    const std::string central("PK\x01\x02", 4);
    for (std::size_t at = bytes.find(central); at != std::string::npos;
         at = bytes.find(central, at + 4)) {
        if (bytes.compare(at + 46, le(at + 28, 2), name) != 0 || le(at + 28, 2) != name.size())
            continue;
        const std::size_t local = le(at + 42, 4);
        const std::size_t data = local + 30 + le(local + 26, 2) + le(local + 28, 2);
        std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(data), le(at + 20, 4), '\0');
    }
    write_file(out, bytes);
    return out;
}

// A user's change to the content of an installed file, which is
// read-only: made writable for the write, then read-only again.
inline void writeInstalled(const std::string& path, const std::string& bytes) {
    namespace fs = std::filesystem;
    const fs::perms was = fs::status(path).permissions();
    fs::permissions(path, fs::perms::owner_write, fs::perm_options::add);
    write_file(path, bytes);
    fs::permissions(path, was);
}

inline tsappinstall::store::HostProfile fittingHost() {
    return {"2026.2", "linux-x86_64", {{"tessal.core", "2026.1"}}};
}

// Files and records agree: every app audits clean, its link names its
// current folder, and each app folder holds nothing but the versions on
// record, their link, the folders of files kept on record and nothing
// half-done. Returns "GUID=VERSION ..." .
inline std::string settledState(const std::string& root) {
    namespace fs = std::filesystem;
    tsappinstall::store::AppStore apps(root);
    std::string state;
    std::set<std::string> guids;
    for (const auto& entry : fs::directory_iterator(root + "/apps"))
        guids.insert(entry.path().filename().string());
    std::set<std::string> keptFolders;
    for (const auto& kept : apps.kept()) {
        keptFolders.insert(kept.folder.filename().string());
        guids.erase(kept.guid);
    }
    for (const auto& app : apps.list()) {
        guids.erase(app.current.guid);
        const auto& v = app.current;
        state += (state.empty() ? "" : " ") + v.guid + "=" + v.version;
        EXPECT_TRUE(apps.audit(v.guid).clean()) << v.guid;
        EXPECT_EQ(fs::read_symlink(app.link), v.folder.filename());
        std::set<std::string> expected{"current", v.folder.filename().string()};
        for (const auto& previous : app.previous)
            expected.insert(previous.folder.filename().string());
        std::set<std::string> found;
        for (const auto& entry : fs::directory_iterator(app.link.parent_path()))
            if (!keptFolders.count(entry.path().filename().string()))
                found.insert(entry.path().filename().string());
        EXPECT_EQ(found, expected) << v.guid;
    }
    for (const auto& stray : guids) ADD_FAILURE() << "unrecorded " << stray;
    return state;
}

}  // namespace tsapp::test
