// Arbitrary bytes as a manifest document, read by one long-lived serializer
// (as a caller that checks many manifests would keep it).

#include <boost/lexical_cast.hpp>
#include <cstring>
#include <stdexcept>

#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/platform/opc/Streams.hpp"

namespace {

class BytesStream : public opc::InputStream {
  public:
    BytesStream(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}
    std::size_t read(unsigned char* buffer, std::size_t size) override {
        const std::size_t n = size < left_ ? size : left_;
        if (n) std::memcpy(buffer, data_, n);
        data_ += n;
        left_ -= n;
        return n;
    }

  private:
    const std::uint8_t* data_;
    std::size_t left_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static AppManifestSerializer serializer;
    BytesStream stream(data, size);
    AppManifest record;
    try {
        serializer.load(stream, record);
    } catch (const std::runtime_error&) {
    } catch (const boost::bad_lexical_cast&) {
    } catch (const std::out_of_range&) {
        // A creation time the date types cannot hold: the time conversions'
        // own errors reach direct callers of load unchanged.
    }
    return 0;
}
