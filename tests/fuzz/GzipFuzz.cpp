// The gzip reader the library uses on stored upload bodies: any bytes inflate within the bound
// or are refused, never a crash and never more than the bound; what inflates deflates and
// inflates back to itself.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "net/Gzip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kLimit = std::size_t{1} << 20;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto plain = kestrelvue::detail::gunzip(bytes, kLimit);
    if (!plain) return 0;
    if (plain->size() > kLimit) __builtin_trap();
    auto packed = kestrelvue::detail::gzip(*plain);
    if (!packed || !kestrelvue::detail::isGzip(*packed)) __builtin_trap();
    if (kestrelvue::detail::gunzip(*packed, kLimit) != plain) __builtin_trap();
    return 0;
}
