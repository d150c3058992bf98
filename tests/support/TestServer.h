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

struct ScriptedReply {
    enum class Drop {
        none,
        /// Close the connection without sending anything.
        beforeReply,
        /// Send the status line and headers (announcing the body's length), then close.
        afterHeaders,
    };

    int status = 200;
    HeaderList headers;
    /// nullopt: no body at all (no length announced; the connection closes after the headers).
    /// An empty text is sent with "Content-Length: 0".
    std::optional<std::string> body = std::string();
    std::chrono::milliseconds delay{0};
    Drop drop = Drop::none;

    static ScriptedReply json(std::string body, int status = 200);
    static ScriptedReply text(std::string body, int status = 200);
    static ScriptedReply statusOnly(int status);  // empty body
    static ScriptedReply noBody(int status = 200);
    /// A dropped connection; with afterHeaders, `announcedBody`'s length is announced.
    static ScriptedReply dropped(Drop how, std::string announcedBody = "x");
    /// This reply, sent after `wait`.
    ScriptedReply after(std::chrono::milliseconds wait) const;
};

struct ReceivedRequest {
    std::string method;
    std::string path;    // decoded by the server
    std::string target;  // path and query exactly as sent
    std::string query;   // the raw text after '?', empty when none
    HeaderList headers;
    std::string body;

    /// The first header of that name (case-insensitive), or "" when absent.
    std::string header(std::string_view name) const;
    bool hasHeader(std::string_view name) const;
};

class TestServer {
public:
    TestServer();
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    int port() const { return port_; }
    std::string baseURL() const;
    std::string url(std::string_view pathAndQuery) const;

    /// The reply for every request to `path` (replaces an earlier one).
    void reply(const std::string& path, ScriptedReply reply);
    /// A one-shot reply for the next request to `path`; several queue up in order.
    void enqueue(const std::string& path, ScriptedReply reply);

    std::vector<ReceivedRequest> requests() const;
    std::vector<ReceivedRequest> requestsTo(std::string_view path) const;
    std::size_t requestCount() const;
    /// Waits until at least `n` requests have arrived; false on time-out.
    bool waitForRequests(std::size_t n,
                         std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    void clearRequests();

private:
    ScriptedReply scriptFor(const std::string& path);
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
