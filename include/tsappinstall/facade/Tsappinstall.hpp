#pragma once

// The facade: one operation per question a caller asks about an app package
// file. The object holds nothing; every call opens the package itself, and
// calls may run in any threads at once.

#include <string>

#include "tsappinstall/export.hpp"
#include "tsappinstall/manifest/AppManifest.hpp"

namespace Corvane::addons::apps {

class TSAPP_API Tsappinstall {
  public:
    Tsappinstall();
    virtual ~Tsappinstall();

    // The app's manifest record. Throws std::runtime_error with a catalog
    // text: the invalid-package text when the package has no single
    // manifest relationship, the properties-query internal error otherwise.
    virtual AppManifest getAppInfo(const std::u16string& packagePath);

    // Copy the primary icon / screenshot into `outputPath`. Problems are
    // printed to std::cerr; the result says whether the file was written.
    virtual bool extractAppIcon(const std::u16string& packagePath,
                                const std::u16string& outputPath);
    virtual bool extractAppScreenshot(const std::u16string& packagePath,
                                      const std::u16string& outputPath);

    // Whether the path names a package file with the extension
    // "tsappinstall" that opens as a package.
    virtual bool isAppFile(const std::u16string& packagePath);

    // Copy the target of the package relationship of `relationshipType`.
    bool extractPartContentFromTessalApp(const std::u16string& packagePath,
                                         const std::u16string& relationshipType,
                                         const std::u16string& outputPath);

    // Unpack every part into `destinationFolder`. Throws std::runtime_error
    // with the extraction-failed catalog text.
    void extractAppFile(const std::u16string& packagePath, const std::u16string& destinationFolder);
};

}  // namespace Corvane::addons::apps
