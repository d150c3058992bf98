// The service's inflating of gzip request bodies: any bytes inflate whole within the bound, or
// are refused as too large or damaged; never a crash, never more than the bound held.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Gzip.h"

using namespace kestrelvue::service;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view body(reinterpret_cast<const char*>(data), size);
    // The service's bound is 16 MiB; a sixteenth of it runs the same logic many times faster.
    constexpr std::size_t kLimit = std::size_t{1} << 20;
    std::string out = "left over";
    switch (gunzip(body, kLimit, out)) {
        case Inflated::Whole:
            if (out.size() > kLimit) __builtin_trap();
            break;
        case Inflated::TooLarge:
        case Inflated::Damaged:
            if (!out.empty()) __builtin_trap();  // nothing half inflated is handed on
            break;
    }
    return 0;
}
