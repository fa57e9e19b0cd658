#include "Transfer.hpp"

#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <type_traits>

#include "platform/base/Ascii.hpp"
#include "platform/base/ReadAt.hpp"
#include "platform/base/UniqueFd.hpp"
#include "tsappinstall/Fault.hpp"

namespace tsappinstall::repository {
namespace {

// libcurl is loaded the first time a transfer is made, not when the
// library is: only the repository commands talk to a network, and loading
// it (and libssl through it) at start costs every other command too. The
// functions this file calls are looked up once into this table.
struct CurlApi {
    decltype(&curl_global_init) global_init;
    decltype(&curl_easy_init) easy_init;
    decltype(&curl_easy_cleanup) easy_cleanup;
    decltype(&curl_easy_reset) easy_reset;
    decltype(&curl_easy_setopt) easy_setopt;
    decltype(&curl_easy_getinfo) easy_getinfo;
    decltype(&curl_easy_perform) easy_perform;
    decltype(&curl_easy_strerror) easy_strerror;
    decltype(&curl_free) free;
    decltype(&curl_url) url;
    decltype(&curl_url_cleanup) url_cleanup;
    decltype(&curl_url_get) url_get;
    decltype(&curl_url_set) url_set;
};

struct Unload {
    void operator()(void* handle) const { ::dlclose(handle); }
};

class CurlLibrary {
  public:
    CurlLibrary() {
        // A test and diagnostic hook: TSAPP_LIBCURL names another library
        // to load in its place (the tests name one that does not exist,
        // and one without libcurl's functions). secure_getenv ignores it
        // in a set-user-ID process.
        const char* named = ::secure_getenv("TSAPP_LIBCURL");
        library_ = named && *named ? named : defaultLibrary();
        // RTLD_NODELETE: the handle is closed when this static is destroyed
        // at exit, but the library stays mapped, so a transfer still
        // running on another thread then, or a Repository in static storage
        // destroyed after it (its handle's deleter holds its own function
        // pointer), does not call into unmapped code.
        handle_.reset(::dlopen(library_.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
        if (!handle_ || !bindAll()) {
            loadFailed();
            return;
        }
        // Before any other call, once per process: curl_global_init is not
        // thread-safe, and the function-local static in libcurl() runs this
        // once, whichever thread comes first.
        const CURLcode code = api_.global_init(CURL_GLOBAL_DEFAULT);
        if (code != CURLE_OK)
            failure_ = "cannot initialise " + library_ + ": " + api_.easy_strerror(code);
    }

    // The table, or a refusal of the transfer of `name`.
    const CurlApi& require(const std::string& name) const {
        if (!failure_.empty()) throw Error(FaultKind::DownloadFailed, name + ": " + failure_);
        return api_;
    }
    const CurlApi& api() const { return api_; }

  private:
    // The build of libcurl this process has loaded already, if any (the
    // XML parser's own, built on GnuTLS, where the system links it so):
    // loading the other build as well costs a second copy of libcurl and
    // of a TLS library, and their initialisation, about 4 ms in all.
    // Otherwise the usual one.
    static const char* defaultLibrary() {
        for (const char* loaded : {"libcurl.so.4", "libcurl-gnutls.so.4"}) {
            void* handle = ::dlopen(loaded, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
            if (handle == nullptr) continue;
            ::dlclose(handle);
            return loaded;
        }
        return "libcurl.so.4";
    }

    bool bindAll() {
        const auto bind = [this](auto& function, const char* name) {
            ::dlerror();
            void* symbol = ::dlsym(handle_.get(), name);
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(symbol);
            return symbol != nullptr;
        };
        return bind(api_.global_init, "curl_global_init") &&
               bind(api_.easy_init, "curl_easy_init") &&
               bind(api_.easy_cleanup, "curl_easy_cleanup") &&
               bind(api_.easy_reset, "curl_easy_reset") &&
               bind(api_.easy_setopt, "curl_easy_setopt") &&
               bind(api_.easy_getinfo, "curl_easy_getinfo") &&
               bind(api_.easy_perform, "curl_easy_perform") &&
               bind(api_.easy_strerror, "curl_easy_strerror") && bind(api_.free, "curl_free") &&
               bind(api_.url, "curl_url") && bind(api_.url_cleanup, "curl_url_cleanup") &&
               bind(api_.url_get, "curl_url_get") && bind(api_.url_set, "curl_url_set");
    }

    void loadFailed() {
        const char* error = ::dlerror();
        std::string detail = error ? error : "unknown error";
        // dlopen's text begins with the name given, which the refusal
        // names already.
        if (detail.compare(0, library_.size() + 2, library_ + ": ") == 0)
            detail.erase(0, library_.size() + 2);
        failure_ = "cannot load " + library_ + ": " + detail;
        handle_.reset();
    }

    std::string library_;
    std::unique_ptr<void, Unload> handle_;
    CurlApi api_{};
    std::string failure_;
};

const CurlLibrary& libcurl() {
    static const CurlLibrary library;
    return library;
}

// Only reached after a transfer's libcurl().require() let it start.
const CurlApi& curl() {
    return libcurl().api();
}

// Each deleter keeps the function it calls, so that a handle destroyed
// after the static above (at exit) does not read it.
struct CurlCleanup {
    decltype(&curl_easy_cleanup) cleanup = nullptr;
    void operator()(CURL* handle) const { cleanup(handle); }
};
struct UrlCleanup {
    decltype(&curl_url_cleanup) cleanup = nullptr;
    void operator()(CURLU* handle) const { cleanup(handle); }
};
struct CurlFree {
    decltype(&curl_free) release = nullptr;
    void operator()(char* text) const { release(text); }
};
using CurlPtr = std::unique_ptr<CURL, CurlCleanup>;
using UrlPtr = std::unique_ptr<CURLU, UrlCleanup>;
using CurlText = std::unique_ptr<char, CurlFree>;

// curl_easy_setopt takes its value through "...": a long, a pointer or a
// function pointer, never an int (a literal 2 for 2L would be read wrong).
template <typename Value>
void setopt(CURL* handle, CURLoption option, Value value) {
    static_assert(
        std::is_same_v<Value, long> || std::is_pointer_v<Value> || std::is_null_pointer_v<Value>,
        "libcurl options take a long or a pointer");
    curl().easy_setopt(handle, option, value);
}

// A redirect is followed only within one host: otherwise the repository's
// location would not be what the user named.
const int kMaxRedirects = 5;
const std::uint64_t kMaxIgnoredBytes = 1u << 16;

[[noreturn]] void fail(FaultKind kind, const std::string& what) {
    throw Error(kind, what);
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

// "scheme://host:port" of a URL, empty when it does not parse.
std::string originOf(const std::string& url) {
    const UrlPtr handle(curl().url(), UrlCleanup{curl().url_cleanup});
    if (!handle || curl().url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK)
        return {};
    std::string origin;
    for (const CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
        char* raw = nullptr;
        const CURLUcode code = curl().url_get(handle.get(), part, &raw, CURLU_DEFAULT_PORT);
        const CurlText value(raw, CurlFree{curl().free});
        if (code != CURLUE_OK) return {};
        origin += opc::detail::ascii_lower(value.get()) + "|";
    }
    return origin;
}

// One exchange's state, seen by the write callback.
struct Exchange {
    CURL* curl = nullptr;
    const TransferSink* sink = nullptr;
    std::uint64_t from = 0;
    bool started = false;
    std::uint64_t received = 0;
    std::uint64_t ignored = 0;  // bytes of error pages and redirects
    std::exception_ptr error;   // what the sink threw
    const TransferOptions* options = nullptr;
    // For a ranged request: told the reply's status and Content-Range
    // before its first byte, instead of the sink's start.
    const std::function<void(long, const std::string&)>* reply = nullptr;
    std::string contentRange;  // of the latest reply
};

long statusOf(CURL* handle) {
    long status = 0;
    curl().easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

std::size_t onBody(char* data, std::size_t, std::size_t size, void* user) {
    auto& exchange = *static_cast<Exchange*>(user);
    const long status = statusOf(exchange.curl);
    if (status != 200 && status != 206) {
        // An error page or a redirect's body is skipped, but not forever.
        exchange.ignored += size;
        return exchange.ignored > kMaxIgnoredBytes ? CURL_WRITEFUNC_ERROR : size;
    }
    try {
        if (!exchange.started) {
            exchange.started = true;
            if (exchange.reply)
                (*exchange.reply)(status, exchange.contentRange);
            else
                exchange.sink->start(status == 206 || exchange.from == 0);
        }
        exchange.sink->write(data, size);
        exchange.received += size;
        if (exchange.options->progress) exchange.options->progress(exchange.received);
        return size;
    } catch (...) {
        exchange.error = std::current_exception();
        return CURL_WRITEFUNC_ERROR;
    }
}

// Keeps the Content-Range of the reply at hand; a new status line (after a
// redirect or an interim reply) starts over.
std::size_t onHeader(char* data, std::size_t, std::size_t size, void* user) {
    auto& exchange = *static_cast<Exchange*>(user);
    const std::string line(data, size);
    const std::string lower = opc::detail::ascii_lower(line);
    if (startsWith(lower, "http/")) exchange.contentRange.clear();
    if (startsWith(lower, "content-range:")) {
        const auto first = line.find_first_not_of(" \t", 14);
        const auto last = line.find_last_not_of(" \t\r\n");
        exchange.contentRange =
            first == std::string::npos || last < first ? "" : line.substr(first, last - first + 1);
    }
    return size;
}

}  // namespace

Deadline::Deadline(long seconds)
    : at_(std::chrono::steady_clock::now() + std::chrono::seconds(seconds)), seconds_(seconds) {}

bool Deadline::passed(long slackMillis) const {
    return at_ != std::chrono::steady_clock::time_point::max() &&
           std::chrono::steady_clock::now() + std::chrono::milliseconds(slackMillis) >= at_;
}

long Deadline::remainingMillis() const {
    if (at_ == std::chrono::steady_clock::time_point::max()) return 0;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        at_ - std::chrono::steady_clock::now());
    return std::max<long>(1, static_cast<long>(left.count()));
}

void Deadline::fail(const std::string& name) const {
    throw Error(FaultKind::DownloadFailed, name + ": not received within " +
                                               std::to_string(seconds_) +
                                               (seconds_ == 1 ? " second" : " seconds"));
}

struct Connection::Handle {
    CurlPtr curl;
};

Connection::Connection() : handle_(std::make_unique<Handle>()) {}
Connection::~Connection() = default;

Connection::Handle& Connection::handle() {
    return *handle_;
}

namespace {

// The connection's handle with every option reset (curl_easy_reset keeps
// the connection and the TLS session), or a handle of this transfer's own.
CURL* freshHandle(const TransferOptions& options, CurlPtr& own) {
    CurlPtr& handle = options.connection ? options.connection->handle().curl : own;
    if (handle)
        curl().easy_reset(handle.get());
    else
        handle = CurlPtr(curl().easy_init(), CurlCleanup{curl().easy_cleanup});
    if (!handle) fail(FaultKind::DownloadFailed, "cannot start a transfer");
    return handle.get();
}

void prepare(CURL* c, const std::string& url, std::uint64_t from, const std::string& span,
             const TransferOptions& options, Exchange& exchange, char* errors) {
    setopt(c, CURLOPT_URL, url.c_str());
    setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
    setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!options.serverCa.empty()) setopt(c, CURLOPT_CAINFO, options.serverCa.c_str());
    setopt(c, CURLOPT_CONNECTTIMEOUT, options.stallSeconds);
    // A transfer below one byte a second for the stall time has stalled.
    setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    setopt(c, CURLOPT_LOW_SPEED_TIME, options.stallSeconds);
    setopt(c, CURLOPT_TIMEOUT_MS, options.deadline.remainingMillis());
    setopt(c, CURLOPT_NOSIGNAL, 1L);
    setopt(c, CURLOPT_ERRORBUFFER, errors);
    setopt(c, CURLOPT_WRITEFUNCTION, onBody);
    setopt(c, CURLOPT_WRITEDATA, &exchange);
    setopt(c, CURLOPT_USERAGENT, "tsapp");
    setopt(c, CURLOPT_HEADERFUNCTION, onHeader);
    setopt(c, CURLOPT_HEADERDATA, &exchange);
    // CURLOPT_RANGE copies the text.
    const std::string range = span.empty() ? std::to_string(from) + "-" : span;
    if (from > 0 || !span.empty()) setopt(c, CURLOPT_RANGE, range.c_str());
    exchange.curl = c;
}

// `span` ("first-last"), when given, is asked for instead of `from` on,
// and `reply` sees the reply before its first byte.
void fetchRemote(const std::string& base, const std::string& name, std::uint64_t from,
                 const TransferOptions& options, const TransferSink& sink,
                 const std::string& span = {},
                 const std::function<void(long, const std::string&)>* reply = nullptr) {
    libcurl().require(name);
    std::string url = base + (base.back() == '/' ? "" : "/") + name;
    const std::string origin = originOf(url);
    for (int redirects = 0;; ++redirects) {
        if (options.deadline.passed()) options.deadline.fail(name);
        Exchange exchange;
        exchange.sink = &sink;
        exchange.from = from;
        exchange.options = &options;
        exchange.reply = reply;
        char errors[CURL_ERROR_SIZE] = "";
        CurlPtr own;
        CURL* handle = freshHandle(options, own);
        prepare(handle, url, from, span, options, exchange, errors);
        const CURLcode code = curl().easy_perform(handle);
        // The handle outlives this call: it must not point at it.
        setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
        setopt(handle, CURLOPT_HEADERDATA, nullptr);
        if (exchange.error) std::rethrow_exception(exchange.error);
        if (code == CURLE_OPERATION_TIMEDOUT && options.deadline.passed(100))
            options.deadline.fail(name);
        if (code != CURLE_OK)
            fail(FaultKind::DownloadFailed,
                 name + ": " + (errors[0] ? errors : curl().easy_strerror(code)));
        const long status = statusOf(handle);
        if (status >= 300 && status < 400) {
            char* target = nullptr;
            curl().easy_getinfo(handle, CURLINFO_REDIRECT_URL, &target);
            if (target == nullptr)
                fail(FaultKind::DownloadFailed, name + ": a redirect to nowhere");
            if (originOf(target) != origin)
                fail(FaultKind::DownloadFailed,
                     name + ": redirected to another host (" + std::string(target) + ")");
            if (redirects == kMaxRedirects)
                fail(FaultKind::DownloadFailed, name + ": too many redirects");
            url = target;
            continue;
        }
        if (status == 404 || status == 410)
            fail(FaultKind::CannotRead, name + ": not found (HTTP " + std::to_string(status) + ")");
        if (status != 200 && status != 206)
            fail(FaultKind::DownloadFailed, name + ": HTTP status " + std::to_string(status));
        if (!exchange.started) {
            if (reply)
                (*reply)(status, exchange.contentRange);
            else
                sink.start(status == 206 || from == 0);
        }
        return;
    }
}

// A folder, or the path a file: URL names.
std::string localPath(const std::string& location) {
    // "htp://host/x" is a misspelt URL, not a folder of that name: a
    // scheme is letters, digits, "+", "-" and "." before "://".
    const auto colon = location.find("://");
    if (colon != std::string::npos && colon > 0 &&
        location.find_first_not_of(
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.") == colon &&
        !startsWith(opc::detail::ascii_lower(location), "file:"))
        fail(FaultKind::CannotRead, "the URL scheme " + location.substr(0, colon + 1) +
                                        " is not one of http:, https: and file:");
    if (!startsWith(location, "file:")) return location;
    std::string path = location.substr(5);
    if (startsWith(path, "//")) {
        const auto slash = path.find('/', 2);
        const std::string host = path.substr(2, slash == std::string::npos ? slash : slash - 2);
        if (!host.empty() && host != "localhost")
            fail(FaultKind::CannotRead, "a file: URL names another host (" + host + ")");
        path = slash == std::string::npos ? "/" : path.substr(slash);
    }
    const auto decoded = opc::detail::percent_decoded(path);
    if (!decoded) fail(FaultKind::CannotRead, "the file: URL does not decode: " + location);
    return *decoded;
}

// The repository's file `name`, open for reading: opened without waiting
// for a writer, as a FIFO would have it, and only when it is a regular file.
opc::detail::UniqueFd openLocal(const std::string& location, const std::string& name,
                                struct stat& info) {
    const std::string base = localPath(location);
    const std::string path = base + (!base.empty() && base.back() == '/' ? "" : "/") + name;
    opc::detail::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!fd)
        fail(FaultKind::CannotRead, name + ": cannot open " + path + ": " + std::strerror(errno));
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode))
        fail(FaultKind::CannotRead, name + ": not a regular file");
    return fd;
}

void fetchLocal(const std::string& location, const std::string& name, std::uint64_t from,
                const TransferOptions& options, const TransferSink& sink) {
    struct stat info {};
    const opc::detail::UniqueFd fd = openLocal(location, name, info);
    const bool resumed = from > 0 && ::lseek(fd.get(), static_cast<off_t>(from), SEEK_SET) >= 0;
    sink.start(resumed || from == 0);
    char buffer[1 << 16];
    std::uint64_t received = 0;
    for (;;) {
        const ssize_t got = ::read(fd.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail(FaultKind::CannotRead, name + ": a read failed");
        if (got == 0) return;
        if (options.deadline.passed()) options.deadline.fail(name);
        sink.write(buffer, static_cast<std::size_t>(got));
        received += static_cast<std::uint64_t>(got);
        if (options.progress) options.progress(received);
    }
}

std::string spanText(const ByteSpan& span) {
    return std::to_string(span.from) + "-" + std::to_string(span.to - 1);
}

void fetchSpansRemote(const std::string& location, const std::string& name, std::uint64_t total,
                      const std::vector<ByteSpan>& spans, const TransferOptions& options,
                      const std::function<void(std::uint64_t, const char*, std::size_t)>& write) {
    std::uint64_t received = 0;
    for (const ByteSpan& span : spans) {
        const std::string asked = spanText(span);
        std::uint64_t got = 0;
        const std::function<void(long, const std::string&)> reply = [&](long status,
                                                                        const std::string& range) {
            if (status == 200)
                throw RangesIgnored(name + ": the server sent the whole file for the range " +
                                    asked);
            const std::string expected = "bytes " + asked + "/" + std::to_string(total);
            if (opc::detail::ascii_lower(range) == expected) return;
            const auto slash = range.rfind('/');
            if (slash != std::string::npos && range.substr(slash + 1) != std::to_string(total))
                fail(FaultKind::SizeMismatch,
                     name + ": the server's file is no longer the one the index lists (" +
                         (range.empty() ? "no Content-Range" : "\"" + range + "\"") + ", " +
                         std::to_string(total) + " bytes listed)");
            fail(FaultKind::DownloadFailed,
                 name + ": the server answered the range " + asked + " with " +
                     (range.empty() ? std::string("no Content-Range") : "\"" + range + "\""));
        };
        TransferOptions each = options;
        each.progress = {};
        fetchRemote(location, name, span.from, each,
                    {[](bool) {},
                     [&](const char* data, std::size_t size) {
                         if (got + size > span.size())
                             fail(FaultKind::DownloadFailed,
                                  name + ": the server sent more than the " +
                                      std::to_string(span.size()) + " bytes of the range " + asked);
                         write(span.from + got, data, size);
                         got += size;
                         received += size;
                         if (options.progress) options.progress(received);
                     }},
                    asked, &reply);
        if (got != span.size())
            fail(FaultKind::DownloadFailed, name + ": the server sent " + std::to_string(got) +
                                                " of the " + std::to_string(span.size()) +
                                                " bytes of the range " + asked);
    }
}

void fetchSpansLocal(const std::string& location, const std::string& name, std::uint64_t total,
                     const std::vector<ByteSpan>& spans, const TransferOptions& options,
                     const std::function<void(std::uint64_t, const char*, std::size_t)>& write) {
    struct stat info {};
    const opc::detail::UniqueFd fd = openLocal(location, name, info);
    if (static_cast<std::uint64_t>(info.st_size) != total)
        fail(FaultKind::SizeMismatch, name + ": the file is " + std::to_string(info.st_size) +
                                          " bytes, the index lists " + std::to_string(total));
    std::vector<unsigned char> buffer(1 << 16);
    std::uint64_t received = 0;
    for (const ByteSpan& span : spans) {
        for (std::uint64_t at = span.from; at < span.to;) {
            if (options.deadline.passed()) options.deadline.fail(name);
            const std::size_t want =
                static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), span.to - at));
            const ssize_t got = opc::detail::read_at(fd.get(), buffer.data(), want, at);
            if (got < 0) fail(FaultKind::CannotRead, name + ": a read failed");
            if (got == 0)
                fail(FaultKind::SizeMismatch, name + ": the file ended at byte " +
                                                  std::to_string(at) + " of " +
                                                  std::to_string(total));
            write(at, reinterpret_cast<const char*>(buffer.data()), static_cast<std::size_t>(got));
            at += static_cast<std::uint64_t>(got);
            received += static_cast<std::uint64_t>(got);
            if (options.progress) options.progress(received);
        }
    }
}

}  // namespace

void fetchSpans(const std::string& location, const std::string& name, std::uint64_t total,
                const std::vector<ByteSpan>& spans, const TransferOptions& options,
                const std::function<void(std::uint64_t, const char*, std::size_t)>& write) {
    if (isRemote(location))
        fetchSpansRemote(location, name, total, spans, options, write);
    else
        fetchSpansLocal(location, name, total, spans, options, write);
}

bool isRemote(const std::string& location) {
    const std::string lower = opc::detail::ascii_lower(location.substr(0, 8));
    return startsWith(lower, "http://") || startsWith(lower, "https://");
}

void fetch(const std::string& location, const std::string& name, std::uint64_t from,
           const TransferOptions& options, const TransferSink& sink) {
    if (isRemote(location))
        fetchRemote(location, name, from, options, sink);
    else
        fetchLocal(location, name, from, options, sink);
}

}  // namespace tsappinstall::repository
