#include "BufferedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace kestrelvue::service {
namespace {

int millis(time_t seconds, time_t micros) {
    return static_cast<int>(seconds * 1000 + micros / 1000);
}

void setTimeout(int sock, int option, time_t seconds, time_t micros) {
    timeval tv{};
    tv.tv_sec = seconds;
    tv.tv_usec = static_cast<suseconds_t>(micros);
    setsockopt(sock, SOL_SOCKET, option, &tv, sizeof tv);
}

void addressOf(const sockaddr_storage& address, std::string& ip, int& port) {
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(address);
        inet_ntop(AF_INET, &in.sin_addr, text, sizeof text);
        port = ntohs(in.sin_port);
    } else if (address.ss_family == AF_INET6) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address);
        inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text);
        port = ntohs(in6.sin6_port);
    }
    ip = text;
}

/// One connection, read through a buffer. Reads and writes wait at most the socket's own
/// time-outs (SO_RCVTIMEO, SO_SNDTIMEO), which the server sets from its read and write time-outs.
class ConnectionStream final : public httplib::Stream {
public:
    ConnectionStream(int sock, int readMillis, int writeMillis)
        : sock_(sock), readMillis_(readMillis), writeMillis_(writeMillis) {}

    bool buffered() const { return at_ < filled_; }
    bool is_readable() const override { return buffered() || ready(POLLIN, readMillis_); }
    bool is_writable() const override { return ready(POLLOUT, writeMillis_); }

    ssize_t read(char* ptr, size_t size) override {
        if (!buffered()) {
            const ssize_t n =
                retrying([&] { return recv(sock_, buffer_.data(), buffer_.size(), 0); });
            if (n <= 0) return n < 0 ? -1 : 0;
            at_ = 0;
            filled_ = static_cast<std::size_t>(n);
        }
        const std::size_t n = std::min(size, filled_ - at_);
        std::memcpy(ptr, buffer_.data() + at_, n);
        at_ += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char* ptr, size_t size) override {
        return retrying([&] { return send(sock_, ptr, size, MSG_NOSIGNAL); });
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (getpeername(sock_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            addressOf(address, ip, port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (getsockname(sock_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            addressOf(address, ip, port);
    }
    socket_t socket() const override { return sock_; }

private:
    template <class Call>
    static ssize_t retrying(Call call) {
        ssize_t n;
        do n = call();
        while (n < 0 && errno == EINTR);
        return n;
    }
    bool ready(short events, int timeoutMillis) const {
        pollfd p{sock_, events, 0};
        return retrying([&] { return ssize_t(poll(&p, 1, timeoutMillis)); }) > 0;
    }

    int sock_;
    int readMillis_, writeMillis_;
    std::array<char, std::size_t{64} * 1024> buffer_;
    std::size_t at_ = 0, filled_ = 0;
};

}  // namespace

BufferedServer::BufferedServer() : wake_(eventfd(0, EFD_CLOEXEC)) {}

BufferedServer::~BufferedServer() {
    if (wake_ >= 0) close(wake_);
}

void BufferedServer::shutdown() {
    if (wake_ >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] auto written = ::write(wake_, &one, sizeof one);
    }
    stop();
}

bool BufferedServer::process_and_close_socket(socket_t sock) {
    setTimeout(sock, SO_RCVTIMEO, read_timeout_sec_, read_timeout_usec_);
    setTimeout(sock, SO_SNDTIMEO, write_timeout_sec_, write_timeout_usec_);
    ConnectionStream stream(sock, millis(read_timeout_sec_, read_timeout_usec_),
                            millis(write_timeout_sec_, write_timeout_usec_));
    bool served = false;
    for (std::size_t left = keep_alive_max_count_; left > 0; --left) {
        // The next request: already read in part, or awaited until the keep-alive time-out, the
        // peer's close or the server's shutdown.
        if (!stream.buffered()) {
            pollfd waits[2] = {{sock, POLLIN, 0}, {wake_, POLLIN, 0}};
            const int n = poll(waits, wake_ >= 0 ? 2 : 1, millis(keep_alive_timeout_sec_, 0));
            if (n <= 0 || waits[1].revents != 0 || svr_sock_ == INVALID_SOCKET) break;
        }
        bool closed = false;
        served = process_request(stream, left == 1, closed, nullptr);
        if (!served || closed) break;
    }
    ::shutdown(sock, SHUT_RDWR);
    close(sock);
    return served;
}

}  // namespace kestrelvue::service
