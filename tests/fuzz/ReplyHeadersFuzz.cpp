// The HTTP client's reading of reply header lines: any bytes a server sends as headers (split
// into lines as the transfer would hand them over) are kept or ignored, never a crash, and a
// length is only ever proposed within the body limit.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/posix/ReplyHeaders.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    constexpr std::size_t kMaxBody = 1 << 20;
    kestrelvue::posix::detail::ReplyHeaders headers;
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        const std::size_t n = end == std::string_view::npos ? rest.size() : end + 1;
        const std::size_t before = headers.fields.size();
        auto length = headers.addLine(rest.substr(0, n), kMaxBody);
        if (length && (*length > kMaxBody || !headers.declaredLength)) __builtin_trap();
        if (headers.fields.size() > before + 1) __builtin_trap();
        rest.remove_prefix(n);
    }
    return 0;
}
