#pragma once
// Request bodies sent with `Content-Encoding: gzip`, inflated with a bound so that a small body
// cannot grow past what the service accepts.

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrelvue::service {

enum class Inflated { Whole, TooLarge, Damaged };

/// Inflates one or more gzip members into `out` (cleared first), stopping as soon as it would
/// hold more than `limit` bytes. Damaged: not gzip, a bad checksum, or a stream cut short.
Inflated gunzip(std::string_view compressed, std::size_t limit, std::string& out);

}  // namespace kestrelvue::service
