#pragma once

// App packages for the store's tests, packed from the sample app with the
// manifest fields a test needs, and the checks every test makes of a root
// afterwards.

#include <gtest/gtest.h>

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
