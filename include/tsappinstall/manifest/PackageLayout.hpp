#pragma once

// The app package layout: the schema host URI shared by the manifest
// namespace and the package-level relationship types.

namespace Corvane::addons::apps {

// An app package file's extension, without the dot.
inline constexpr const char* APP_FILE_EXTENSION = "tsappinstall";

inline constexpr const char* SCHEMA_HOST_URI = "http://schemas.corvane.com";

inline constexpr const char* APP_PROPERTIES_RELATIONSHIP_TYPE =
    "http://schemas.corvane.com/tessal/app/2012/relationships/appProperties";
inline constexpr const char* PRIMARY_ICON_RELATIONSHIP_TYPE =
    "http://schemas.corvane.com/tessal/app/2012/relationships/primaryIcon";
inline constexpr const char* PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE =
    "http://schemas.corvane.com/tessal/app/2012/relationships/primaryScreenShot";

}  // namespace Corvane::addons::apps
