#pragma once
// The reverse-geocoding seam.

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/AsyncRequest.h>
#include <kestrelvue/platform/Location.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvue::platform {

/// What the engine reads of a placemark: its formatted address lines, in order.
struct KESTRELVUE_EXPORT Placemark {
    std::vector<std::string> formattedAddressLines;
};

struct KESTRELVUE_EXPORT GeocodeError {
    std::int64_t code = 0;
    std::string description;
};

/// Either argument may be absent (an answer without placemarks and without an error is possible).
using GeocodeCompletion =
    std::function<void(const std::optional<std::vector<Placemark>>& placemarks,
                       const std::optional<GeocodeError>& error)>;

/// Threading contract: reverseGeocodeLocation() may be called from the host's thread and returns
/// at once; the completion runs at most once, later, on the host's main queue (never inside the
/// call). Lookups are independent of each other.
/// Lifetime: once the returned handle is destroyed or cancelled, the completion does not run (and
/// one already running on another thread has returned); a detached lookup completes exactly once.
class KESTRELVUE_EXPORT Geocoder {
public:
    virtual ~Geocoder() = default;
    virtual AsyncRequest reverseGeocodeLocation(const Location& location,
                                                GeocodeCompletion completion) = 0;
};

}  // namespace kestrelvue::platform
