#pragma once
// The Linux HTTP client: libcurl's multi interface on one I/O thread, completions on a small pool
// of worker threads.
//
// Threading contract: send() may be called from any thread (a completion included) and returns at
// once. Each completion runs exactly once, on one of the client's worker threads, never inside
// send(). Completions of different requests may run at the same time. Destroying the client
// completes every unfinished request with kTransportCancelled before the destructor returns
// (unless the destructor itself runs on a worker thread, in which case they finish shortly after).
//
// Behaviour: http and https only; redirects are followed (at most 10); replies in gzip or deflate
// are decoded; no signal is used or raised (safe in multithreaded hosts). The request's timeout is
// an idle timeout: the request fails with kTransportTimedOut when no byte moved either way for
// that long (connecting included); the request's deadline bounds the whole call the same way,
// however steadily a reply trickles. A body larger than maxBodyBytes fails with
// kTransportBodyTooLarge before it can exhaust memory. By default every request uses a fresh
// connection, like a session per call.

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/HttpClient.h>

#include <cstddef>
#include <memory>

namespace kestrelvue::posix {

class KESTRELVUE_EXPORT CurlHttpClient final : public platform::HttpClient {
public:
    struct Options {
        /// Largest reply body accepted, after content decoding.
        std::size_t maxBodyBytes = std::size_t{64} << 20;
        /// Threads that run completions.
        unsigned completionThreads = 4;
        /// Keep connections open between requests to the same server.
        bool reuseConnections = false;
    };

    CurlHttpClient();
    explicit CurlHttpClient(Options options);
    ~CurlHttpClient() override;
    CurlHttpClient(const CurlHttpClient&) = delete;
    CurlHttpClient& operator=(const CurlHttpClient&) = delete;

    platform::AsyncRequest send(platform::HttpRequest request,
                                platform::HttpCompletion completion) override;

private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kestrelvue::posix
