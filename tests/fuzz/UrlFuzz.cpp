// The URL parser: any text is accepted or refused, never a crash; what it accepts is an http or
// https address with a host, a path that starts with "/", and a port in range, and the text
// parses again to the same parts.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "net/Url.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    auto url = kestrelvue::parseUrl(text);
    if (!url) return 0;
    if (url->scheme != "http" && url->scheme != "https") __builtin_trap();
    if (url->host.empty()) __builtin_trap();
    if (url->pathAndQuery.empty() || url->pathAndQuery.front() != '/') __builtin_trap();
    if (url->port && (*url->port < 0 || *url->port > 65535)) __builtin_trap();
    if (url->text != text) __builtin_trap();
    auto again = kestrelvue::parseUrl(url->text);
    if (!again || again->host != url->host || again->port != url->port ||
        again->pathAndQuery != url->pathAndQuery) {
        __builtin_trap();
    }
    return 0;
}
