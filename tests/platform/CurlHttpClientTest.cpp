// The libcurl client against the loopback server: what a completion carries, on which thread, and
// how time-outs, oversized bodies, dropped connections and shutdown end a request.
#include <gtest/gtest.h>
#include <kestrelvue/posix/CurlHttpClient.h>

#include <atomic>
#include <cctype>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "support/TestServer.h"

using namespace kestrelvue;
using namespace kestrelvue::test;
using namespace std::chrono_literals;
using platform::HttpRequest;
using platform::HttpResult;

namespace {

// Collects completions with the thread each ran on, and lets the test wait for them (bounded).
struct Completions {
    platform::HttpCompletion make() {
        return [this](HttpResult r) {
            std::lock_guard lock(mutex);
            results.emplace_back(std::move(r), std::this_thread::get_id());
            cv.notify_all();
        };
    }
    bool waitFor(std::size_t n, std::chrono::milliseconds timeout = 5s) {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, timeout, [&] { return results.size() >= n; });
    }
    HttpResult at(std::size_t i) {
        std::lock_guard lock(mutex);
        return results.at(i).first;
    }
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::pair<HttpResult, std::thread::id>> results;
};

HttpRequest get(const std::string& url, std::chrono::milliseconds timeout = 60s,
                std::size_t maxBody = 0,
                std::chrono::milliseconds deadline = HttpRequest::kDefaultDeadline) {
    HttpRequest r;
    r.url = url;
    r.timeout = timeout;
    r.deadline = deadline;
    r.maxBodyBytes = maxBody;
    return r;
}

std::string headerOf(const platform::HttpResponse& response, const std::string& lowerName) {
    for (auto [name, value] : response.headers) {
        for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (name == lowerName) return value;
    }
    return {};
}

// Also: an absent body is told from an empty one, redirects are followed, and a body the server
// chose to compress arrives decoded.
TEST(CurlHttpClient, ReportsStatusHeadersAndBodyOnAWorkerThread) {
    TestServer server;
    ScriptedReply reply = ScriptedReply::json(R"({"ok":true})", 202);
    reply.headers.emplace_back("X-Trace", "abc");
    server.reply("/r", reply);
    server.reply("/empty", {});
    server.reply("/absent", {.body = std::nullopt});
    server.reply("/text", ScriptedReply::text(std::string(5000, 'a')));
    server.reply("/start", {.status = 302, .headers = {{"Location", "/text"}}});
    posix::CurlHttpClient client;
    Completions done;
    HttpRequest request = get(server.url("/r?q=1"));
    request.method = "PUT";
    request.body = "payload";
    request.setValue("text/plain", "Content-Type");
    client.send(request, done.make()).detach();
    ASSERT_TRUE(done.waitFor(1));
    HttpResult r = done.at(0);
    EXPECT_NE(done.results.at(0).second, std::this_thread::get_id());
    ASSERT_TRUE(r.response && !r.error);
    EXPECT_EQ(std::tuple(r.response->statusCode, headerOf(*r.response, "x-trace"), *r.body),
              std::tuple(202, "abc", R"({"ok":true})"));
    ReceivedRequest got = server.requests().at(0);
    EXPECT_EQ(std::tuple(got.method, got.target, got.body, got.header("Content-Type")),
              std::tuple("PUT", "/r?q=1", "payload", "text/plain"));

    std::size_t sent = 1;
    for (const char* path : {"/empty", "/absent", "/start"}) {
        client.send(get(server.url(path)), done.make()).detach();
        ASSERT_TRUE(done.waitFor(++sent)) << path;  // one at a time keeps the order
        EXPECT_EQ(done.at(sent - 1).response->statusCode, 200) << path;
    }
    EXPECT_EQ(done.at(1).body, std::optional<std::string>(""));
    EXPECT_EQ(done.at(2).body, std::nullopt);
    EXPECT_EQ(done.at(3).body, std::string(5000, 'a'));
}

TEST(CurlHttpClient, TransportFailuresCarryAnErrorAndNoResponse) {
    TestServer server;
    server.reply("/drop", {.drop = ScriptedReply::Drop::beforeReply});
    server.reply("/cut", {.body = "0123456789", .drop = ScriptedReply::Drop::afterHeaders});
    server.reply("/slow", ScriptedReply::text("late").after(3s));
    server.reply("/trickle", {.body = std::string(100, 'x'), .trickle = 50ms});
    server.reply("/big", ScriptedReply::text(std::string(std::size_t{300} * 1024, 'x')));
    server.reply("/medium", ScriptedReply::text(std::string(std::size_t{50} * 1024, 'x')));
    const std::string refused = TestServer().url("/x");  // nothing listens once it is gone
    posix::CurlHttpClient::Options options;
    options.maxBodyBytes = std::size_t{100} * 1024;
    posix::CurlHttpClient client(options);

    struct Case {
        std::string url;
        std::chrono::milliseconds timeout;
        std::int64_t code;
        std::size_t maxBody = 0;  // the request's own limit
        std::chrono::milliseconds deadline = HttpRequest::kDefaultDeadline;
    };
    const Case cases[] = {
        {server.url("/drop"), 60s, platform::kTransportConnectionLost},
        {server.url("/cut"), 60s, platform::kTransportConnectionLost},
        {server.url("/slow"), 300ms, platform::kTransportTimedOut},
        {server.url("/trickle"), 60s, platform::kTransportTimedOut, 0, 300ms},  // never idle
        {server.url("/big"), 60s, platform::kTransportBodyTooLarge},
        {server.url("/medium"), 60s, platform::kTransportBodyTooLarge, std::size_t{10} * 1024},
        {refused, 60s, platform::kTransportCannotConnectToHost},
        {"gopher://127.0.0.1/x", 60s, platform::kTransportUnsupportedURL},
    };
    for (const Case& c : cases) {
        Completions done;
        auto start = std::chrono::steady_clock::now();
        client.send(get(c.url, c.timeout, c.maxBody, c.deadline), done.make()).detach();
        ASSERT_TRUE(done.waitFor(1)) << c.url;
        HttpResult r = done.at(0);
        ASSERT_TRUE(r.error && !r.response && !r.body) << c.url;
        EXPECT_EQ(std::pair(r.error->domain, r.error->code),
                  std::pair(std::string(platform::kTransportErrorDomain), c.code))
            << c.url << ": " << r.error->description;
        EXPECT_FALSE(r.error->description.empty());
        if (c.code == platform::kTransportTimedOut) {
            EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << "the time-out is honoured";
        }
    }
}

TEST(CurlHttpClient, DestructionCompletesUnfinishedRequestsAsCancelled) {
    TestServer server;
    server.reply("/hang", ScriptedReply::text("never").after(30s));
    Completions done;
    {
        posix::CurlHttpClient client;
        client.send(get(server.url("/hang")), done.make()).detach();
        client.send(get(server.url("/hang")), done.make()).detach();
        ASSERT_TRUE(server.waitForRequests(2));
    }
    ASSERT_EQ(done.results.size(), 2u) << "every completion ran before the destructor returned";
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(done.at(i).error.value_or(TransportError{}).code, platform::kTransportCancelled);
}

// A dropped request never completes, even when its reply comes first; the last owner may let go
// of the client inside a completion, on the client's own worker thread.
TEST(CurlHttpClient, DroppedRequestsAndOwnersLettingGoInsideACompletion) {
    TestServer server;
    server.reply("/early", ScriptedReply::text("e").after(100ms));
    server.reply("/late", ScriptedReply::text("l").after(400ms));
    auto client = std::make_shared<posix::CurlHttpClient>();
    std::atomic<int> early{0};
    {
        auto dropped = client->send(get(server.url("/early")), [&](const HttpResult&) { ++early; });
    }
    Completions done;
    auto* raw = client.get();
    raw->send(get(server.url("/late")),
              [finish = done.make(), keep = std::move(client)](HttpResult r) mutable {
                  keep.reset();
                  finish(std::move(r));
              })
        .detach();
    ASSERT_TRUE(done.waitFor(1));
    EXPECT_FALSE(done.at(0).error);
    EXPECT_EQ(early.load(), 0);
}

}  // namespace
