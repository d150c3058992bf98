#pragma once

#include <memory>
#include <vector>

namespace kestrelvue {

/// One penalty band: [LimitStart, LimitEnd) costs Impact points, per event or per kilometre.
class Threshold {
public:
    Threshold(double limitStart, double limitEnd, double impact, bool isPerKilometer)
        : LimitStart(limitStart), LimitEnd(limitEnd), Impact(impact), IsPerKilometer(isPerKilometer) {}

    double LimitStart;
    double LimitEnd;
    double Impact;
    bool IsPerKilometer;
};

/// Bands are shared by reference and never edited after they are made.
using ThresholdList = std::vector<std::shared_ptr<const Threshold>>;

}  // namespace kestrelvue
