#pragma once
// Locale-free number and time formatting for the motion text. Every function writes the same
// bytes glibc's printf writes in the C locale with round-to-nearest, whatever the process's
// LC_NUMERIC says, and allocates nothing.

#include <kestrelvue/platform/Clock.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace kestrelvue::detail {

/// Room one formatted double can need: sign, 309 integer digits, point, 6 decimals, slack.
inline constexpr int kMaxFixedLength = 330;

inline constexpr std::uint64_t kPow10[] = {
    1ull,           10ull,           100ull,          1000ull,      10000ull,
    100000ull,      1000000ull,      10000000ull,     100000000ull, 1000000000ull,
    10000000000ull, 100000000000ull, 1000000000000ull};

inline constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

/// Writes the decimal digits of v right to left, ending just before `end`; returns the start.
inline char* writeDigitsBackwards(char* end, std::uint64_t v) {
    while (v >= 100) {
        const std::uint64_t r = v % 100;
        v /= 100;
        end -= 2;
        std::memcpy(end, kDigitPairs + 2 * r, 2);
    }
    if (v >= 10) {
        end -= 2;
        std::memcpy(end, kDigitPairs + 2 * v, 2);
    } else {
        *--end = static_cast<char>('0' + v);
    }
    return end;
}

/// Copies `len` bytes of `body` to `out`, after `sign` (0 for none), right-aligned in `width`.
inline char* padRight(char* out, char sign, const char* body, int len, int width) {
    const int total = len + (sign != 0 ? 1 : 0);
    for (int i = total; i < width; ++i) *out++ = ' ';
    if (sign != 0) *out++ = sign;
    std::memcpy(out, body, static_cast<std::size_t>(len));
    return out + len;
}

/// printf("%*.*f") of v, or "% *.*f" when `spaceSign`. Precision 0..6. Writes at most
/// max(width, kMaxFixedLength) bytes. Returns the end of the text.
inline char* formatFixed(char* out, double v, int width, int precision, bool spaceSign) {
    const char sign = std::signbit(v) ? '-' : (spaceSign ? ' ' : 0);
    if (!std::isfinite(v)) return padRight(out, sign, std::isnan(v) ? "nan" : "inf", 3, width);
    const double a = std::fabs(v);
    if (a < 1e12) {
        // Exact path: a = m * 2^-s, so a * 10^p = N * 2^-s with N = m * 10^p an exact integer;
        // round N / 2^s to nearest, exact ties to even, which is what glibc does.
        const std::uint64_t bits = std::bit_cast<std::uint64_t>(a);
        const int biased = static_cast<int>(bits >> 52);
        std::uint64_t m = bits & ((1ull << 52) - 1);
        int s;
        if (biased == 0) {
            s = 1074;
        } else {
            m |= 1ull << 52;
            s = 1075 - biased;
        }
        __extension__ using u128 = unsigned __int128;
        const u128 n = static_cast<u128>(m) * kPow10[precision];
        std::uint64_t q;
        if (s <= 0) {
            q = static_cast<std::uint64_t>(n << -s);  // unreachable below 1e12, kept for safety
        } else if (s >= 75) {
            q = 0;  // n < 2^73 <= half of 2^s: rounds to zero
        } else {
            q = static_cast<std::uint64_t>(n >> s);
            const u128 rem = n - (static_cast<u128>(q) << s);
            const u128 half = static_cast<u128>(1) << (s - 1);
            if (rem > half || (rem == half && (q & 1) != 0)) ++q;
        }
        char buf[32];
        char* const end = buf + sizeof buf;
        char* p;
        if (precision == 0) {
            p = writeDigitsBackwards(end, q);
        } else {
            const std::uint64_t scale = kPow10[precision];
            std::uint64_t frac = q % scale;
            p = end;
            for (int i = 0; i < precision; ++i) {
                *--p = static_cast<char>('0' + frac % 10);
                frac /= 10;
            }
            *--p = '.';
            p = writeDigitsBackwards(p, q / scale);
        }
        return padRight(out, sign, p, static_cast<int>(end - p), width);
    }
    // Large values: to_chars is exact and locale-free, like the C locale's printf.
    char buf[kMaxFixedLength];
    const auto r = std::to_chars(buf, buf + sizeof buf, a, std::chars_format::fixed, precision);
    return padRight(out, sign, buf, static_cast<int>(r.ptr - buf), width);
}

/// printf("%*lld") of v.
inline char* formatInteger(char* out, std::int64_t v, int width) {
    char buf[24];
    char* const end = buf + sizeof buf;
    const std::uint64_t magnitude =
        v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
    const char* p = writeDigitsBackwards(end, magnitude);
    return padRight(out, v < 0 ? '-' : 0, p, static_cast<int>(end - p), width);
}

/// Longest text formatTimestamp() writes.
inline constexpr int kMaxTimestampLength = 40;

/// "yyyy-MM-dd HH:mm:ss:SSS" of t in the process's local time zone (milliseconds truncated).
/// The calendar part is converted once per distinct second and cached per thread, keyed by the
/// UTC second, so a cached text can never carry a stale offset across a DST change.
char* formatTimestamp(char* out, platform::TimePoint t);

/// Forgets this thread's cached seconds (after the process changes its time zone).
void clearTimestampCache();

}  // namespace kestrelvue::detail
