#include "tsappinstall/platform/opc/Streams.hpp"

#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc {

InputStream::~InputStream() = default;
OutputStream::~OutputStream() = default;

std::size_t StdIStreamAdaptor::read(unsigned char* buffer, std::size_t size) {
    if (size == 0 || !in_) return 0;
    in_.read(reinterpret_cast<char*>(buffer), static_cast<std::streamsize>(size));
    if (in_.bad()) throw Exception(Reason::CannotRead, "error while reading from the input stream");
    return static_cast<std::size_t>(in_.gcount());
}

void StdOStreamAdaptor::write(const unsigned char* data, std::size_t size) {
    if (!out_) throw Exception(Reason::CannotWrite, "the output stream is not writable");
    out_.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out_) throw Exception(Reason::CannotWrite, "error while writing to the output stream");
}

void ByteArrayOutAdaptor::write(const unsigned char* data, std::size_t size) {
    bytes_.insert(bytes_.end(), data, data + size);
}

std::size_t StreamHelper::copyStreamToStream(InputStream& in, OutputStream& out) {
    unsigned char buffer[64 * 1024];
    std::size_t total = 0;
    for (;;) {
        const std::size_t n = in.read(buffer, sizeof buffer);
        if (n == 0) return total;
        out.write(buffer, n);
        total += n;
    }
}

}  // namespace opc
