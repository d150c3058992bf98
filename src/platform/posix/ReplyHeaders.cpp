#include "platform/posix/ReplyHeaders.h"

#include <algorithm>
#include <cctype>

namespace kestrelvue::posix::detail {
namespace {

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() &&
           (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
        s.remove_suffix(1);
    return s;
}

}  // namespace

std::optional<std::size_t> ReplyHeaders::addLine(std::string_view line, std::size_t maxBody) {
    if (line.starts_with("HTTP/")) {
        fields.clear();
        declaredLength = false;
        return std::nullopt;
    }
    auto colon = line.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string_view name = trim(line.substr(0, colon));
    std::string_view value = trim(line.substr(colon + 1));
    std::optional<std::size_t> length;
    if (equalsIgnoreCase(name, "Content-Length")) {
        declaredLength = true;
        std::size_t n = 0;
        bool digits = !value.empty();
        for (char c : value) {
            if (c < '0' || c > '9' || n > maxBody) {
                digits = false;
                break;
            }
            n = n * 10 + static_cast<std::size_t>(c - '0');
        }
        if (digits && n <= maxBody) length = n;
    } else if (equalsIgnoreCase(name, "Transfer-Encoding")) {
        declaredLength = true;
    }
    fields.emplace_back(std::string(name), std::string(value));
    return length;
}

}  // namespace kestrelvue::posix::detail
