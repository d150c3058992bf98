#pragma once
// The header lines of an HTTP reply as the transfer receives them, one at a time. Pure, so that
// any line a server can send is easy to try.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrelvue::posix::detail {

struct ReplyHeaders {
    std::vector<std::pair<std::string, std::string>> fields;  // trimmed, in arrival order
    bool declaredLength = false;  // a Content-Length or Transfer-Encoding was announced

    /// Takes one line as received (line ending included). A status line starts a new reply
    /// (after a redirect or an interim 1xx) and forgets the last one's fields. Returns the
    /// declared body length when the line declares one in digits within `maxBody`, so that the
    /// body can be reserved once.
    std::optional<std::size_t> addLine(std::string_view line, std::size_t maxBody);
};

}  // namespace kestrelvue::posix::detail
