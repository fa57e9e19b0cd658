#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "Commands.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace tsapp::tool {

std::string causeOf(const std::exception& e) {
    const auto* failure = dynamic_cast<const opc::Exception*>(&e);
    if (!failure || failure->reason() == opc::Reason::Other) return e.what();
    return std::string(opc::describe(failure->reason())) + ": " + e.what();
}

void printError(const std::string& what) {
    std::string line = what;
    for (char& c : line) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    std::cerr << "tsapp: " << line << '\n';
}

std::string shownOutput(const std::string& output) {
    return output == "-" ? "stdout" : output;
}

std::string escapedName(const std::string& name) {
    std::string out;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == '\\') {
            out += "\\\\";
        } else if (byte == '\n' || byte == '\t' || byte == '\r') {
            out += byte == '\n' ? "\\n" : byte == '\t' ? "\\t" : "\\r";
        } else if (byte < 0x20 || byte == 0x7f) {
            char octal[5];
            std::snprintf(octal, sizeof octal, "\\%03o", byte);
            out += octal;
        } else {
            out += c;
        }
    }
    return out;
}

// Writes to descriptor 1 in blocks and keeps the first failure's errno:
// once a write failed, later ones are dropped, so the cause is the first.
class StandardOutput::Buffer : public std::streambuf {
  public:
    Buffer() { setp(block_, block_ + sizeof block_); }
    int error() const { return error_; }

  protected:
    int_type overflow(int_type c) override {
        if (sync() != 0) return traits_type::eof();
        if (!traits_type::eq_int_type(c, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(c);
            pbump(1);
        }
        return traits_type::not_eof(c);
    }
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        if (size >= epptr() - pptr()) {
            if (sync() != 0) return 0;
            if (size >= static_cast<std::streamsize>(sizeof block_))
                return writeAll(data, static_cast<std::size_t>(size)) ? size : 0;
        }
        std::memcpy(pptr(), data, static_cast<std::size_t>(size));
        pbump(static_cast<int>(size));
        return size;
    }
    int sync() override {
        const bool written = writeAll(pbase(), static_cast<std::size_t>(pptr() - pbase()));
        setp(block_, block_ + sizeof block_);
        return written ? 0 : -1;
    }

  private:
    bool writeAll(const char* data, std::size_t size) {
        while (size > 0 && error_ == 0) {
            const ssize_t written = ::write(STDOUT_FILENO, data, size);
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) error_ = errno;
            if (written < 0) break;
            data += written;
            size -= static_cast<std::size_t>(written);
        }
        return error_ == 0;
    }

    char block_[1 << 16];
    int error_ = 0;
};

StandardOutput::StandardOutput()
    : buffer_(std::make_unique<Buffer>()), previous_(std::cout.rdbuf(buffer_.get())) {}

StandardOutput::~StandardOutput() {
    std::cout.flush();
    std::cout.rdbuf(previous_);
}

int StandardOutput::finish(int status) {
    std::cout.flush();
    int error = buffer_->error();
    // Anything written through the C library's stdout goes its own way.
    if (error == 0 && (std::fflush(stdout) != 0 || std::ferror(stdout)))
        error = errno ? errno : EIO;
    if (error == 0) return status;
    printError(std::string("stdout: ") + std::strerror(error));
    return status == kGood ? kBad : status;
}

}  // namespace tsapp::tool
