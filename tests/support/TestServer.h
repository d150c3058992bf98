#pragma once
// A real HTTP server on 127.0.0.1 (ephemeral port) whose replies each test scripts per path, and
// which records every request it receives. Matching is on the path alone, for GET, POST and PUT:
// one-shot replies queued with enqueue() first, in order, then the one set with reply(); an
// unscripted path gets 404 with an empty body. Requests are recorded when they arrive, before any
// scripted delay; delays end early when the server goes. All members are thread-safe.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
}

namespace kestrelvue::test {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// Written with designated initialisers: {.status = 500}, {.body = std::nullopt},
// {.drop = ScriptedReply::Drop::beforeReply}.
struct ScriptedReply {
    enum class Drop {
        none,
        beforeReply,   // close the connection without sending anything
        afterHeaders,  // send the headers announcing the body's length, then close
    };

    int status = 200;
    /// nullopt: no body and no length (the connection closes after the headers).
    std::optional<std::string> body = std::string();
    HeaderList headers{};
    std::chrono::milliseconds delay{0};
    Drop drop = Drop::none;
    /// When set, the body goes one byte at a time, this far apart.
    std::chrono::milliseconds trickle{0};

    static ScriptedReply json(std::string body, int status = 200) {
        return {status, std::move(body), {{"Content-Type", "application/json; charset=utf-8"}}};
    }
    static ScriptedReply text(std::string body, int status = 200) {
        return {status, std::move(body), {{"Content-Type", "text/plain; charset=utf-8"}}};
    }
    /// This reply, sent after `wait`.
    ScriptedReply after(std::chrono::milliseconds wait) const {
        return {status, body, headers, wait, drop, trickle};
    }
};

struct ReceivedRequest {
    std::string method;
    std::string path;      // decoded by the server
    std::string target;    // path and query exactly as sent
    HeaderList headers{};  // with the bookkeeping entries cpp-httplib adds (REMOTE_ADDR, ...)
    std::string body;

    /// The first header of that name (case-insensitive), or "" when absent.
    std::string header(std::string_view name) const;
};

class TestServer {
public:
    TestServer();
    ~TestServer();

    std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_); }
    std::string url(std::string_view pathAndQuery) const {
        return baseURL() + std::string(pathAndQuery);
    }

    /// The reply for every request to `path` (replaces an earlier one).
    void reply(const std::string& path, ScriptedReply reply);
    /// A one-shot reply for the next request to `path`; several queue up in order.
    void enqueue(const std::string& path, ScriptedReply reply);

    /// The requests received, all of them or those to `path`.
    std::vector<ReceivedRequest> requests(std::string_view path = {}) const;
    /// Waits until at least `n` requests (to `path`, when given) have arrived; false on time-out.
    bool waitForRequests(std::size_t n, std::string_view path = {},
                         std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

private:
    void handle(const void* request, void* response);
    int socketFor(int peerPort) const;

    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    bool stopping_ = false;
    std::map<std::string, ScriptedReply> replies_;
    std::map<std::string, std::deque<ScriptedReply>> queued_;
    std::vector<ReceivedRequest> received_;
};

}  // namespace kestrelvue::test
