#pragma once

#include <kestrelvue/Export.h>

#include <cstdint>

namespace kestrelvue {

/// Kinds of driving event a detector can find; `none` when it found nothing.
enum class FaultTypes : std::uint8_t {
    sharpCorneringRight,
    sharpCorneringLeft,
    sharpElevatingUp,
    sharpElevatingDown,
    sharpSpeeding,
    sharpBraking,
    sharpLaneChangingRight,
    sharpLaneChangingLeft,
    none,
};

/// The direction character a finding is recorded with: "R", "L", "U", "D", "S", "B", or a blank.
constexpr char directionCharacter(FaultTypes finding) {
    switch (finding) {
        case FaultTypes::sharpCorneringRight:
        case FaultTypes::sharpLaneChangingRight:
            return 'R';
        case FaultTypes::sharpCorneringLeft:
        case FaultTypes::sharpLaneChangingLeft:
            return 'L';
        case FaultTypes::sharpElevatingUp:
            return 'U';
        case FaultTypes::sharpElevatingDown:
            return 'D';
        case FaultTypes::sharpSpeeding:
            return 'S';
        case FaultTypes::sharpBraking:
            return 'B';
        case FaultTypes::none:
            break;
    }
    return ' ';
}

/// What one motion sample was charged: four direction characters (a blank where nothing was
/// found) and the eleven penalties. Braking shares the speeding character ("B").
struct KESTRELVUE_EXPORT FaultItem {
    char sharpCornering = ' ';
    double sharpCorneringPenalty = 0.0;
    char sharpSpeeding = ' ';
    double sharpSpeedingPenalty = 0.0;
    double sharpBrakingPenalty = 0.0;
    char sharpElevating = ' ';
    double sharpElevatingPenalty = 0.0;
    char sharpLaneChanging = ' ';
    double sharpLaneChangingPenalty = 0.0;
    double sharpCorneringPenaltyPerKM = 0.0;
    double sharpSpeedingPenaltyPerKM = 0.0;
    double sharpBrakingPenaltyPerKM = 0.0;
    double sharpElevatingPenaltyPerKM = 0.0;
    double sharpLaneChangingPenaltyPerKM = 0.0;
    double fuelEfficiencyPenaltyPerKM = 0.0;

    bool operator==(const FaultItem&) const = default;
};

}  // namespace kestrelvue
