#pragma once

namespace kestrelvue {

/// Kinds of driving event.
enum class FaultTypes { none, sharpCornering, sharpSpeeding, sharpBraking, sharpElevating, sharpLaneChanging, fuelInefficiency };

struct FaultItem {};

}  // namespace kestrelvue
