#pragma once
// The HTTP seam. The core never sees the transport; Linux uses libcurl (posix::CurlHttpClient).

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/AsyncRequest.h>
#include <kestrelvue/platform/TransportError.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrelvue::platform {

struct KESTRELVUE_EXPORT HttpRequest {
    /// Long enough for a plain 300 KB motion bulk over a slow mobile link.
    static constexpr std::chrono::milliseconds kDefaultDeadline{120'000};

    std::string method = "GET";
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<std::string> body;
    /// Idle time-out: the request fails when no byte moved either way for this long.
    std::chrono::milliseconds timeout{60'000};
    /// Total deadline from send(): a reply that keeps trickling still fails at this point, as a
    /// time-out does, so no server can hold a call for ever. 0 or less: none.
    std::chrono::milliseconds deadline{kDefaultDeadline};
    /// The largest reply body this request accepts; 0 leaves it to the client. A larger body
    /// fails with kTransportBodyTooLarge, so that a hostile reply is never held whole.
    std::size_t maxBodyBytes = 0;

    void setValue(std::string value, std::string field) {
        headers.emplace_back(std::move(field), std::move(value));
    }
};

struct KESTRELVUE_EXPORT HttpResponse {
    long statusCode = 0;
    std::vector<std::pair<std::string, std::string>> headers;
};

/// What a finished request hands back: any of the three may be absent, as with the platform's
/// data task (a transport failure has an error and usually no response).
/// The library's own client reports either an error alone, or a response with a body; the body is
/// absent only when the reply carried no body bytes and declared no length (a 204, or a reply
/// closed right after its headers). A reply with "Content-Length: 0" has an empty body.
struct KESTRELVUE_EXPORT HttpResult {
    std::optional<std::string> body;
    std::optional<HttpResponse> response;
    std::optional<TransportError> error;
};

using HttpCompletion = std::function<void(HttpResult)>;

/// Domain and codes of the transport errors the library's own clients report (the familiar
/// URL-loading codes, so a host's client on another platform can report the same ones).
inline constexpr const char* kTransportErrorDomain = "KestrelvueTransportError";
enum TransportErrorCode : std::int64_t {
    kTransportUnknown = -1,
    kTransportCancelled = -999,
    kTransportBadURL = -1000,
    kTransportTimedOut = -1001,
    kTransportUnsupportedURL = -1002,
    kTransportCannotFindHost = -1003,
    kTransportCannotConnectToHost = -1004,
    kTransportConnectionLost = -1005,
    kTransportBadServerResponse = -1011,
    kTransportBodyTooLarge = -1103,
    kTransportSecureConnectionFailed = -1200,
};

/// Threading contract: send() may be called from any thread and returns at once; the completion
/// runs at most once, later, on a worker thread of the client (never on the caller's thread and
/// never inside send()). Many requests may be in flight; their completions may run concurrently.
/// Lifetime: the returned handle owns the completion. Once it is destroyed or cancelled, the
/// completion does not run, and one running on another thread has returned (AsyncRequest::guard
/// gives implementations exactly this). A request whose reply must be handled whatever happens to
/// its sender is detached; its completion then runs exactly once.
class KESTRELVUE_EXPORT HttpClient {
public:
    virtual ~HttpClient() = default;
    virtual AsyncRequest send(HttpRequest request, HttpCompletion completion) = 0;
};

}  // namespace kestrelvue::platform
