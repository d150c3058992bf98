#pragma once
// Splits a fuzzer's input into a few leading choice bytes and the rest as a reply body.

#include <kestrelvue/platform/HttpClient.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrelvue::fuzz {

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}
    /// The next choice byte, 0 when the input is used up.
    std::uint8_t choice() {
        if (rest_.empty()) return 0;
        const auto c = static_cast<std::uint8_t>(rest_.front());
        rest_.remove_prefix(1);
        return c;
    }
    std::string_view rest() const { return rest_; }

    /// A finished request as the HTTP client could hand it over: one choice byte picks the
    /// outcome (a status, no response, a transport error, no body), the rest is the body.
    platform::HttpResult result() {
        static constexpr long kStatuses[] = {200, 200, 200, 403, 404, 500, 204, 0};
        const std::uint8_t c = choice();
        platform::HttpResult r;
        r.body = std::string(rest_);
        switch (c % 11) {
            case 8:
                r.response.reset();
                break;
            case 9:
                r.error = TransportError{platform::kTransportErrorDomain,
                                         platform::kTransportTimedOut, "timed out"};
                r.body.reset();
                break;
            case 10:
                r.response = platform::HttpResponse{200, {}};
                r.body.reset();
                break;
            default:
                r.response = platform::HttpResponse{kStatuses[c % 11], {}};
        }
        return r;
    }

private:
    std::string_view rest_;
};

}  // namespace kestrelvue::fuzz
