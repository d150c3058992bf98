#pragma once
// The HTTP seam. The core never sees the transport; Linux uses libcurl (posix::CurlHttpClient).

#include <kestrelvue/Value.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrelvue::platform {

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<std::string> body;
    std::chrono::milliseconds timeout{60'000};

    void setValue(std::string value, std::string field) {
        headers.emplace_back(std::move(field), std::move(value));
    }
};

struct HttpResponse {
    long statusCode = 0;
    std::vector<std::pair<std::string, std::string>> headers;
};

/// What a finished request hands back: any of the three may be absent, as with the platform's
/// data task (a transport failure has an error and usually no response).
struct HttpResult {
    std::optional<std::string> body;
    std::optional<HttpResponse> response;
    std::optional<TransportError> error;
};

using HttpCompletion = std::function<void(HttpResult)>;

/// Threading contract: send() may be called from any thread and returns at once; the completion
/// runs exactly once, later, on a worker thread of the client (never on the caller's thread and
/// never inside send()). Many requests may be in flight; their completions may run concurrently.
class HttpClient {
public:
    virtual ~HttpClient() = default;
    virtual void send(HttpRequest request, HttpCompletion completion) = 0;
};

}  // namespace kestrelvue::platform
