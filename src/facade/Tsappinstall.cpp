#include "tsappinstall/facade/Tsappinstall.hpp"

#include "facade/PackagePath.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/filesystem/Path.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace Corvane::addons::apps {

Tsappinstall::Tsappinstall() = default;

Tsappinstall::~Tsappinstall() = default;

bool Tsappinstall::isAppFile(const std::u16string& packagePath) {
    const std::u16string appExtension = fl::i18n::to_ustring(APP_FILE_EXTENSION);
    const std::u16string nativePath = facade::native_form(packagePath);
    const std::u16string extension = fl::filesystem::detail::extract_extension(nativePath);
    if (extension.size() != appExtension.size() || extension != appExtension) return false;
    try {
        opc::model::OpenedPackage(nativePath).close();
        return true;
    } catch (...) {
        // Whatever the package layer reports, the answer is only "not an app".
        return false;
    }
}

}  // namespace Corvane::addons::apps
