// Band archives from outside: any bytes must give a band or a refusal, never a crash or a read
// past the data.
#include <kestrelvue/Threshold.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "records/KeyedArchive.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto band = kestrelvue::Threshold::unarchive(bytes);
    if (band) {
        // What was read must write and read back to the same values.
        auto again = kestrelvue::Threshold::unarchive(band.value->archivedData());
        if (!again || again.value->IsPerKilometer != band.value->IsPerKilometer) __builtin_trap();
    }
    return 0;
}
