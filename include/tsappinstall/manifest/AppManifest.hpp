#pragma once

// The manifest record: what an app package says about its app.

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <string>
#include <vector>

struct RequiredProduct {
    std::u16string identifier;
    std::u16string name;
    std::u16string version;
};

struct AppManifest {
    std::string GUID;  // 8-bit; also the key of the manifest's signature
    std::u16string entryPoint;
    std::u16string name;
    std::u16string version;
    std::u16string createdByTESSALRelease;
    std::u16string summary;
    std::u16string description;
    std::u16string minTESSALVer;
    std::u16string maxTESSALVer;
    // Written only when authorName is not empty; read only when present.
    std::u16string authorName;
    std::u16string authorContact;
    std::u16string authorOrganization;
    std::uint64_t numFiles = 0;  // every read sets it; zero until then
    std::vector<std::u16string> supportedPlatforms;
    std::vector<RequiredProduct> requiredProducts;
    std::vector<std::u16string> pathEntries;
    std::vector<std::u16string> appEntries;
    // Local time in the record, UTC in the document; not-a-date-time when
    // unknown.
    boost::posix_time::ptime created;
    // Carried for callers; nothing in this library reads or writes them.
    std::u16string extraText1;
    std::vector<std::u16string> extraTextList;
    std::u16string extraText2;
};
