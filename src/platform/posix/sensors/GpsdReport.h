#pragma once
// gpsd's reports as fixes: shared by the live manager, the capture import and the benchmark.

#include <kestrelvue/platform/Location.h>

#include <optional>
#include <string_view>

struct gps_data_t;

namespace kestrelvue::posix {

/// The accuracy given to a report without a position: the engine's own placeholder's, which its
/// accuracy filter refuses.
inline constexpr double kNoPositionAccuracy = 1000.0;

/// gpsd's horizontal error estimates are 95 % figures; the phone platforms give the radius of
/// 68 % confidence. For a circular normal error the 95 % radius is 2.4477 sigma and the 68 % one
/// 1.5096 sigma.
inline constexpr double kGpsd95To68 = 1.5096 / 2.4477;

/// The fix in the TPV report gpsd unpacked into `data` (its `fix` member). A report without a
/// position (mode below 2D, or no latitude) gives latitude 0.0 and kNoPositionAccuracy. A report
/// without a time (gpsd's first, before the receiver has said one) gives nullopt: a fix that
/// cannot be placed in time cannot be measured against the others.
std::optional<platform::Location> fixFromTpv(const gps_data_t& data);

/// One line of gpsd's JSON (what `gpspipe -w` writes): the fix when it is a TPV report, nullopt
/// for every other class and for lines libgps cannot read.
std::optional<platform::Location> fixFromJsonLine(std::string_view line);

}  // namespace kestrelvue::posix
