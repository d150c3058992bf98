#include <curl/curl.h>
#include <kestrelvue/posix/CurlHttpClient.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/posix/ReplyHeaders.h"

namespace kestrelvue::posix {
namespace {

using Clock = std::chrono::steady_clock;
using platform::HttpCompletion;
using platform::HttpRequest;
using platform::HttpResponse;
using platform::HttpResult;

void initCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

TransportError makeError(std::int64_t code, std::string description) {
    return TransportError{platform::kTransportErrorDomain, code, std::move(description)};
}

std::int64_t mapCurlCode(CURLcode code) {
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return platform::kTransportTimedOut;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return platform::kTransportCannotFindHost;
        case CURLE_COULDNT_CONNECT:
            return platform::kTransportCannotConnectToHost;
        case CURLE_GOT_NOTHING:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_PARTIAL_FILE:
            return platform::kTransportConnectionLost;
        case CURLE_UNSUPPORTED_PROTOCOL:
            return platform::kTransportUnsupportedURL;
        case CURLE_URL_MALFORMAT:
            return platform::kTransportBadURL;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
            return platform::kTransportSecureConnectionFailed;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_TOO_MANY_REDIRECTS:
        case CURLE_BAD_CONTENT_ENCODING:
            return platform::kTransportBadServerResponse;
        default:
            return platform::kTransportUnknown;
    }
}

// Loopback never goes through a proxy; the host's own no_proxy list still applies.
std::string noProxyList() {
    std::string list = "localhost,127.0.0.1,::1";
    const char* env = std::getenv("no_proxy");
    if (!env || !*env) env = std::getenv("NO_PROXY");
    if (env && *env) {
        if (std::string_view(env) == "*") return "*";
        list += ',';
        list += env;
    }
    return list;
}

}  // namespace

struct CurlHttpClient::Impl : std::enable_shared_from_this<CurlHttpClient::Impl> {
    struct Transfer {
        HttpRequest request;
        HttpCompletion completion;
        CURL* easy = nullptr;
        curl_slist* headerList = nullptr;
        std::string body;
        detail::ReplyHeaders headers;
        bool bodyTooLarge = false;
        std::size_t maxBody = 0;
        Clock::time_point lastActivity{};
        Clock::time_point started{};
        curl_off_t lastDown = 0, lastUp = 0;
        char errorBuffer[CURL_ERROR_SIZE] = {};

        ~Transfer() {
            if (easy) curl_easy_cleanup(easy);
            if (headerList) curl_slist_free_all(headerList);
        }
        // The earlier of the idle time-out and the total deadline.
        std::optional<Clock::time_point> deadline() const {
            std::optional<Clock::time_point> at;
            if (request.timeout.count() > 0) at = lastActivity + request.timeout;
            if (request.deadline.count() > 0) {
                const auto total = started + request.deadline;
                at = at ? std::min(*at, total) : total;
            }
            return at;
        }
    };

    Options options;
    CURLM* multi = nullptr;
    std::string noProxy = noProxyList();

    std::mutex mutex;  // guards incoming and stopping
    std::vector<std::unique_ptr<Transfer>> incoming;
    bool stopping = false;

    std::mutex queueMutex;  // guards completions and workersStop
    std::condition_variable queueCv;
    std::deque<std::function<void()>> completions;
    bool workersStop = false;

    std::thread io;
    std::vector<std::thread> workers;

    explicit Impl(Options o) : options(o) {
        initCurlOnce();
        multi = curl_multi_init();
        if (options.completionThreads == 0) options.completionThreads = 1;
    }
    ~Impl() {
        if (multi) curl_multi_cleanup(multi);
    }

    void start() {
        auto self = shared_from_this();
        io = std::thread([self] { self->ioLoop(); });
        for (unsigned i = 0; i < options.completionThreads; ++i) {
            workers.emplace_back([self] { self->workerLoop(); });
        }
    }

    void shutdown() {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        curl_multi_wakeup(multi);
        if (io.joinable()) io.join();
        {
            std::lock_guard lock(queueMutex);
            workersStop = true;
        }
        queueCv.notify_all();
        for (auto& w : workers) {
            // The last owner may let go inside a completion: that worker finishes on its own.
            if (w.get_id() == std::this_thread::get_id()) {
                w.detach();
            } else if (w.joinable()) {
                w.join();
            }
        }
    }

    void send(HttpRequest request, HttpCompletion completion) {
        auto t = std::make_unique<Transfer>();
        t->request = std::move(request);
        t->completion = std::move(completion);
        std::unique_ptr<Transfer> refused;
        {
            std::lock_guard lock(mutex);
            if (stopping) {
                refused = std::move(t);
            } else {
                incoming.push_back(std::move(t));
            }
        }
        if (refused) {
            // The client is going away: still complete exactly once, never on the caller's thread.
            std::thread([c = std::move(refused->completion)] {
                HttpResult r;
                r.error = makeError(platform::kTransportCancelled, "the HTTP client was shut down");
                c(std::move(r));
            }).detach();
            return;
        }
        curl_multi_wakeup(multi);
    }

    void deliver(Transfer& t, HttpResult result) {
        {
            std::lock_guard lock(queueMutex);
            completions.push_back([c = std::move(t.completion), r = std::move(result)]() mutable {
                c(std::move(r));
            });
        }
        queueCv.notify_one();
    }

    void workerLoop() {
        for (;;) {
            std::function<void()> task;
            {
                std::unique_lock lock(queueMutex);
                queueCv.wait(lock, [&] { return workersStop || !completions.empty(); });
                if (completions.empty()) return;  // stopping and drained
                task = std::move(completions.front());
                completions.pop_front();
            }
            task();
        }
    }

    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
        auto* t = static_cast<Transfer*>(user);
        std::size_t n = size * count;
        t->lastActivity = Clock::now();
        if (t->body.size() + n > t->maxBody) {
            t->bodyTooLarge = true;
            return 0;  // aborts the transfer with CURLE_WRITE_ERROR
        }
        t->body.append(data, n);
        return n;
    }

    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
        auto* t = static_cast<Transfer*>(user);
        std::size_t n = size * count;
        t->lastActivity = Clock::now();
        if (auto length = t->headers.addLine(std::string_view(data, n), t->maxBody)) {
            t->body.reserve(*length);
        }
        return n;
    }

    static int onProgress(void* user, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t ulnow) {
        auto* t = static_cast<Transfer*>(user);
        if (dlnow != t->lastDown || ulnow != t->lastUp) {
            t->lastDown = dlnow;
            t->lastUp = ulnow;
            t->lastActivity = Clock::now();
        }
        return 0;
    }

    // Returns an error text when the request cannot be set up.
    std::optional<std::string> configure(Transfer& t) {
        t.easy = curl_easy_init();
        if (!t.easy) return "curl_easy_init failed";
        t.maxBody = t.request.maxBodyBytes ? std::min(options.maxBodyBytes, t.request.maxBodyBytes)
                                           : options.maxBodyBytes;
        t.lastActivity = Clock::now();
        t.started = t.lastActivity;
        CURL* e = t.easy;
        curl_easy_setopt(e, CURLOPT_URL, t.request.url.c_str());
        curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
        curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
#if LIBCURL_VERSION_NUM >= 0x075500
        curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
#else
        curl_easy_setopt(e, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
        curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS,
                         static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
        curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(e, CURLOPT_MAXREDIRS, 10L);
        curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(e, CURLOPT_NOPROXY, noProxy.c_str());
        if (!options.reuseConnections) {
            curl_easy_setopt(e, CURLOPT_FRESH_CONNECT, 1L);
            curl_easy_setopt(e, CURLOPT_FORBID_REUSE, 1L);
        }
        curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Impl::onBody);
        curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
        curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &Impl::onHeader);
        curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
        curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &Impl::onProgress);
        curl_easy_setopt(e, CURLOPT_XFERINFODATA, &t);
        curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);

        const std::string& method = t.request.method;
        if (method == "GET") {
            curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
        } else if (method == "HEAD") {
            curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
        } else if (method == "POST") {
            curl_easy_setopt(e, CURLOPT_POST, 1L);
        } else {
            curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
        if (t.request.body) {
            curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(t.request.body->size()));
            curl_easy_setopt(e, CURLOPT_POSTFIELDS, t.request.body->data());
        } else if (method == "POST") {
            curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(0));
            curl_easy_setopt(e, CURLOPT_POSTFIELDS, "");
        }

        // No "Expect: 100-continue" round trip: bodies are small and servers vary in support.
        t.headerList = curl_slist_append(t.headerList, "Expect:");
        for (const auto& [name, value] : t.request.headers) {
            if (name.find_first_of("\r\n:") != std::string::npos ||
                value.find_first_of("\r\n") != std::string::npos) {
                return "header " + name + " contains a line break or colon";
            }
            // curl sends a header with an empty value only in the "Name;" form.
            std::string line = name;
            line += value.empty() ? ";" : ": ";
            line += value;
            t.headerList = curl_slist_append(t.headerList, line.c_str());
        }
        curl_easy_setopt(e, CURLOPT_HTTPHEADER, t.headerList);
        return std::nullopt;
    }

    void finish(Transfer& t, CURLcode code) {
        HttpResult result;
        if (code == CURLE_OK) {
            long status = 0;
            curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
            result.response = HttpResponse{status, std::move(t.headers.fields)};
            if (!t.body.empty() || t.headers.declaredLength) result.body = std::move(t.body);
        } else if (t.bodyTooLarge) {
            result.error = makeError(
                platform::kTransportBodyTooLarge,
                "the reply body exceeds the limit of " + std::to_string(t.maxBody) + " bytes");
        } else {
            std::string description = t.errorBuffer[0] ? t.errorBuffer : curl_easy_strerror(code);
            result.error = makeError(mapCurlCode(code), std::move(description));
        }
        deliver(t, std::move(result));
    }

    void ioLoop() {
        std::map<CURL*, std::unique_ptr<Transfer>> active;
        for (;;) {
            std::vector<std::unique_ptr<Transfer>> fresh;
            bool stop;
            {
                std::lock_guard lock(mutex);
                fresh.swap(incoming);
                stop = stopping;
            }
            for (auto& t : fresh) {
                if (stop) {
                    active.emplace(reinterpret_cast<CURL*>(t.get()), std::move(t));
                    continue;
                }
                if (auto problem = configure(*t)) {
                    HttpResult r;
                    r.error = makeError(platform::kTransportUnknown, *problem);
                    deliver(*t, std::move(r));
                    continue;
                }
                if (curl_multi_add_handle(multi, t->easy) != CURLM_OK) {
                    HttpResult r;
                    r.error =
                        makeError(platform::kTransportUnknown, "curl_multi_add_handle failed");
                    deliver(*t, std::move(r));
                    continue;
                }
                CURL* key = t->easy;
                active.emplace(key, std::move(t));
            }
            if (stop) break;

            int running = 0;
            curl_multi_perform(multi, &running);
            int left = 0;
            while (CURLMsg* msg = curl_multi_info_read(multi, &left)) {
                if (msg->msg != CURLMSG_DONE) continue;
                CURL* easy = msg->easy_handle;
                CURLcode code = msg->data.result;
                auto it = active.find(easy);
                curl_multi_remove_handle(multi, easy);
                if (it == active.end()) continue;
                finish(*it->second, code);
                active.erase(it);
            }

            // Idle time-outs, and how long the next wait may be.
            auto now = Clock::now();
            long waitMs = 1000;
            long curlMs = -1;
            curl_multi_timeout(multi, &curlMs);
            if (curlMs >= 0) waitMs = std::min(waitMs, curlMs);
            for (auto it = active.begin(); it != active.end();) {
                auto deadline = it->second->deadline();
                if (deadline && *deadline <= now) {
                    curl_multi_remove_handle(multi, it->first);
                    HttpResult r;
                    r.error = makeError(platform::kTransportTimedOut, "the request timed out");
                    deliver(*it->second, std::move(r));
                    it = active.erase(it);
                    continue;
                }
                if (deadline) {
                    auto ms = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now).count();
                    waitMs = std::min<long>(waitMs, static_cast<long>(ms));
                }
                ++it;
            }
            curl_multi_poll(multi, nullptr, 0, static_cast<int>(std::max(waitMs, 0L)), nullptr);
        }
        for (auto& [easy, t] : active) {
            if (t->easy) curl_multi_remove_handle(multi, t->easy);
            HttpResult r;
            r.error = makeError(platform::kTransportCancelled, "the HTTP client was shut down");
            deliver(*t, std::move(r));
        }
        active.clear();
    }
};

CurlHttpClient::CurlHttpClient() : CurlHttpClient(Options{}) {}

CurlHttpClient::CurlHttpClient(Options options) : impl_(std::make_shared<Impl>(options)) {
    impl_->start();
}

CurlHttpClient::~CurlHttpClient() {
    impl_->shutdown();
}

platform::AsyncRequest CurlHttpClient::send(platform::HttpRequest request,
                                            platform::HttpCompletion completion) {
    auto [handle, guarded] = platform::AsyncRequest::guard(std::move(completion));
    impl_->send(std::move(request), std::move(guarded));
    return std::move(handle);
}

}  // namespace kestrelvue::posix
