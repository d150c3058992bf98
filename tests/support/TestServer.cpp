#include "support/TestServer.h"

#include <httplib.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace kestrelvue::test {
namespace {

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    const auto lower = [](unsigned char c) { return std::tolower(c); };
    return std::ranges::equal(a, b, {}, lower, lower);
}

int portOf(const sockaddr_storage& address) {  // the server listens on IPv4 alone
    if (address.ss_family != AF_INET) return -1;
    return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

void writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (n <= 0) return;
        data.remove_prefix(static_cast<std::size_t>(n));
    }
}

}  // namespace

std::string ReceivedRequest::header(std::string_view name) const {
    for (const auto& [k, v] : headers)
        if (equalsIgnoreCase(k, name)) return v;
    return {};
}

TestServer::TestServer() : server_(std::make_unique<httplib::Server>()) {
    auto handler = [this](const httplib::Request& req, httplib::Response& res) {
        handle(&req, &res);
    };
    server_->Get(".*", handler);
    server_->Post(".*", handler);
    server_->Put(".*", handler);
    server_->set_keep_alive_max_count(1);
    port_ = server_->bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("TestServer: cannot bind 127.0.0.1");
    thread_ = std::thread([this] {
        // Writing to a connection the test closed must fail with EPIPE, not kill the process.
        // Only the server's threads (which inherit this mask) block SIGPIPE: the library's own
        // threads keep the default, so a SIGPIPE raised by the HTTP client still shows.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        server_->listen_after_bind();
    });
    // The socket already listens; wait for the accept loop so that stop() cannot miss it.
    while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TestServer::~TestServer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    server_->stop();
    if (thread_.joinable()) thread_.join();
}

void TestServer::reply(const std::string& path, ScriptedReply reply) {
    std::lock_guard lock(mutex_);
    replies_[path] = std::move(reply);
}

void TestServer::enqueue(const std::string& path, ScriptedReply reply) {
    std::lock_guard lock(mutex_);
    queued_[path].push_back(std::move(reply));
}

std::vector<ReceivedRequest> TestServer::requests(std::string_view path) const {
    std::lock_guard lock(mutex_);
    std::vector<ReceivedRequest> out;
    for (const auto& r : received_)
        if (path.empty() || r.path == path) out.push_back(r);
    return out;
}

bool TestServer::waitForRequests(std::size_t n, std::string_view path,
                                 std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] {
        return std::count_if(received_.begin(), received_.end(), [&](auto& r) {
                   return path.empty() || r.path == path;
               }) >= static_cast<std::ptrdiff_t>(n);
    });
}

// The server's end of the connection from the client's `peerPort`. cpp-httplib does not expose
// its sockets, so the test server looks the descriptor up among the process's own.
int TestServer::socketFor(int peerPort) const {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
        int fd = std::atoi(entry.path().filename().c_str());
        sockaddr_storage local{}, peer{};
        socklen_t localLen = sizeof local, peerLen = sizeof peer;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLen) != 0) continue;
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLen) != 0) continue;
        if (portOf(local) == port_ && portOf(peer) == peerPort) return fd;
    }
    return -1;
}

void TestServer::handle(const void* request, void* response) {
    const auto& req = *static_cast<const httplib::Request*>(request);
    auto& res = *static_cast<httplib::Response*>(response);

    ScriptedReply script{.status = 404};
    {
        std::unique_lock lock(mutex_);
        received_.push_back(
            {req.method, req.path, req.target, {req.headers.begin(), req.headers.end()}, req.body});
        if (auto q = queued_.find(req.path); q != queued_.end() && !q->second.empty()) {
            script = std::move(q->second.front());
            q->second.pop_front();
        } else if (auto it = replies_.find(req.path); it != replies_.end()) {
            script = it->second;
        }
        cv_.notify_all();
        if (script.delay.count() > 0) cv_.wait_for(lock, script.delay, [&] { return stopping_; });
    }

    if (script.drop != ScriptedReply::Drop::none || !script.body) {
        // Replies cpp-httplib will not send are written to its socket by hand; its own reply then
        // fails to write and it closes the connection.
        if (int fd = socketFor(req.remote_port); fd >= 0) {
            std::string head = "HTTP/1.1 " + std::to_string(script.status) + " Scripted\r\n";
            for (const auto& [k, v] : script.headers)
                head.append(k).append(": ").append(v).append("\r\n");
            if (script.body)
                head += "Content-Length: " + std::to_string(script.body->size()) + "\r\n";
            if (script.drop != ScriptedReply::Drop::beforeReply)
                writeAll(fd, head + "Connection: close\r\n\r\n");
            ::shutdown(fd, script.drop == ScriptedReply::Drop::beforeReply ? SHUT_RDWR : SHUT_WR);
        }
        res.status = 500;
        return;
    }

    res.status = script.status;
    std::string contentType = "application/octet-stream";
    for (const auto& [k, v] : script.headers) {
        if (equalsIgnoreCase(k, "Content-Type"))
            contentType = v;
        else
            res.set_header(k, v);
    }
    if (script.trickle.count() > 0) {
        res.set_content_provider(script.body->size(), contentType,
                                 [body = *script.body, pause = script.trickle](
                                     std::size_t at, std::size_t, httplib::DataSink& sink) {
                                     std::this_thread::sleep_for(pause);
                                     return sink.write(body.data() + at, 1);
                                 });
        return;
    }
    res.set_content(*script.body, contentType);
}

}  // namespace kestrelvue::test
