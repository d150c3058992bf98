#pragma once
// The service's HTTP side: libmicrohttpd reads each connection on a thread of its own, within
// bounds of memory and time, so a slow or idle client holds its socket and a sleeping thread.

#include <kestrelvue/service/ReferenceService.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrelvue::service {

using Fields = std::vector<std::pair<std::string, std::string>>;

/// One request as the handlers see it, its body already inflated when it came compressed.
struct Request {
    std::string method, path;
    Fields query;
    std::string body;
    std::string client;  // the peer's address
    std::string tail;    // set by the service's router: what follows a route's path

    /// The first query parameter of that name; empty when there is none.
    std::string param(std::string_view name) const;
};

struct Reply {
    int status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::string body;
    Fields headers;
};

/// A plain-text reply: a refusal and its reason, or a short answer.
inline Reply textReply(int status, std::string body) {
    return {.status = status, .body = std::move(body), .headers = {}};
}

class HttpServer {
public:
    using Handler = std::function<Reply(Request&)>;

    /// Serves `options.host` and `options.port` within the options' bounds.
    HttpServer(ServiceOptions options, Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Listens and serves on a thread of its own; false with `error` when the address cannot be
    /// bound (also when another process listens on it).
    bool start(std::string& error);
    /// Answers what is being answered, then closes every connection.
    void stop();
    int port() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kestrelvue::service
