#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

namespace Corvane::addons::apps {

// Placeholder until the manifest reader is in: every query fails the way a
// package without a readable manifest does.
AppManifest Tsappinstall::getAppInfo(const std::u16string& /*packagePath*/) {
    tsapp_builtins::tsapp_builtins::raise(
        tsapp_builtins::tsapp_builtins::TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR());
}

}  // namespace Corvane::addons::apps
