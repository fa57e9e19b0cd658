#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>

#include <nlohmann/json.hpp>

#include "Commands.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace tsapp::tool {

std::string causeOf(const std::exception& e) {
    // The package layer's texts leave the kind to the caller; the other
    // layers' name it themselves. Callers are catch blocks: `e` is the
    // exception being handled, which rethrowing shows as what it is.
    if (const std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const opc::Exception& failure) {
            if (&failure == &e && failure.reason() != opc::Reason::Other)
                return std::string(opc::describe(failure.reason())) + ": " + e.what();
        } catch (...) {
        }
    }
    return e.what();
}

void printError(const std::string& what) {
    std::string line = what;
    for (char& c : line) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    // File names are bytes, not always UTF-8, and may hold terminal controls.
    std::cerr << "tsapp: " << fl::i18n::shown(line) << '\n';
}

bool jsonFailures = false;
bool dryRun = false;

void reportFailure(const Failure& failure) {
    printError(failure.file() + ": " + failure.what());
    if (!jsonFailures) return;
    const nlohmann::ordered_json line = {{"error",
                                          {{"kind", tsappinstall::token(failure.kind())},
                                           {"item", failure.file()},
                                           {"detail", failure.what()}}}};
    std::cout << line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
              << '\n';
}

namespace {
// The copy of standard input withPackage made, named "stdin" in messages.
std::string stdinCopy;
}  // namespace

bool isStdinCopy(const std::string& file) {
    return !stdinCopy.empty() && file == stdinCopy;
}

void printWarnings(const std::string& file, const std::vector<std::string>& warnings) {
    const std::string shown = isStdinCopy(file) ? "stdin" : file;
    for (const std::string& warning : warnings) printError(shown + ": warning: " + warning);
}

namespace {

// Standard input copied into stdin.tsappinstall in a folder of its own
// (mode 0700), both removed when done.
class SpooledStdin {
  public:
    SpooledStdin() {
        const char* tmp = std::getenv("TMPDIR");
        std::string folder = std::string(tmp && *tmp ? tmp : "/tmp") + "/tsapp-stdin-XXXXXX";
        if (::mkdtemp(folder.data()) == nullptr) fail(std::strerror(errno));
        folder_ = folder;
        path_ = folder_ + "/stdin.tsappinstall";
        const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) fail(std::strerror(errno));
        const std::string why = copyStdin(fd);
        if (::close(fd) != 0 && why.empty()) fail(std::strerror(errno));
        if (!why.empty()) fail(why);
    }
    ~SpooledStdin() { remove(); }
    SpooledStdin(const SpooledStdin&) = delete;
    SpooledStdin& operator=(const SpooledStdin&) = delete;

    const std::string& path() const { return path_; }

  private:
    void remove() {
        if (!path_.empty()) ::unlink(path_.c_str());
        if (!folder_.empty()) ::rmdir(folder_.c_str());
    }

    // A constructor that throws runs no destructor: the cleanup is here.
    [[noreturn]] void fail(const std::string& why) {
        remove();
        throw Failure("stdin", "cannot be read: " + why);
    }

    // Why the copy failed, or empty.
    static std::string copyStdin(int fd) {
        char block[1 << 16];
        std::uint64_t total = 0;
        for (;;) {
            const ssize_t got = ::read(STDIN_FILENO, block, sizeof block);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return std::strerror(errno);
            if (got == 0) return {};
            total += static_cast<std::uint64_t>(got);
            if (total > kMaxStdinBytes)
                return "more than 4 GiB, the most a package on stdin may have";
            if (!writeAll(fd, block, static_cast<std::size_t>(got)))
                return std::string("the temporary copy: ") + std::strerror(errno);
        }
    }

    std::string folder_;
    std::string path_;
};

}  // namespace

int withPackage(const std::string& package, const std::function<int(const std::string&)>& run) {
    if (package != "-") {
        requireAppFileName(package);
        return run(package);
    }
    const SpooledStdin input;
    stdinCopy = input.path();
    try {
        return run(input.path());
    } catch (const UsageError&) {
        throw;
    } catch (const Failure& e) {
        if (e.file() != input.path()) throw;
        throw Failure("stdin", e.what());
    }
}

bool writeAll(int fd, const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::write(fd, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

std::string shownOutput(const std::string& output) {
    return output == "-" ? "stdout" : output;
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
                return put(data, static_cast<std::size_t>(size)) ? size : 0;
        }
        std::memcpy(pptr(), data, static_cast<std::size_t>(size));
        pbump(static_cast<int>(size));
        return size;
    }
    int sync() override {
        const bool written = put(pbase(), static_cast<std::size_t>(pptr() - pbase()));
        setp(block_, block_ + sizeof block_);
        return written ? 0 : -1;
    }

  private:
    bool put(const char* data, std::size_t size) {
        if (error_ == 0 && !writeAll(STDOUT_FILENO, data, size)) error_ = errno;
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
