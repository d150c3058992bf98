#include "HttpServer.h"

#include <microhttpd.h>
#include <netdb.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <unordered_map>

#include "net/Gzip.h"

namespace kestrelvue::service {
namespace {

using Steady = std::chrono::steady_clock;

/// The request line and headers, in bytes (431 past it), and their number; the listen backlog.
constexpr std::size_t kMaxHeadBytes = 16u << 10, kMaxHeadLines = 100;
constexpr unsigned kBacklog = 256;

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string addressText(const sockaddr* address) {
    char text[NI_MAXHOST] = {};
    if (address)
        getnameinfo(address,
                    address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in),
                    text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return text;
}

/// Every connection's deadline for the request it is receiving or the reply it is sending,
/// however slowly its bytes trickle: the server's own time-out only counts silence. A connection
/// past it is shut down, which its thread then sees as the client's close. The time the service
/// spends on a request does not count against the client.
class Deadlines {
public:
    explicit Deadlines(std::chrono::seconds allowed) : allowed_(allowed) {}
    void opened(const void* connection, int fd) {
        std::lock_guard lock(mutex_);
        open_[connection] = {fd, Steady::now(), false};
    }
    void closed(const void* connection) {
        std::lock_guard lock(mutex_);
        open_.erase(connection);
    }
    /// From now the connection has a fresh allowance, or none while `busy`.
    void restart(const void* connection, bool busy) {
        std::lock_guard lock(mutex_);
        if (auto it = open_.find(connection); it != open_.end())
            it->second = {it->second.fd, Steady::now(), busy};
    }

private:
    struct Open {
        int fd;
        Steady::time_point since;
        bool busy;
    };
    void sweep(const std::stop_token& stop) {
        std::unique_lock lock(mutex_);
        while (!wake_.wait_for(lock, stop, std::chrono::milliseconds(250), [] { return false; }) &&
               !stop.stop_requested()) {
            const auto now = Steady::now();
            for (auto& [connection, open] : open_) {
                if (open.busy || now - open.since <= allowed_) continue;
                ::shutdown(open.fd, SHUT_RDWR);
                open.busy = true;  // once
            }
        }
    }
    const std::chrono::seconds allowed_;
    std::mutex mutex_;
    std::condition_variable_any wake_;
    std::unordered_map<const void*, Open> open_;
    std::jthread thread_{[this](const std::stop_token& stop) { sweep(stop); }};  // last
};

}  // namespace

std::string Request::param(std::string_view name) const {
    for (const auto& [key, value] : query)
        if (key == name) return value;
    return {};
}

/// One request from its first line to its reply's last byte, owned by its connection's thread.
struct Exchange {
    Steady::time_point started = Steady::now();
    std::chrono::system_clock::time_point at;
    std::string target;    // the request line's target, query included, for the log
    std::string encoding;  // the body's Content-Encoding
    Request request;
    std::size_t received = 0, inflated = 0;
    std::size_t replyBytes = 0;
    int status = 0;  // 0 until answered
    bool headRead = false, tooLarge = false, gzip = false;
};

struct HttpServer::Impl {
    ServiceOptions options;
    Handler handler;
    MHD_Daemon* daemon = nullptr;
    Deadlines deadlines{std::chrono::seconds(options.requestTimeoutSeconds)};
    int port = 0;

    static void onConnection(void* cls, MHD_Connection* connection, void**,
                             MHD_ConnectionNotificationCode code) {
        auto& deadlines = static_cast<Impl*>(cls)->deadlines;
        if (code == MHD_CONNECTION_NOTIFY_CLOSED) return deadlines.closed(connection);
        const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        if (info) deadlines.opened(connection, info->connect_fd);
    }

    static void* onRequestLine(void* cls, const char* uri, MHD_Connection* connection) {
        auto* ex = new Exchange;
        ex->target = uri ? uri : "";
        const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
        ex->request.client = addressText(info ? info->client_addr : nullptr);
        const auto& clock = static_cast<Impl*>(cls)->options.clock;
        ex->at = clock ? clock->now() : std::chrono::system_clock::now();
        return ex;
    }

    /// Framing as RFC 9112 asks, so that no proxy in front reads another request boundary than this
    /// service does; and the head's size. Nullopt when the request may go on.
    std::optional<Reply> checkHead(MHD_Connection* connection, const char* version,
                                   Exchange& ex) const {
        Request& req = ex.request;
        auto gather = [](void* cls, MHD_ValueKind, const char* key, const char* value) {
            static_cast<Fields*>(cls)->emplace_back(key ? key : "", value ? value : "");
            return MHD_YES;
        };
        Fields headers;
        MHD_get_connection_values(connection, MHD_HEADER_KIND, gather, &headers);
        MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, gather, &req.query);
        std::size_t headBytes = ex.target.size() + req.method.size() + 12;
        int hosts = 0, lengths = 0, codings = 0;
        std::string length, coding;
        for (const auto& [key, value] : headers) {
            headBytes += key.size() + value.size() + 4;
            hosts += sameName(key, "Host");
            if (sameName(key, "Transfer-Encoding")) ++codings, coding = value;
            if (sameName(key, "Content-Encoding")) ex.encoding = value;
            if (sameName(key, "Content-Length") && lengths++ > 0 && value != length)
                return textReply(400, "conflicting Content-Length headers");
            if (sameName(key, "Content-Length")) length = value;
        }
        if (headBytes > kMaxHeadBytes || headers.size() > kMaxHeadLines)
            return textReply(431, "request head too large: at most " +
                                      std::to_string(kMaxHeadLines) + " header lines and " +
                                      std::to_string(kMaxHeadBytes) + " bytes");
        if (hosts > 1 || (hosts == 0 && std::strcmp(version, MHD_HTTP_VERSION_1_1) == 0))
            return textReply(400, "an HTTP/1.1 request needs exactly one Host header");
        if (codings > 0 && lengths > 0)
            return textReply(400, "Transfer-Encoding and Content-Length together");
        if (codings > 1 || (codings == 1 && !sameName(coding, "chunked")))
            return textReply(501, "only the chunked transfer coding is understood");
        // The server library has refused a length that is not a decimal number. The body arrives
        // in pieces of some kilobytes: its room is made once.
        std::uint64_t announced = 0;
        std::from_chars(length.data(), length.data() + length.size(), announced);
        if (announced > options.maxBodyBytes) return bodyTooLarge();
        req.body.reserve(announced);
        return std::nullopt;
    }

    Reply bodyTooLarge() const {
        return textReply(
            413, "request body larger than " + std::to_string(options.maxBodyBytes) + " bytes");
    }

    /// Inflates the body when it came compressed, then asks the handler.
    Reply answer(Exchange& ex) const {
        Request& req = ex.request;
        if (!ex.encoding.empty() && !sameName(ex.encoding, "identity")) {
            if (!sameName(ex.encoding, "gzip"))
                return textReply(415, "unsupported Content-Encoding \"" + ex.encoding +
                                          "\": send gzip or identity");
            ex.gzip = true;
            std::string plain;
            switch (detail::gunzip(req.body, options.maxBodyBytes, plain)) {
                case detail::Inflated::TooLarge:
                    return textReply(413, "request body inflates past " +
                                              std::to_string(options.maxBodyBytes) + " bytes");
                case detail::Inflated::Damaged:
                    return textReply(400, "damaged gzip body");
                case detail::Inflated::Whole:
                    ex.inflated = plain.size();
                    req.body = std::move(plain);
            }
        }
        return handler(req);
    }

    static MHD_Result queue(MHD_Connection* connection, Exchange& ex, Reply reply, bool close) {
        ex.status = reply.status;
        ex.replyBytes = reply.body.size();
        // The response takes the body over (a route may be megabytes) and frees it when sent.
        auto* body = new std::string(std::move(reply.body));
        MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
            body->size(), body->data(), [](void* text) { delete static_cast<std::string*>(text); },
            body);
        if (!response) {
            delete body;
            return MHD_NO;
        }
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, reply.contentType.c_str());
        for (const auto& [name, value] : reply.headers)
            MHD_add_response_header(response, name.c_str(), value.c_str());
        if (close) MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
        const MHD_Result queued =
            MHD_queue_response(connection, static_cast<unsigned>(reply.status), response);
        MHD_destroy_response(response);
        return queued;
    }

    static MHD_Result onRequest(void* cls, MHD_Connection* connection, const char* url,
                                const char* method, const char* version, const char* data,
                                std::size_t* size, void** state) {
        auto& self = *static_cast<Impl*>(cls);
        auto& ex = *static_cast<Exchange*>(*state);
        if (!ex.headRead) {
            ex.headRead = true;
            ex.request.method = method;
            ex.request.path = url;
            if (auto refused = self.checkHead(connection, version, ex))
                return queue(connection, ex, std::move(*refused), true);
            return MHD_YES;
        }
        if (*size > 0) {
            ex.received += *size;
            if (ex.request.body.size() + *size > self.options.maxBodyBytes) ex.tooLarge = true;
            if (!ex.tooLarge) ex.request.body.append(data, *size);
            *size = 0;
            return MHD_YES;
        }
        if (ex.tooLarge) return queue(connection, ex, self.bodyTooLarge(), true);
        self.deadlines.restart(connection, true);  // the handler's time is not the client's
        Reply reply = self.answer(ex);
        self.deadlines.restart(connection, false);  // for sending the reply
        return queue(connection, ex, std::move(reply), false);
    }

    static void onCompleted(void* cls, MHD_Connection* connection, void** state,
                            MHD_RequestTerminationCode toe) {
        auto& self = *static_cast<Impl*>(cls);
        self.deadlines.restart(connection, false);  // for the next request
        auto* ex = static_cast<Exchange*>(*state);
        if (!ex) return;
        if (self.options.accessLog) self.logLine(*ex, toe);
        delete ex;
        *state = nullptr;
    }

    // "2026-11-25T20:15:03.123Z 127.0.0.1 POST /path?query 200 4 B 1.2 ms", and for a compressed
    // body "gzip 1200 B in, 9600 B inflated". A request the server refused before its head was
    // whole shows "-" for its status.
    void logLine(const Exchange& ex, MHD_RequestTerminationCode toe) const {
        const std::time_t seconds = std::chrono::system_clock::to_time_t(ex.at);
        const auto millis =
            std::chrono::duration_cast<std::chrono::milliseconds>(ex.at.time_since_epoch()) % 1000;
        std::tm utc{};
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", gmtime_r(&seconds, &utc));
        const double ms =
            std::chrono::duration<double, std::milli>(Steady::now() - ex.started).count();
        std::string status = ex.status ? std::to_string(ex.status) : "-";
        if (!ex.headRead)
            status += " (malformed head)";
        else if (toe != MHD_REQUEST_TERMINATED_COMPLETED_OK)
            status += " (connection dropped)";
        const std::string gzip = ex.gzip ? " gzip " + std::to_string(ex.received) + " B in, " +
                                               std::to_string(ex.inflated) + " B inflated"
                                         : "";
        std::fprintf(stderr, "%s.%03dZ %s %s %s %s %zu B %.1f ms%s\n", stamp,
                     static_cast<int>(millis.count()), ex.request.client.c_str(),
                     ex.request.method.empty() ? "-" : ex.request.method.c_str(), ex.target.c_str(),
                     status.c_str(), ex.replyBytes, ms, gzip.c_str());
    }
};

HttpServer::HttpServer(ServiceOptions options, Handler handler)
    : impl_(new Impl{.options = std::move(options), .handler = std::move(handler)}) {}

HttpServer::~HttpServer() {
    stop();
}

bool HttpServer::start(std::string& error) {
    const std::string& host = impl_->options.host;
    const int port = impl_->options.port;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    if (getaddrinfo(host.c_str(), service.c_str(), &hints, &found) != 0 || !found) {
        error = "cannot resolve " + host;
        return false;
    }
    sockaddr_storage address{};
    std::memcpy(&address, found->ai_addr, std::min<std::size_t>(found->ai_addrlen, sizeof address));
    freeaddrinfo(found);

    // A thread per connection: a request waiting for the storage holds up no other connection.
    // A pool of event loops gave connections to loops unevenly, so that two kept connections
    // often took turns on one loop while another loop idled: a third fewer bulks a second.
    unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL;
    if (address.ss_family == AF_INET6) flags |= MHD_USE_IPv6;
    // The connection's memory pool holds its head and its read buffer: twice the head's bound
    // leaves room to read a body in pieces of some kilobytes.
    impl_->daemon = MHD_start_daemon(
        flags, 0, nullptr, nullptr, &Impl::onRequest, impl_.get(), MHD_OPTION_SOCK_ADDR,
        reinterpret_cast<sockaddr*>(&address), MHD_OPTION_CONNECTION_MEMORY_LIMIT,
        kMaxHeadBytes * 2, MHD_OPTION_CONNECTION_TIMEOUT, impl_->options.idleTimeoutSeconds,
        MHD_OPTION_LISTEN_BACKLOG_SIZE, kBacklog, MHD_OPTION_PER_IP_CONNECTION_LIMIT,
        impl_->options.connectionsPerAddress, MHD_OPTION_URI_LOG_CALLBACK, &Impl::onRequestLine,
        impl_.get(), MHD_OPTION_NOTIFY_COMPLETED, &Impl::onCompleted, impl_.get(),
        MHD_OPTION_NOTIFY_CONNECTION, &Impl::onConnection, impl_.get(), MHD_OPTION_END);
    if (!impl_->daemon) {
        error = "cannot listen on " + host + ":" + service + " (is another service using it?)";
        return false;
    }
    const auto* info = MHD_get_daemon_info(impl_->daemon, MHD_DAEMON_INFO_BIND_PORT);
    impl_->port = info ? info->port : port;
    return true;
}

void HttpServer::stop() {
    if (!impl_->daemon) return;
    MHD_stop_daemon(impl_->daemon);  // after the requests being answered
    impl_->daemon = nullptr;
}

int HttpServer::port() const {
    return impl_->port;
}

}  // namespace kestrelvue::service
