#pragma once

// What the timing programs share: a manifest record of typical size and a
// loop that reports the time per call.

#include <boost/date_time/posix_time/posix_time.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "tsappinstall/manifest/AppManifest.hpp"

namespace tsapp::bench {

// Every field filled, `files` app entries below "files/lib".
inline AppManifest typicalRecord(int files) {
    AppManifest m;
    m.GUID = "{3F2504E0-4F89-11D3-9A0C-0305E82C3301}";
    m.entryPoint = u"main.js";
    m.name = u"Sample App";
    m.version = u"1.2.3";
    m.createdByTESSALRelease = u"14.1";
    m.summary = u"Short summary of the app";
    m.description = u"A longer description of what the app does and for whom";
    m.minTESSALVer = u"13.0";
    m.maxTESSALVer = u"15.0";
    m.authorName = u"Jane Doe";
    m.authorContact = u"jane@example.com";
    m.authorOrganization = u"Example Ltd";
    m.numFiles = static_cast<std::uint64_t>(files);
    m.supportedPlatforms = {u"win64", u"linux64", u"macos"};
    m.requiredProducts = {{u"prod.a", u"Product A", u"1.0"}, {u"prod.b", u"Product B", u"2.0"}};
    m.pathEntries = {u"files/lib", u"files/data"};
    for (int i = 0; i < files; ++i) {
        const std::string name = "files/lib/module" + std::to_string(i) + ".js";
        m.appEntries.emplace_back(name.begin(), name.end());
    }
    m.created = boost::posix_time::time_from_string("2024-03-05 08:07:08");
    return m;
}

// `size` pseudo-random bytes, the same for the same seed: barely
// compressible, like the images and binaries of a real app.
inline std::vector<unsigned char> filler(std::size_t size, unsigned seed) {
    std::vector<unsigned char> bytes(size);
    unsigned state = seed * 2654435761u + 1;
    for (auto& b : bytes) {
        state = state * 1103515245u + 12345u;
        b = static_cast<unsigned char>(state >> 24);
    }
    return bytes;
}

// Runs `work` a few times to warm up (page cache, Xerces' process-wide
// state, the allocator), then `iterations` times; prints and returns the
// microseconds per call.
template <typename Work>
double microsecondsPerCall(const char* what, int iterations, Work work) {
    for (int i = 0; i < 10; ++i) work();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < iterations; ++i) work();
    const std::chrono::duration<double, std::micro> spent =
        std::chrono::steady_clock::now() - start;
    const double each = spent.count() / iterations;
    std::printf("%-52s %9.1f us\n", what, each);
    return each;
}

// One thing to time, and what it is compared with.
struct Row {
    std::string name;
    std::function<void()> work;
};

// Times every row `rounds` times, taking turns so that a machine busy with
// other work slows all of them alike; returns each row's median time per
// call in microseconds.
inline std::vector<double> medianMicroseconds(const std::vector<Row>& rows, int rounds,
                                              int iterations) {
    for (const Row& row : rows)
        for (int i = 0; i < 10; ++i) row.work();
    std::vector<std::vector<double>> samples(rows.size());
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t r = 0; r < rows.size(); ++r) {
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < iterations; ++i) rows[r].work();
            const std::chrono::duration<double, std::micro> spent =
                std::chrono::steady_clock::now() - start;
            samples[r].push_back(spent.count() / iterations);
        }
    }
    std::vector<double> medians;
    for (auto& s : samples) {
        std::sort(s.begin(), s.end());
        medians.push_back(s[s.size() / 2]);
    }
    return medians;
}

}  // namespace tsapp::bench
