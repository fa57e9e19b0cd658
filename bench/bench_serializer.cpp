// Timing of the manifest serializer: constructing one (which compiles the
// schema), building and signing the canonical document of a full record,
// and a full save + load round trip.
//
//   bench_serializer [iterations]

#include <boost/date_time/posix_time/posix_time.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace {

AppManifest fullRecord() {
    AppManifest m;
    m.GUID = "{3F2504E0-4F89-11D3-9A0C-0305E82C3301}";
    m.entryPoint = u"main.js";
    m.name = u"Sample App";
    m.version = u"1.2.3";
    m.createdByTESSALRelease = u"14.1";
    m.summary = u"Short";
    m.description = u"A longer description of the app";
    m.minTESSALVer = u"13.0";
    m.maxTESSALVer = u"15.0";
    m.authorName = u"Jane Doe";
    m.authorContact = u"jane@example.com";
    m.authorOrganization = u"Example Ltd";
    m.numFiles = 42;
    m.supportedPlatforms = {u"win64", u"linux64", u"macos"};
    m.requiredProducts = {{u"prod.a", u"Product A", u"1.0"}, {u"prod.b", u"Product B", u"2.0"}};
    m.pathEntries = {u"lib", u"data"};
    for (int i = 0; i < 20; ++i)
        m.appEntries.push_back(u"files/file" + std::u16string(1, u'a' + i) + u".js");
    m.created = boost::posix_time::time_from_string("2024-03-05 08:07:08");
    return m;
}

template <typename Work>
void report(const char* what, int iterations, Work work) {
    work();  // warm-up: process-wide Xerces initialisation, first allocations
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < iterations; ++i) work();
    const std::chrono::duration<double, std::micro> spent =
        std::chrono::steady_clock::now() - start;
    std::printf("%-40s %10.1f us/op  (%d ops)\n", what, spent.count() / iterations, iterations);
}

}  // namespace

int main(int argc, char** argv) {
    const int iterations = argc > 1 ? std::atoi(argv[1]) : 1000;
    const AppManifest record = fullRecord();
    volatile std::size_t sink = 0;

    report("construct + destroy serializer", iterations, [&] {
        AppManifestSerializer serializer;
        sink = sink + 1;
    });

    AppManifestSerializer serializer;
    report("createDOMDocument + signDocument", iterations, [&] {
        const opc::model::XercesPtr<xercesc::DOMDocument> document(
            serializer.createDOMDocument(record));
        sink = sink + serializer.signDocument(record.GUID, document.get()).size();
    });

    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    serializer.save(out, record);
    const std::string saved(bytes.begin(), bytes.end());
    report("load (parse, validate, verify)", iterations, [&] {
        std::istringstream in(saved);
        opc::StdIStreamAdaptor stream(in);
        AppManifest back;
        serializer.load(stream, back);
        sink = sink + back.appEntries.size();
    });
    return 0;
}
