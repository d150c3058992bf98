#include <kestrelvue/platform/Clock.h>

#include <random>

namespace kestrelvue::platform {

std::string RandomIdGenerator::makeUuid() {
    thread_local std::mt19937_64 rng{std::random_device{}()};
    std::uint64_t hi = rng(), lo = rng();
    hi = (hi & ~0xF000ull) | 0x4000ull;                         // version 4
    lo = (lo & 0x3FFFFFFFFFFFFFFFull) | 0x8000000000000000ull;  // RFC 4122 variant
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    auto put = [&](std::uint64_t v, int nibbles) {
        for (int i = nibbles - 1; i >= 0; --i) out.push_back(hex[(v >> (i * 4)) & 15]);
    };
    put(hi >> 32, 8);
    out.push_back('-');
    put(hi >> 16, 4);
    out.push_back('-');
    put(hi, 4);
    out.push_back('-');
    put(lo >> 48, 4);
    out.push_back('-');
    put(lo, 12);
    return out;
}

}  // namespace kestrelvue::platform
