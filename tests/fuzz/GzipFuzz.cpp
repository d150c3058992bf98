// The gzip reader the library uses on stored upload bodies and the service on request bodies:
// any bytes inflate within the bound or are refused with nothing half inflated, never a crash and
// never more than the bound; what inflates deflates and inflates back to itself.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "net/Gzip.h"

using namespace kestrelvue::detail;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kLimit = std::size_t{1} << 20;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::string plain = "left over";
    if (gunzip(bytes, kLimit, plain) != Inflated::Whole) {
        if (!plain.empty()) __builtin_trap();
        return 0;
    }
    if (plain.size() > kLimit) __builtin_trap();
    auto packed = gzip(plain);
    if (!packed || !isGzip(*packed)) __builtin_trap();
    if (gunzip(*packed, kLimit) != plain) __builtin_trap();
    return 0;
}
