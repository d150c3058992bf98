#pragma once
// Uploads a host chose to send compressed: the gzip body goes with "Content-Encoding: gzip",
// and a service that answers 415 gets the same upload again uncompressed, and only plain bodies
// from then on (per service address, until the process ends), so no data is lost to a service
// that predates compression.

#include <kestrelvue/platform/HttpClient.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace kestrelvue::detail {

/// True when a body for `url` should be compressed: the host opted in (`wanted`) and the service
/// at that address has not refused a compressed body in this process.
bool compressFor(bool wanted, std::string_view url);

/// Sends `request`. A gzip body (see isGzip) carries "Content-Encoding: gzip", or goes inflated
/// when its service refused compression before. A 415 to a gzip body marks the address and sends
/// the body again plain; the completion hears that second outcome.
platform::AsyncRequest sendUpload(const std::shared_ptr<platform::HttpClient>& http,
                                  platform::HttpRequest request,
                                  platform::HttpCompletion completion);

/// One worker thread that runs jobs in order: the deflate of a bulk, kept off the host's
/// sampling thread. Destruction runs what was queued, then joins.
class Deflater {
public:
    Deflater();
    ~Deflater();
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    void post(std::function<void()> job);
    /// Waits until every job posted so far has run.
    void waitUntilIdle();

private:
    void run();

    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> jobs_;
    bool busy_ = false;
    bool stop_ = false;
    std::thread worker_;  // last: starts once everything above exists
};

}  // namespace kestrelvue::detail
