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

void prepare(CURL* c, const std::string& url, std::uint64_t from, const TransferOptions& options,
             Exchange& exchange, char* errors) {
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
    const std::string range = std::to_string(from) + "-";
    if (from > 0) curl_easy_setopt(c, CURLOPT_RANGE, range.c_str());
    exchange.curl = c;
}

void fetchRemote(const std::string& base, const std::string& name, std::uint64_t from,
                 const TransferOptions& options, const TransferSink& sink) {
    initialiseOnce();
    std::string url = base + (base.back() == '/' ? "" : "/") + name;
    const std::string origin = originOf(url);
    for (int redirects = 0;; ++redirects) {
        if (options.deadline.passed()) options.deadline.fail(name);
        Exchange exchange;
        exchange.sink = &sink;
        exchange.from = from;
        exchange.options = &options;
        char errors[CURL_ERROR_SIZE] = "";
        CurlPtr own;
        CURL* curl = freshHandle(options, own);
        prepare(curl, url, from, options, exchange, errors);
        const CURLcode code = curl_easy_perform(curl);
        // The handle outlives this call: it must not point at it.
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
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
        if (!exchange.started) sink.start(status == 206 || from == 0);
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

void fetchLocal(const std::string& location, const std::string& name, std::uint64_t from,
                const TransferOptions& options, const TransferSink& sink) {
    const std::string base = localPath(location);
    const std::string path = base + (!base.empty() && base.back() == '/' ? "" : "/") + name;
    // Opened without waiting for a writer, as a FIFO would have it, and
    // read only when it is a regular file.
    const opc::detail::UniqueFd fd(
        ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!fd)
        fail(FaultKind::CannotRead, name + ": cannot open " + path + ": " + std::strerror(errno));
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode))
        fail(FaultKind::CannotRead, name + ": not a regular file");
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

}  // namespace

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
