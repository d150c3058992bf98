#pragma once
// The threshold reply the service ships (service/data/default-bands.json), built into the library
// so that an in-process service needs no data files.

#include <string_view>

namespace kestrelvue::service {
std::string_view shippedBands();
}
