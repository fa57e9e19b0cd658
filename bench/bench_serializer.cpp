// Timing of the manifest serializer: constructing one (which compiles the
// schema), building and signing the canonical document of a full record,
// and a full save + load round trip.
//
//   bench_serializer [iterations]

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "BenchSupport.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"

int main(int argc, char** argv) {
    const int iterations = argc > 1 ? std::atoi(argv[1]) : 1000;
    const AppManifest record = tsapp::bench::typicalRecord(20);
    volatile std::size_t sink = 0;

    tsapp::bench::microsecondsPerCall("construct + destroy serializer", iterations, [&] {
        AppManifestSerializer serializer;
        sink = sink + 1;
    });

    AppManifestSerializer serializer;
    tsapp::bench::microsecondsPerCall("createDOMDocument + signDocument", iterations, [&] {
        const opc::model::XercesPtr<xercesc::DOMDocument> document(
            serializer.createDOMDocument(record));
        sink = sink + serializer.signDocument(record.GUID, document.get()).size();
    });

    std::vector<unsigned char> bytes;
    opc::ByteArrayOutAdaptor out(bytes);
    serializer.save(out, record);
    const std::string saved(bytes.begin(), bytes.end());
    tsapp::bench::microsecondsPerCall("load (parse, validate, verify)", iterations, [&] {
        std::istringstream in(saved);
        opc::StdIStreamAdaptor stream(in);
        AppManifest back;
        serializer.load(stream, back);
        sink = sink + back.appEntries.size();
    });
    return 0;
}
