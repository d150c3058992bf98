// The reference service against careless and hostile clients, over real sockets on loopback.

#include <gtest/gtest.h>
#include <kestrelvue/service/ReferenceService.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>
#include <tuple>

#include "net/Gzip.h"
#include "platform/sim/VirtualClock.h"

using namespace kestrelvue;
using namespace std::chrono_literals;

namespace {

std::string post(const std::string& path, const std::string& body, const std::string& extra = "") {
    return "POST " + path + " HTTP/1.1\r\nHost: t\r\n" + extra +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

class HostileClientTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(service_.start()) << service_.error(); }

    /// A connection from 127.0.0.(2 + n % 8): the hostile crowds come from a few addresses.
    int connectFrom(int n) const {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 2 + static_cast<unsigned>(n % 8));
        EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        address.sin_port = htons(static_cast<std::uint16_t>(service_.port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return fd;
    }
    /// Sends `request` and reads until the service closes (or 5 s pass).
    std::string exchange(const std::string& request, int from = 0) const {
        const int fd = connectFrom(from);
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        std::string reply;
        char buffer[65536];
        pollfd p{fd, POLLIN, 0};
        for (ssize_t n = 1; n > 0 && ::poll(&p, 1, 5000) > 0;)
            if ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0)
                reply.append(buffer, std::size_t(n));
        ::close(fd);
        return reply;
    }

    std::shared_ptr<sim::VirtualClock> clock_ = std::make_shared<sim::VirtualClock>();
    service::ReferenceService service_{
        {.bandsFile = {}, .requestTimeoutSeconds = 1, .clock = clock_}};
};

}  // namespace

// Each request is followed on its connection by a second one: it is answered when the first left
// the connection open, never when the first was refused for its framing.
TEST_F(HostileClientTest, EachRequestGetsItsStatusAndAFramingRefusalCloses) {
    const std::string bulk = R"({"UserID":1,"DrivingGuid":"Z","MotionStr":""})";
    std::string lines;
    for (int i = 0; i < 101; ++i) lines += "X-" + std::to_string(i) + ": y\r\n";
    const std::string http = " HTTP/1.1\r\nHost: t\r\n", get = "GET /healthz" + http;
    const std::string motion = "/api/Driving/addMotionData", gz = "Content-Encoding: gzip\r\n";
    const std::tuple<std::string, std::string, bool> cases[] = {
        // request, status, closes
        {"GET /healthz HTTP/1.1\r\n\r\n", "400", true},
        {post("/api/User/AddUser", "{}", "Content-Length: 3\r\n"), "400", true},
        {post("/api/User/AddUser", "{}", "Transfer-Encoding: chunked\r\n"), "400", true},
        {"POST /api/User/AddUser" + http + "Content-Length: 2a\r\n\r\n{}", "400", true},
        {get + lines + "\r\n", "431", true},
        {get + "X: " + std::string(20000, 'y') + "\r\n\r\n", "431", true},
        {"POST /api/User/AddUser" + http + "Content-Length: 16777217\r\n\r\n", "413", true},
        {post(motion, *detail::gzip(std::string(17 << 20, ' ')), gz), "413", false},
        {post(motion, detail::gzip(bulk)->substr(0, 20), gz), "400", false},
        {post(motion, bulk, "Content-Encoding: br\r\n"), "415", false},
        {post(motion, *detail::gzip(bulk), gz), "200", false},
        {get + "Range: bytes=0-0,0-0,0-0\r\n\r\n", "200", false},
        {"DELETE /healthz" + http + "\r\n", "405", false},
        {"GET /api/Nothing" + http + "\r\n", "404", false},
        {"GET /api/General/getLeaderShip/1?RankType=4" + http + "\r\n", "400", false},
        {"GET /api/General/getWeatherDataByLatLon/1?latitude=91.0&longitude=0.0" + http + "\r\n",
         "400", false},
    };
    for (const auto& [request, status, closes] : cases) {
        const std::string reply = exchange(request + get + "Connection: close\r\n\r\n");
        EXPECT_EQ(reply.substr(0, 12), "HTTP/1.1 " + status) << request.substr(0, 80);
        EXPECT_EQ(reply.find("HTTP/1.1 200", 1) != std::string::npos, !closes) << reply;
    }
}

// Idle sockets, slow senders and a header flood delay no one and hold little memory; a request
// that trickles in is dropped at its deadline.
TEST_F(HostileClientTest, CrowdsOfSlowAndIdleClientsDelayNoOne) {
    auto timedHealthz = [this, clock = std::chrono::steady_clock()] {
        const auto start = clock.now();
        EXPECT_EQ(exchange("GET /healthz HTTP/1.0\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
        return clock.now() - start;
    };
    auto residentMiB = [] {
        long pages = 0, resident = 0;
        std::ifstream("/proc/self/statm") >> pages >> resident;
        return resident * sysconf(_SC_PAGESIZE) >> 20;
    };
    std::string lines;
    while (lines.size() < (1 << 20)) lines += "X-Flood: " + std::string(54, 'x') + "\r\n";
    const long before = residentMiB();
    std::vector<int> crowd;  // per address at most 128 connections, the service's limit
    for (int i = 0; i < 900; ++i) {
        crowd.push_back(connectFrom(i));
        const std::string head = post("/api/User/AddUser", "{}");  // cut short
        if (i % 2) ::send(crowd.back(), head.data(), head.size() - (i % 4 == 1 ? 3 : 1), 0);
    }
    std::vector<std::thread> flood;
    flood.reserve(64);
    for (int i = 0; i < 64; ++i)
        flood.emplace_back([this, i, &lines] {
            const int fd = connectFrom(i);
            for (int mb = 0; mb < 8 && ::send(fd, lines.data(), lines.size(), MSG_NOSIGNAL) > 0;)
                ++mb;
            ::close(fd);
        });
    EXPECT_LT(timedHealthz(), 1000ms);  // under a hundred milliseconds when the machine is idle
    for (auto& t : flood) t.join();
    EXPECT_LT(timedHealthz(), 1000ms);
#ifdef KESTRELVUE_SANITIZED
    // The sanitizers' shadow memory and quarantine hold freed blocks: only a flood kept whole
    // would pass this.
    EXPECT_LT(residentMiB() - before, 400);
#else
    EXPECT_LT(residentMiB() - before, 100);
#endif
    // The deadline (one second here) cuts the trickling ones: each sees its connection end.
    char byte;
    for (int fd : crowd) {
        pollfd p{fd, POLLIN, 0};
        EXPECT_TRUE(::poll(&p, 1, 5000) == 1 && ::recv(fd, &byte, 1, 0) <= 0);
        ::close(fd);
    }
}

// Failed logins are limited per number and per address: 429 with Retry-After, then a try again
// once the window has passed.
TEST_F(HostileClientTest, FailedLoginsAreLimitedPerNumberAndPerAddress) {
    const std::string token = service_.issueToken("5551");
    auto login = [&](const std::string& mobile, const std::string& tok, int from = 0) {
        return exchange(post("/api/User/LoginWithToken",
                             R"({"Mobile":")" + mobile + R"(","Token":")" + tok + "\"}",
                             "Connection: close\r\n"),
                        from);
    };
    for (int i = 0; i < 5; ++i) EXPECT_EQ(login("5551", "wrong").substr(9, 3), "403");
    const std::string limited = login("5551", token);
    EXPECT_EQ(limited.substr(9, 3), "429");
    EXPECT_NE(limited.find("Retry-After: 60\r\n"), std::string::npos);
    for (int i = 0; i < 20; ++i) login("other" + std::to_string(i), "x", 1);
    EXPECT_EQ(login("5552", "x", 1).substr(9, 3), "429");
    clock_->advance(61s);
    EXPECT_EQ(login("5551", token).substr(9, 3), "200");
}
