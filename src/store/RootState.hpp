#pragma once

// Small records that the store keeps for the layers above it, in the
// root's own database: the repositories recorded in the root and the
// highest index version seen of each. They are no part of the public
// interface; a host reaches them through the repository installer.

#include <functional>
#include <optional>
#include <string>

#include "tsappinstall/store/AppStore.hpp"

namespace opc::detail {
class FileOps;
}

namespace tsappinstall::store::detail {

// The signer keys (SHA-256 of the public key, hex) that a recorded
// repository's signed index revoked, each with the repository's name: the
// store refuses to install what they signed and audit reports what they
// signed. A revocation once recorded stays.
inline constexpr const char* REVOKED_KEYS_SCOPE = "revoked-keys";

// The GUIDs of the apps AppStore::hold() holds at their version.
inline constexpr const char* HELD_SCOPE = "held";

struct RootStateAccess {
    static std::optional<std::string> read(const AppStore& apps, const std::string& scope,
                                           const std::string& key);

    // Reads the value and writes what `change` makes of it (nothing when it
    // returns nullopt) with the root's lock held, so two processes changing
    // one value never lose each other's change. What `change` throws leaves
    // the value as it was.
    using Change =
        std::function<std::optional<std::string>(const std::optional<std::string>& current)>;
    static void update(AppStore& apps, const std::string& scope, const std::string& key,
                       const Change& change);
    // Forgets the value, if there is one.
    static void erase(AppStore& apps, const std::string& scope, const std::string& key);
    // The file operations the store runs on, for what the installer does
    // in the root (its downloads).
    static const opc::detail::FileOps& ops(const AppStore& apps);
};

}  // namespace tsappinstall::store::detail
