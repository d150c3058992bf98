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

/// ".000" to ".999", four bytes each: three decimals in one copy.
struct PointAndThreeDigits {
    char text[4000];
    constexpr PointAndThreeDigits() : text() {
        for (std::size_t i = 0; i < 1000; ++i) {
            text[4 * i] = '.';
            text[4 * i + 1] = static_cast<char>('0' + i / 100);
            text[4 * i + 2] = static_cast<char>('0' + i / 10 % 10);
            text[4 * i + 3] = static_cast<char>('0' + i % 10);
        }
    }
};
inline constexpr PointAndThreeDigits kPointAndThreeDigits;

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

/// memcpy for up to 32 bytes without a library call (two overlapping fixed-size copies).
inline void copySmall(char* dst, const char* src, std::size_t n) {
    if (n >= 16) {
        std::memcpy(dst, src, 16);
        std::memcpy(dst + n - 16, src + n - 16, 16);
    } else if (n >= 8) {
        std::memcpy(dst, src, 8);
        std::memcpy(dst + n - 8, src + n - 8, 8);
    } else if (n >= 4) {
        std::memcpy(dst, src, 4);
        std::memcpy(dst + n - 4, src + n - 4, 4);
    } else {
        for (std::size_t i = 0; i < n; ++i) dst[i] = src[i];
    }
}

/// Copies `len` bytes of `body` to `out`, after `sign` (0 for none), right-aligned in `width`.
inline char* padRight(char* out, char sign, const char* body, int len, int width) {
    const int total = len + (sign != 0 ? 1 : 0);
    for (int i = total; i < width; ++i) *out++ = ' ';
    if (sign != 0) *out++ = sign;
    std::memcpy(out, body, static_cast<std::size_t>(len));
    return out + len;
}

/// Values from 1e12 up: to_chars is exact and locale-free, like the C locale's printf. Out of
/// line, so that its buffer does not give every inlined field a frame of its own.
[[gnu::noinline]] inline char* formatLargeFixed(char* out, char sign, double a, int precision,
                                                int width) {
    char buf[kMaxFixedLength];
    const auto r = std::to_chars(buf, buf + sizeof buf, a, std::chars_format::fixed, precision);
    return padRight(out, sign, buf, static_cast<int>(r.ptr - buf), width);
}

/// The digits of q / 10^precision (whole part `whole`) and `sign` (0 for none), ending at `end`,
/// written in place right to left: a scratch copy would stall on store forwarding.
template <int precision>
[[gnu::always_inline]] inline char* writeFixedDigits(char* end, std::uint64_t q,
                                                     std::uint64_t whole, char sign) {
    char* p = end;
    if constexpr (precision == 3) {
        std::memcpy(end - 4, kPointAndThreeDigits.text + 4 * (q % 1000), 4);
        p = end - 4;
    } else if constexpr (precision == 6) {
        // The lower three first: the upper copy's last digit lands on the lower copy's point.
        const std::uint64_t frac = q % 1000000;
        std::memcpy(end - 4, kPointAndThreeDigits.text + 4 * (frac % 1000), 4);
        std::memcpy(end - 7, kPointAndThreeDigits.text + 4 * (frac / 1000), 4);
        p = end - 7;
    } else if constexpr (precision > 0) {
        std::uint64_t frac = q % kPow10[precision];
        int left = precision;
        for (; left >= 2; left -= 2) {
            p -= 2;
            std::memcpy(p, kDigitPairs + 2 * (frac % 100), 2);
            frac /= 100;
        }
        if (left != 0) *--p = static_cast<char>('0' + frac);
        *--p = '.';
    }
    p = writeDigitsBackwards(p, whole);
    if (sign != 0) p[-1] = sign;
    return end;
}

/// round(a * 10^precision) for a finite, non-negative a below 1e12 given by its bits, to nearest
/// with exact ties to even, as glibc rounds: the exact way, for every such a.
///
/// a = m * 2^-s, so a * 10^p = N * 2^-s with N = m * 10^p an exact integer. The rounding step is
/// arithmetic, not a branch: its direction is a coin toss for measured values, and a mispredicted
/// jump per field cost more than the rest of the field. Out of line: only a product that is a
/// half-integer as a double, or one beyond 2^51, comes here (scaledRounded).
template <int precision>
[[gnu::noinline, gnu::cold]] inline std::uint64_t exactScaledRounded(std::uint64_t bits) {
    const int biased = static_cast<int>(bits >> 52);
    std::uint64_t m = bits & ((1ull << 52) - 1);
    int s;  // a = m * 2^-s; s >= 13 below 1e12
    if (biased == 0) {
        s = 1074;
    } else {
        m |= 1ull << 52;
        s = 1075 - biased;
    }
    if constexpr (precision <= 3) {
        // m * 10^p < 2^63 fits 64 bits; from s = 64 on, a < 2^-11 rounds to zero.
        if (s >= 64) return 0;
        const std::uint64_t n = m * kPow10[precision];
        const std::uint64_t q = n >> s;
        const std::uint64_t rem = n & ((1ull << s) - 1);
        const std::uint64_t half = 1ull << (s - 1);
        return q + (rem + (q & 1) > half ? 1 : 0);
    } else {
        __extension__ using u128 = unsigned __int128;
        const u128 n = static_cast<u128>(m) * kPow10[precision];
        if (s >= 75) return 0;  // n < 2^73 <= half of 2^s: rounds to zero
        const auto q = static_cast<std::uint64_t>(n >> s);
        const u128 rem = n - (static_cast<u128>(q) << s);
        const u128 half = static_cast<u128>(1) << (s - 1);
        return q + (rem + (q & 1) > half ? 1 : 0);
    }
}

/// round(y) to nearest, ties to even, for 0 <= y < 2^51, into `q`; false when y is a
/// half-integer.
///
/// Where y = a * 10^p was rounded once from the exact product, q is that product's rounding too,
/// unless false: a half-integer k + 1/2 is a double, so a product on one side of it cannot round
/// to the other side, only onto it. Adding 2^52 rounds y to an integer in its low bits.
[[gnu::always_inline]] inline bool roundUnlessHalf(double y, std::uint64_t& q) {
    const double shifted = y + 0x1p52;
    q = std::bit_cast<std::uint64_t>(shifted) & ((1ull << 52) - 1);
    return std::fabs(y - (shifted - 0x1p52)) < 0.5;
}

/// exactScaledRounded of a finite, non-negative a below 1e12, mostly in a few double operations
/// (the rare half-integer product takes the exact way).
template <int precision>
[[gnu::always_inline]] inline std::uint64_t scaledRounded(double a) {
    const double y = a * static_cast<double>(kPow10[precision]);
    std::uint64_t q;
    if (y < 0x1p51 && roundUnlessHalf(y, q)) [[likely]]
        return q;
    return exactScaledRounded<precision>(std::bit_cast<std::uint64_t>(a));
}

/// printf("%*.*f") of v, or "% *.*f" when `spaceSign`. Precision 0..6, width 0..16. `out` needs
/// room for kMaxFixedLength bytes (blanks may be written past the returned end). Returns the end
/// of the text.
///
/// The precision and the sign rule are template arguments, not run-time values, so that each
/// format gets a copy of its own at -O2 too: g++ clones a function for constant arguments only
/// at -O3, and the generic copy (both rounding paths, the scale from a table) made a bulk's text
/// 1.75× slower at -O2.
///
/// Inlined into every caller, at -O2 as at -O3: with the width a constant, the blanks and the
/// end fold away, and a record's fields overlap in the processor instead of waiting on a call.
template <int precision, bool spaceSign>
[[gnu::always_inline]] inline char* formatFixed(char* out, double v, int width) {
    static_assert(precision >= 0 && precision <= 6);
    const char sign = std::signbit(v) ? '-' : (spaceSign ? ' ' : 0);
    if (!std::isfinite(v)) [[unlikely]]
        return padRight(out, sign, std::isnan(v) ? "nan" : "inf", 3, width);
    const double a = std::fabs(v);
    if (a < 1e12) {
        const std::uint64_t q = scaledRounded<precision>(a);
        constexpr std::uint64_t scale = kPow10[precision];
        const std::uint64_t whole = q / scale;
        constexpr int fraction = precision > 0 ? precision + 1 : 0;
        // A measured value fits its width, so the text ends at out + width, known before any
        // digit is: the next field can start while this one's digits are still being worked
        // out. A flag or a select here would chain every field of a record to the one before.
        const int room = width - fraction - (sign != 0 ? 1 : 0);  // whole digits that fit
        if (room < 1 || (room <= 12 && whole >= kPow10[room])) [[unlikely]] {
            int digits = 1;
            while (digits <= 12 && whole >= kPow10[digits]) ++digits;
            const int length = (sign != 0 ? 1 : 0) + digits + fraction;
            if (length > width) return writeFixedDigits<precision>(out + length, q, whole, sign);
        }
        std::memset(out, ' ', 16);  // width <= 16: blanks, digits overwrite
        writeFixedDigits<precision>(out + width, q, whole, sign);
        return out + width;
    }
    return formatLargeFixed(out, sign, a, precision, width);
}

/// "  d.ddd," for 0.000 to 9.999, eight bytes each: a whole "%7.3f," field of a value below ten,
/// the sign's place (byte 1) blank.
struct SmallQuantityFields {
    char text[10000][8];
    constexpr SmallQuantityFields() : text() {
        for (std::size_t q = 0; q < 10000; ++q) {
            const char field[8] = {' ',
                                   ' ',
                                   static_cast<char>('0' + q / 1000),
                                   '.',
                                   static_cast<char>('0' + q / 100 % 10),
                                   static_cast<char>('0' + q / 10 % 10),
                                   static_cast<char>('0' + q % 10),
                                   ','};
            for (std::size_t i = 0; i < 8; ++i) text[q][i] = field[i];
        }
    }
};
inline constexpr SmallQuantityFields kSmallQuantityFields;

/// printf("%7.3f,"), the comma included: a motion quantity, an angle or a penalty. Nearly every
/// such value is below ten, and its field is then one copy from a table with the sign put in:
/// no digit is worked out, and the rounding is formatFixed's own.
[[gnu::always_inline]] inline char* formatQuantityField(char* out, double v) {
    const double y = std::fabs(v) * 1000.0;
    std::uint64_t q;
    if (y < 9999.5 && roundUnlessHalf(y, q)) [[likely]] {  // false for NaN
        std::memcpy(out, kSmallQuantityFields.text[q], 8);
        out[1] = std::signbit(v) ? '-' : ' ';
        return out + 8;
    }
    out = formatFixed<3, false>(out, v, 7);
    *out = ',';
    return out + 1;
}

/// printf("%10.6f,"), the comma included: a coordinate or a speed to the micro-unit.
[[gnu::always_inline]] inline char* formatPreciseField(char* out, double v) {
    out = formatFixed<6, false>(out, v, 10);
    *out = ',';
    return out + 1;
}

/// "  0" to "999", right-aligned in four bytes.
struct RightAlignedWholes {
    char text[1000][4];
    constexpr RightAlignedWholes() : text() {
        for (std::size_t q = 0; q < 1000; ++q) {
            text[q][0] = ' ';
            text[q][1] = q >= 100 ? static_cast<char>('0' + q / 100) : ' ';
            text[q][2] = q >= 10 ? static_cast<char>('0' + q / 10 % 10) : ' ';
            text[q][3] = static_cast<char>('0' + q % 10);
        }
    }
};
inline constexpr RightAlignedWholes kRightAlignedWholes;

/// printf("% *.0f,") for a width of 4 to 8, the comma included: a speed or an accuracy. Below a
/// thousand, the digits come from a table and the sign (a blank or "-") goes just before them.
template <int width>
[[gnu::always_inline]] inline char* formatWholeField(char* out, double v) {
    static_assert(width >= 4 && width <= 8);
    std::uint64_t q;
    if (std::fabs(v) < 999.5 && roundUnlessHalf(std::fabs(v), q)) [[likely]] {  // false for NaN
        std::memset(out, ' ', 8);
        std::memcpy(out + width - 4, kRightAlignedWholes.text[q], 4);
        const int digits = 1 + (q >= 10 ? 1 : 0) + (q >= 100 ? 1 : 0);
        out[width - 1 - digits] = std::signbit(v) ? '-' : ' ';
        out[width] = ',';
        return out + width + 1;
    }
    out = formatFixed<0, true>(out, v, width);
    *out = ',';
    return out + 1;
}

/// printf("%*lld") of v. `out` needs room for 24 bytes and the width (blanks may be written past
/// the returned end).
inline char* formatInteger(char* out, std::int64_t v, int width) {
    // A counter that fits its width: blanks, then the digits up to the end, no length worked out.
    if (v >= 0 && width <= 12 && static_cast<std::uint64_t>(v) < kPow10[width]) [[likely]] {
        std::memset(out, ' ', 16);
        writeDigitsBackwards(out + width, static_cast<std::uint64_t>(v));
        return out + width;
    }
    char buf[24];
    char* const end = buf + sizeof buf;
    const std::uint64_t magnitude =
        v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
    const char* p = writeDigitsBackwards(end, magnitude);
    return padRight(out, v < 0 ? '-' : 0, p, static_cast<int>(end - p), width);
}

/// Longest text formatTimestamp() writes.
inline constexpr int kMaxTimestampLength = 32;

/// "yyyy-MM-dd HH:mm:ss:SSS" of t in the process's local time zone (milliseconds truncated).
/// The C library converts each 15-minute block of UTC once (at both ends); within a block whose
/// ends share an offset, local time is UTC plus that offset. Texts of recent seconds are cached
/// per thread, keyed by the UTC second, so a cached text never carries a stale offset across a
/// DST change.
char* formatTimestamp(char* out, platform::TimePoint t);

/// Forgets this thread's cached seconds (after the process changes its time zone).
void clearTimestampCache();

/// How many times this thread has asked the C library for a local time.
std::uint64_t timestampConversions();

}  // namespace kestrelvue::detail
