// The importers of NMEA logs, GPX tracks and gpsd captures: any text is a drive or an error
// naming its file and line, never a crash; a drive they make is one the drive reader accepts.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "Import.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    using namespace kestrelvue::tools;
    std::istringstream in(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    const ImportResult result = data[0] % 3 == 0   ? importNmea(in, "f")
                                : data[0] % 3 == 1 ? importGpx(in, "f")
                                                   : importGpsd(in, "f");
    if (!result.drive) {
        if (result.error.rfind("f", 0) != 0) __builtin_trap();
        return 0;
    }
    std::stringstream text;
    writeDrive(text, *result.drive);
    if (!parseDrive(text).value) __builtin_trap();
    return 0;
}
