#pragma once
// httplib's server, reading each connection through a buffer of its own.

#include <httplib.h>

namespace kestrelvue::service {

/// httplib's own connection stream reads 4 KiB a call, with a poll before each recv: some 170
/// system calls for a bulk of 300 KB, a tenth of the service's processor time under load. This
/// server reads a connection 64 KiB at a time, with one recv each (the socket's own time-out
/// bounds the wait), and keeps the buffer from request to request of a kept connection.
class BufferedServer : public httplib::Server {
public:
    BufferedServer();
    ~BufferedServer() override;
    /// Stops as httplib::Server::stop, and wakes connections waiting for their next request at
    /// once instead of at their keep-alive time-out.
    void shutdown();

private:
    bool process_and_close_socket(socket_t sock) override;
    int wake_ = -1;  // an eventfd, readable once shutdown began
};

}  // namespace kestrelvue::service
