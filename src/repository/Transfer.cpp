#include "Transfer.hpp"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/base/Ascii.hpp"
#include "platform/base/ReadAt.hpp"
#include "platform/base/UniqueFd.hpp"
#include "tsappinstall/Fault.hpp"

namespace tsappinstall::repository {
namespace {

struct CurlCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct UrlCleanup {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
struct CurlFree {
    void operator()(char* text) const { curl_free(text); }
};
using CurlPtr = std::unique_ptr<CURL, CurlCleanup>;
using UrlPtr = std::unique_ptr<CURLU, UrlCleanup>;
using CurlText = std::unique_ptr<char, CurlFree>;

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
    const UrlPtr handle(curl_url());
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK)
        return {};
    std::string origin;
    for (const CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
        char* raw = nullptr;
        const CURLUcode code = curl_url_get(handle.get(), part, &raw, CURLU_DEFAULT_PORT);
        const CurlText value(raw);
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

long statusOf(CURL* curl) {
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
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

void initialiseOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
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
    CurlPtr& curl = options.connection ? options.connection->handle().curl : own;
    if (curl)
        curl_easy_reset(curl.get());
    else
        curl.reset(curl_easy_init());
    if (!curl) fail(FaultKind::DownloadFailed, "cannot start a transfer");
    return curl.get();
}

void prepare(CURL* c, const std::string& url, std::uint64_t from, const std::string& span,
             const TransferOptions& options, Exchange& exchange, char* errors) {
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!options.serverCa.empty()) curl_easy_setopt(c, CURLOPT_CAINFO, options.serverCa.c_str());
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, options.stallSeconds);
    // A transfer below one byte a second for the stall time has stalled.
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, options.stallSeconds);
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, options.deadline.remainingMillis());
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errors);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(c, CURLOPT_USERAGENT, "tsapp");
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &exchange);
    // CURLOPT_RANGE copies the text.
    const std::string range = span.empty() ? std::to_string(from) + "-" : span;
    if (from > 0 || !span.empty()) curl_easy_setopt(c, CURLOPT_RANGE, range.c_str());
    exchange.curl = c;
}

// `span` ("first-last"), when given, is asked for instead of `from` on,
// and `reply` sees the reply before its first byte.
void fetchRemote(const std::string& base, const std::string& name, std::uint64_t from,
                 const TransferOptions& options, const TransferSink& sink,
                 const std::string& span = {},
                 const std::function<void(long, const std::string&)>* reply = nullptr) {
    initialiseOnce();
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
        CURL* curl = freshHandle(options, own);
        prepare(curl, url, from, span, options, exchange, errors);
        const CURLcode code = curl_easy_perform(curl);
        // The handle outlives this call: it must not point at it.
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
        curl_easy_setopt(curl, CURLOPT_HEADERDATA, nullptr);
        if (exchange.error) std::rethrow_exception(exchange.error);
        if (code == CURLE_OPERATION_TIMEDOUT && options.deadline.passed(100))
            options.deadline.fail(name);
        if (code != CURLE_OK)
            fail(FaultKind::DownloadFailed,
                 name + ": " + (errors[0] ? errors : curl_easy_strerror(code)));
        const long status = statusOf(curl);
        if (status >= 300 && status < 400) {
            char* target = nullptr;
            curl_easy_getinfo(curl, CURLINFO_REDIRECT_URL, &target);
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
