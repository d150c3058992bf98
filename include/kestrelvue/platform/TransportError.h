#pragma once
// How the HTTP seam reports a transport failure; notifications carry it as a value too.

#include <kestrelvue/Export.h>

#include <cstdint>
#include <string>

namespace kestrelvue {

/// A transport failure reported by the HTTP client. Deliberately not a text: handlers that read
/// "error" as a text do not see it as one.
struct KESTRELVUE_EXPORT TransportError {
    std::string domain;
    std::int64_t code = 0;
    std::string description;
    bool operator==(const TransportError&) const = default;
};

}  // namespace kestrelvue
