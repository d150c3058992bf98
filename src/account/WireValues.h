#pragma once
// How the account reads numbers from the service's JSON.

#include <kestrelvue/Value.h>

#include <cmath>
#include <cstdint>
#include <optional>

namespace kestrelvue::account {

/// An integer on the wire: a JSON integer, or a number with an exact integral value inside the
/// 64-bit range (57.0 reads as 57, 12.5 does not). Booleans are not integers.
inline std::optional<std::int64_t> integerOf(const Value& value) {
    if (auto i = value.asInt()) return i;
    if (value.isDouble()) {
        double d = *value.asNumber();
        // 2^63 itself is out of range; the lower bound -2^63 is exact.
        if (std::isfinite(d) && d == std::trunc(d) && d >= -9223372036854775808.0 &&
            d < 9223372036854775808.0) {
            return static_cast<std::int64_t>(d);
        }
    }
    return std::nullopt;
}

}  // namespace kestrelvue::account
