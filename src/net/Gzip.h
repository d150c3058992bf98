#pragma once
// gzip bodies for uploads: a host that opts in sends its motion bulks deflated, with
// "Content-Encoding: gzip", as HTTP has it for requests.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kestrelvue::detail {

/// A JSON body starts with '{' or '[', never with gzip's magic bytes, so a stored body says
/// itself how it was written.
inline bool isGzip(std::string_view body) {
    return body.size() >= 2 && body[0] == '\x1f' && body[1] == '\x8b';
}

/// The gzip member of `plain`; nullopt only when zlib cannot allocate.
std::optional<std::string> gzip(std::string_view plain);

enum class Inflated { Whole, TooLarge, Damaged };

/// Inflates `compressed` into `out`, members that follow one another read in turn as gzip files
/// allow. TooLarge past `limit` bytes (the inflation stops there, so a small bomb never grows in
/// memory); Damaged when it is no whole gzip stream. `out` is empty unless Whole.
Inflated gunzip(std::string_view compressed, std::size_t limit, std::string& out);

/// What `compressed` inflates to; nullopt when it is too large or damaged.
inline std::optional<std::string> gunzip(std::string_view compressed, std::size_t limit) {
    std::string out;
    if (gunzip(compressed, limit, out) != Inflated::Whole) return std::nullopt;
    return out;
}

}  // namespace kestrelvue::detail
