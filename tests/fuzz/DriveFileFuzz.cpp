// The drive-file reader of the replay tool: any text is a drive or an error naming its line,
// never a crash; a drive it accepts is written back and read again to the same events and start.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "Drive.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    auto parsed = kestrelvue::tools::parseDrive(in);
    if (!parsed.value) {
        if (parsed.error.empty()) __builtin_trap();
        return 0;
    }
    std::stringstream text;
    kestrelvue::tools::writeDrive(text, *parsed.value);
    auto again = kestrelvue::tools::parseDrive(text);
    if (!again.value || again.value->events.size() != parsed.value->events.size() ||
        again.value->start != parsed.value->start)
        __builtin_trap();
    return 0;
}
