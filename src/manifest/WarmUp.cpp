#include "manifest/WarmUp.hpp"

#include <system_error>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace tsappinstall::detail {

ManifestWarmUp::ManifestWarmUp() {
    try {
        thread_ = std::thread([] {
            try {
                const AppManifestSerializer first;
            } catch (...) {
            }
        });
    } catch (const std::system_error&) {
    }
}

ManifestWarmUp::~ManifestWarmUp() {
    if (thread_.joinable()) thread_.join();
}

}  // namespace tsappinstall::detail
