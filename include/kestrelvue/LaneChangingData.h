#pragma once

#include <kestrelvue/Export.h>

#include <cstdint>
#include <vector>

namespace kestrelvue {

/// The lane-change detector's state: the yaw rates of the manoeuvre under way. It belongs to the
/// engine and outlives trips, so a manoeuvre running at the end of one trip goes on in the next.
struct KESTRELVUE_EXPORT LaneChangingData {
    std::vector<double> rotZItems;
    std::vector<double> courseItems;  // emptied at every reset; nothing fills it
    std::int64_t index = 0;           // samples in rotZItems; 0 means idle
    /// 1-based position in rotZItems of the swing back's first sample; 0 during the first swing.
    std::int64_t indexWhenSignChanged = 0;
    double durationLaneChangingCompleted = 0.0;  // kept for the record's shape; unused
    double maxRotZ = 0.0;                        // never below 0
    double minRotZ = 0.0;                        // never above 0
    char direction = ' ';                        // "L" or "R" once a manoeuvre has started

    /// Back to idle. The lists keep their capacity, so a running engine allocates nothing here.
    void reset() {
        rotZItems.clear();
        courseItems.clear();
        index = 0;
        direction = ' ';
        indexWhenSignChanged = 0;
        maxRotZ = 0.0;
        minRotZ = 0.0;
    }
};

}  // namespace kestrelvue
