#pragma once

// Records and helpers shared by the manifest and app information tests.

#include <boost/date_time/posix_time/posix_time.hpp>

#include "support/TestSupport.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/platform/opc/XercesHelper.hpp"

namespace tsapp::test {

inline const std::string kFullGuid = "{3F2504E0-4F89-11D3-9A0C-0305E82C3301}";

// Every field set; `created` is local time 2024-03-05 08:07:08, which is
// 06:07:08 UTC in a zone two hours east of UTC.
inline AppManifest fullRecord() {
    AppManifest m;
    m.GUID = kFullGuid, m.entryPoint = u"main.js", m.name = u"Sample & <App>";
    m.version = u"1.2.3", m.createdByTESSALRelease = u"14.1", m.summary = u"Short";
    m.description = u"Long \"text\"\nwith line", m.minTESSALVer = u"13.0";
    m.maxTESSALVer = u"15.0", m.authorName = u"Jane Doe", m.authorContact = u"jane@example.com";
    m.authorOrganization = u"Ex\u00e4mple GmbH", m.numFiles = 42;
    m.supportedPlatforms = {u"win64", u"linux64"}, m.pathEntries = {u"lib", u"data"};
    m.requiredProducts = {{u"prod.a", u"Product A", u"1.0"}, {u"prod.b", u"B", u""}};
    m.appEntries = {u"main.js", u"lib/util.js"};
    m.created = boost::posix_time::time_from_string("2024-03-05 08:07:08");
    return m;
}

inline opc::model::XercesPtr<xercesc::DOMDocument> build(AppManifestSerializer& serializer,
                                                         const AppManifest& record) {
    return opc::model::XercesPtr<xercesc::DOMDocument>(serializer.createDOMDocument(record));
}

// The canonical (unsigned) text of `record`.
inline std::string serialized(AppManifestSerializer& serializer, const AppManifest& record) {
    const auto document = build(serializer, record);
    std::ostringstream out;
    serializer.serializeDocument(out, document.get());
    return out.str();
}

// The signed manifest text `save` writes for `record`.
inline std::string signed_manifest(const AppManifest& record) {
    AppManifestSerializer serializer;
    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    serializer.save(out, record);
    return std::string(bytes.begin(), bytes.end());
}

// "(loaded)" with `*record` filled, or the text load raised: exactly a
// std::runtime_error, or "out_of_range: " and the date library's text.
inline std::string load_result(const std::string& text, AppManifest* record = nullptr) {
    std::istringstream in(text);
    opc::StdIStreamAdaptor stream(in);
    AppManifest scratch;
    try {
        AppManifestSerializer().load(stream, record != nullptr ? *record : scratch);
        return "(loaded)";
    } catch (const std::out_of_range& e) {
        return std::string("out_of_range: ") + e.what();
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(typeid(e), typeid(std::runtime_error));
        return e.what();
    }
}

// The two records write the same text and were created at the same instant.
inline bool same_record(const AppManifest& a, const AppManifest& b) {
    AppManifestSerializer serializer;
    return serialized(serializer, a) == serialized(serializer, b) && a.created == b.created;
}

}  // namespace tsapp::test
