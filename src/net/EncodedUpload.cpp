#include "net/EncodedUpload.h"

#include <set>
#include <utility>

#include "net/Gzip.h"
#include "net/HttpReply.h"
#include "net/Url.h"

namespace kestrelvue::detail {
namespace {

// Bodies the library wrote itself; the bound only keeps a damaged stored entry from growing.
constexpr std::size_t kInflateLimit = std::size_t{64} << 20;

std::mutex gRefusedMutex;
std::set<std::string>& refused() {
    static auto* origins = new std::set<std::string>;  // never freed: completions may run late
    return *origins;
}

std::string originOf(std::string_view url) {
    const auto parsed = parseUrl(url);
    if (!parsed) return std::string(url);
    return parsed->scheme + "://" + parsed->host + ":" +
           std::to_string(parsed->port.value_or(parsed->scheme == "https" ? 443 : 80));
}

bool hasRefused(std::string_view url) {
    const std::string origin = originOf(url);
    std::lock_guard lock(gRefusedMutex);
    return refused().count(origin) != 0;
}

// The request with its body inflated and without the encoding header.
platform::HttpRequest plainCopy(platform::HttpRequest request) {
    std::erase_if(request.headers, [](const auto& h) { return h.first == "Content-Encoding"; });
    if (request.body && isGzip(*request.body)) {
        // A stored body that does not inflate goes as it is; the service's 400 keeps it queued.
        if (auto plain = gunzip(*request.body, kInflateLimit)) request.body = std::move(*plain);
    }
    return request;
}

}  // namespace

bool compressFor(bool wanted, std::string_view url) {
    return wanted && !hasRefused(url);
}

platform::AsyncRequest sendUpload(const std::shared_ptr<platform::HttpClient>& http,
                                  platform::HttpRequest request,
                                  platform::HttpCompletion completion) {
    if (!request.body || !isGzip(*request.body)) {
        return http->send(std::move(request), std::move(completion));
    }
    if (hasRefused(request.url))
        return http->send(plainCopy(std::move(request)), std::move(completion));

    request.setValue("gzip", "Content-Encoding");
    auto again = plainCopy(request);
    return http->send(std::move(request),
                      [http, again = std::move(again),
                       completion = std::move(completion)](platform::HttpResult result) mutable {
                          const HttpReply reply = classify(result);
                          if (reply.kind != HttpReply::Kind::status || reply.status != 415) {
                              completion(std::move(result));
                              return;
                          }
                          {
                              std::lock_guard lock(gRefusedMutex);
                              refused().insert(originOf(again.url));
                          }
                          http->send(std::move(again), std::move(completion)).detach();
                      });
}

Deflater::Deflater() : worker_([this] { run(); }) {}

Deflater::~Deflater() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    cv_.notify_all();
    worker_.join();
}

void Deflater::post(std::function<void()> job) {
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    cv_.notify_all();
}

void Deflater::waitUntilIdle() {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [&] { return jobs_.empty() && !busy_; });
}

void Deflater::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        cv_.wait(lock, [&] { return stop_ || !jobs_.empty(); });
        if (jobs_.empty()) return;  // stopping, and everything queued has run
        auto job = std::move(jobs_.front());
        jobs_.pop_front();
        busy_ = true;
        lock.unlock();
        job();
        lock.lock();
        busy_ = false;
        cv_.notify_all();
    }
}

}  // namespace kestrelvue::detail
