#pragma once

// Byte streams of the package layer and adaptors to the standard streams.

#include <cstddef>
#include <istream>
#include <ostream>
#include <vector>

#include "tsappinstall/export.hpp"

namespace opc {

class TSAPP_API InputStream {
  public:
    virtual ~InputStream();
    // Reads up to `size` bytes into `buffer`; returns how many were read,
    // 0 only at the end of the stream. Throws opc::Exception when the
    // bytes cannot be read or fail their integrity check.
    virtual std::size_t read(unsigned char* buffer, std::size_t size) = 0;
};

class TSAPP_API OutputStream {
  public:
    virtual ~OutputStream();
    // Writes all `size` bytes; throws opc::Exception when it cannot.
    virtual void write(const unsigned char* data, std::size_t size) = 0;
};

// Reads from a std::istream. A stream that failed to open reads as empty.
class TSAPP_API StdIStreamAdaptor : public InputStream {
  public:
    explicit StdIStreamAdaptor(std::istream& in) : in_(in) {}
    std::size_t read(unsigned char* buffer, std::size_t size) override;

  private:
    std::istream& in_;
};

// Writes into a std::ostream; throws opc::Exception once the stream has
// failed (for example a file that could not be opened).
class TSAPP_API StdOStreamAdaptor : public OutputStream {
  public:
    explicit StdOStreamAdaptor(std::ostream& out) : out_(out) {}
    void write(const unsigned char* data, std::size_t size) override;

  private:
    std::ostream& out_;
};

// Appends everything written to it to a byte vector.
class TSAPP_API ByteArrayOutAdaptor : public OutputStream {
  public:
    explicit ByteArrayOutAdaptor(std::vector<unsigned char>& bytes) : bytes_(bytes) {}
    void write(const unsigned char* data, std::size_t size) override;

  private:
    std::vector<unsigned char>& bytes_;
};

class TSAPP_API StreamHelper {
  public:
    // Copies `in` into `out` until the end of `in`; returns the byte count.
    static std::size_t copyStreamToStream(InputStream& in, OutputStream& out);
};

}  // namespace opc
