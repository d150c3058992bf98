#pragma once

#include <kestrelvue/Export.h>
#include <kestrelvue/Result.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kestrelvue {

class KeyedArchiver;
class KeyedUnarchiver;
class Threshold;

/// A band read from an archive, or why the archive was refused.
using ThresholdUnarchiveResult = Result<Threshold>;

/// One penalty band: [LimitStart, LimitEnd) costs Impact points, per event or per kilometre.
class KESTRELVUE_EXPORT Threshold {
public:
    Threshold(double limitStart, double limitEnd, double impact, bool isPerKilometer)
        : LimitStart(limitStart),
          LimitEnd(limitEnd),
          Impact(impact),
          IsPerKilometer(isPerKilometer) {}

    double LimitStart;
    double LimitEnd;
    double Impact;
    bool IsPerKilometer;

    /// The class name under which keyed archives record a band (phone applications use it).
    static constexpr std::string_view archiveClassName =
        "_TtCC10Kestrelvue14DrivingInsight9Threshold";

    /// Writes "LimitStart", "LimitEnd", "Impact" (doubles) and "IsPerKilometer" (boolean).
    void encode(KeyedArchiver& coder) const;
    /// Reads the four keys; a missing key reads as 0.0 or false.
    explicit Threshold(const KeyedUnarchiver& coder);

    /// This band's whole archive.
    std::string archivedData() const;

    using UnarchiveResult = ThresholdUnarchiveResult;
    /// A band from an archive. Refused (with a message) when the container is damaged, the root
    /// object is of another class, or one of the four keys holds a value of another kind.
    static UnarchiveResult unarchive(std::string_view data);
};

/// Bands are shared by reference and never edited after they are made.
using ThresholdList = std::vector<std::shared_ptr<const Threshold>>;

struct KESTRELVUE_EXPORT ThresholdImpact {
    double impact = 0.0;
    bool isPerKilometer = false;
    bool operator==(const ThresholdImpact&) const = default;
};

/// The band holding `value`, walking the list in its order: the first band with
/// LimitStart <= value < LimitEnd wins, and the walk stops at the first band starting above the
/// value (the list is read as sorted by start). nullptr when none holds it; NaN matches none.
/// Inline: the detectors look values up several times per sample.
inline const Threshold* findThreshold(double value, const ThresholdList& thresholds) {
    for (const auto& band : thresholds) {
        if (!band) continue;
        if (band->LimitStart <= value && value < band->LimitEnd) return band.get();
        // Comparisons with NaN are false, so NaN walks past every band and matches none.
        if (value < band->LimitStart) break;
    }
    return nullptr;
}

/// The impact and per-kilometre flag of the band holding `value`; (0.0, false) when none does.
inline ThresholdImpact thresholdImpactFor(double value, const ThresholdList& thresholds) {
    const Threshold* band = findThreshold(value, thresholds);
    return band ? ThresholdImpact{band->Impact, band->IsPerKilometer} : ThresholdImpact{};
}

/// Whether thresholdImpactFor() finds a band for `value`.
inline bool exceedsThresholds(double value, const ThresholdList& thresholds) {
    return findThreshold(value, thresholds) != nullptr;
}

}  // namespace kestrelvue
