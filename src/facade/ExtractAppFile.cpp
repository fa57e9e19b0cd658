#include "facade/PackagePath.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"
#include "tsappinstall/messages/MessageIds.hpp"

namespace Corvane::addons::apps {

// Placeholder until the whole-package extraction is in: it reports the
// extraction error it will report for any failure.
void Tsappinstall::extractAppFile(const std::u16string& packagePath,
                                  const std::u16string& destinationFolder) {
    const std::u16string nativePath = facade::native_form(packagePath);
    const std::u16string nativeFolder = facade::native_form(destinationFolder);
    tsapp_builtins::tsapp_builtins::raise(
        tsapp_builtins::tsapp_builtins::TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(nativePath,
                                                                                     nativeFolder));
}

}  // namespace Corvane::addons::apps
