// The detectors: cornering, elevating, speeding/braking and fuel case by case, and the lane-change
// state machine against a reading of the whole sequence.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "engine/Detectors.h"

namespace kestrelvue::detail {
namespace {

constexpr FaultTypes kNone = FaultTypes::none;

ThresholdList bands(std::initializer_list<Threshold> list) {
    ThresholdList out;
    for (const Threshold& t : list) out.push_back(std::make_shared<const Threshold>(t));
    return out;
}

TEST(Detectors, Cornering) {
    const ThresholdList levels = bands({{0.3, 0.6, 2, false}});
    struct Case {
        int orientation;
        double ax;
        Finding expected;
    };
    const Case cases[] = {
        {kFaceUp, -0.45, {FaultTypes::sharpCorneringRight, 0.45, 2.0, false}},
        {kFaceDown, 0.45, {FaultTypes::sharpCorneringRight, 0.45, 2.0, false}},
        {kFaceUp, 0.45, {FaultTypes::sharpCorneringLeft, 0.45, 2.0, false}},
        {kFaceDown, -0.45, {FaultTypes::sharpCorneringLeft, 0.45, 2.0, false}},
        {kFaceUp, 0.3, {FaultTypes::sharpCorneringLeft, 0.3, 2.0, false}},  // inclusive start
        {kFaceUp, 0.6, {kNone, 0.6, 0.0, false}},                           // exclusive end
        {kFaceUp, 0.1, {kNone, 0.1, 0.0, false}},                           // looked up in vain
        {kFaceUp, 0.0, {}},
        {kFaceUp, -0.0, {}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(checkSharpCornering(c.orientation, {c.ax, 0, 0}, levels), c.expected)
            << c.orientation << " " << c.ax;
    // A band that holds the value but costs nothing is no finding.
    EXPECT_EQ(checkSharpCornering(kFaceUp, {0.4, 0, 0}, bands({{0.3, 0.6, 0, true}})),
              (Finding{kNone, 0.4, 0.0, true}));
}

TEST(Detectors, Elevating) {
    const ThresholdList levels = bands({{0.3, 1.0, 4, true}});
    struct Case {
        const char* name;
        int orientation;
        Vector3 rotation;
        double ay;
        Finding expected;
    };
    const Finding up{FaultTypes::sharpElevatingUp, 0.5, 4.0, true};
    const Finding gated{kNone, 0.0, 4.0, true};
    const Case cases[] = {
        {"up", kFaceUp, {0.5, 0, 0}, 0.02, up},
        {"down", kFaceUp, {-0.5, 0.1, -0.19}, 0.02, {FaultTypes::sharpElevatingDown, 0.5, 4, true}},
        {"gate: ay too small", kFaceUp, {0.5, 0, 0}, 0.01, gated},
        {"gate: ay at bound passes", kFaceUp, {0.5, 0, 0}, -0.015, up},
        {"gate: ry at 0.2 fails", kFaceUp, {0.5, 0.2, 0}, 0.02, gated},
        {"gate: rz at -0.2 fails", kFaceUp, {0.5, 0, -0.2}, 0.02, gated},
        {"no band: rate kept", kFaceUp, {0.1, 0.5, 0}, 0.0, {kNone, 0.1, 0.0, false}},
        {"rx zero", kFaceUp, {0.0, 0, 0}, 0.02, {}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(checkSharpElevating(c.orientation, c.rotation, {0, c.ay, 0}, levels), c.expected)
            << c.name;
}

TEST(Detectors, SpeedingAndBraking) {
    const ThresholdList speeding = bands({{0.3, 0.5, 3, false}});
    const ThresholdList braking = bands({{0.3, 0.5, 5, true}});
    struct Case {
        int orientation;
        double ay;
        SpeedingFinding expected;
    };
    const Case cases[] = {
        {kFaceUp, -0.35, {FaultTypes::sharpSpeeding, 0.35, 0.0, 3.0, false}},
        {kFaceUp, 0.35, {FaultTypes::sharpBraking, 0.0, 0.35, 5.0, true}},
        {kFaceUp, -0.1, {kNone, 0.1, 0.0, 0.0, false}},
        {kFaceUp, 0.5, {kNone, 0.0, 0.5, 0.0, false}},
        {kFaceUp, 0.0, {}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(checkSharpSpeeding(c.orientation, {0, c.ay, 0}, speeding, braking), c.expected)
            << c.orientation << " " << c.ay;
}

TEST(Detectors, OnlyFlatOrientationsAreJudged) {
    const ThresholdList any = bands({{0, 10, 1, false}});
    const Vector3 ua{0.5, -0.5, 0};
    const Vector3 rotation{0.5, 0, 0};
    for (int code : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 100}) {
        const bool faceUp = code == kFaceUp;
        const bool flat = faceUp || code == kFaceDown;
        EXPECT_EQ(checkSharpCornering(code, ua, any).finding != kNone, flat) << code;
        EXPECT_EQ(checkSharpElevating(code, rotation, ua, any).finding != kNone, faceUp) << code;
        EXPECT_EQ(checkSharpSpeeding(code, ua, any, any).finding != kNone, faceUp) << code;
        EXPECT_EQ(checkFuelEfficiency(code, ua, any) > 0, faceUp) << code;
    }
}

// The same rules read over a whole sequence at once: find a start, take the first swing and the
// swing back, and judge the manoeuvre where it ends. Returns the finding of every sample.
std::vector<Finding> wholeSequence(const std::vector<double>& yaw, int orientation,
                                   const LaneChangeSettings& st, const ThresholdList& levels) {
    std::vector<Finding> out(yaw.size());
    const auto secs = [&](std::size_t samples) { return double(samples) * st.updateInterval; };
    const auto same = [](double a, double b) { return a * b > 0; };
    std::size_t i = 0;
    while (i < yaw.size()) {
        const double r0 = yaw[i++];
        const int sign = orientation == kFaceUp ? 1 : orientation == kFaceDown ? -1 : 0;
        if (sign == 0 || std::fabs(r0) <= 1.0) continue;
        const char direction = sign * r0 > 0 ? 'L' : 'R';
        std::vector<double> taken{r0};
        std::size_t back = 0;  // samples taken when the swing back began; 0: not yet
        bool judge = false, dropped = double(st.duration4) < secs(1);
        while (!dropped && !judge && i < yaw.size()) {
            const double r = yaw[i++], p = taken.back();
            if (r == 0 || p == 0) continue;  // no sign: changes nothing
            if (!same(p, r) && back > 0) {
                judge = true;  // a third swing ends it, unjoined
                break;
            }
            taken.push_back(r);
            if (!same(p, r)) back = taken.size();
            const bool dying =
                back > 0 && same(p, r) && std::fabs(r) < std::fabs(p) && std::fabs(r) < 1.0;
            dropped = back == 0 && double(st.duration4) < secs(taken.size());
            judge = dying || (back > 0 && double(st.duration4) - 1.0 <= secs(taken.size()));
        }
        if (!judge) continue;
        double left = 0, right = 0;
        for (double r : taken) {
            left = std::max(left, r);
            right = std::max(right, -r);
        }
        const double whole = secs(taken.size()), first = secs(back);
        if (double(st.duration3) <= whole && whole <= double(st.duration4) &&
            double(st.duration1) <= first && first <= double(st.duration2) && back < taken.size() &&
            (exceedsThresholds(left, levels) || exceedsThresholds(right, levels))) {
            const auto a = thresholdImpactFor(left, levels), b = thresholdImpactFor(right, levels);
            out[i - 1] = {direction == 'R' ? FaultTypes::sharpLaneChangingRight
                                           : FaultTypes::sharpLaneChangingLeft,
                          std::max(left, right), std::max(a.impact, b.impact), b.isPerKilometer};
        }
    }
    return out;
}

// Random yaw sequences made of swings of random length and size, around the start value 1.0 and
// the dying-away value 1.0, with zeros; random durations, sampling intervals and bands.
TEST(LaneChange, AgreesWithTheWholeSequenceReadingOnRandomDrives) {
    std::mt19937 rng(20261124);
    auto pick = [&](int n) { return std::uniform_int_distribution(0, n - 1)(rng); };
    const double sizes[] = {0.0, 0.5, 0.9, 1.0, 1.01, 1.3, 1.5, 2.0, 3.0};
    int findings = 0;
    for (int round = 0; round < 2000; ++round) {
        std::vector<double> yaw;
        while (yaw.size() < 200) {
            const double size =
                pick(4) ? sizes[pick(9)] : std::uniform_real_distribution(0.0, 3.0)(rng);
            yaw.insert(yaw.end(), 1 + std::size_t(pick(pick(3) ? 12 : 40)), pick(2) ? size : -size);
        }
        LaneChangeSettings st;
        st.updateInterval = std::array{0.1, 0.25, 0.5, 1.0}[std::size_t(pick(4))];
        st.duration1 = pick(5);
        st.duration2 = st.duration1 + pick(10);
        st.duration3 = pick(6);
        st.duration4 = st.duration3 + pick(16);
        ThresholdList levels = {std::make_shared<const Threshold>(1.2, 2.0, pick(6), pick(2) == 0),
                                std::make_shared<const Threshold>(2.0, 9.0, pick(6), pick(2) == 0)};
        const int orientation = std::array{kFaceUp, kFaceDown, 1, 0}[std::size_t(pick(4))];
        const auto expected = wholeSequence(yaw, orientation, st, levels);
        LaneChangingData state;
        for (std::size_t i = 0; i < yaw.size(); ++i) {
            const Finding f = checkSharpLaneChanging(state, orientation, yaw[i], st, levels);
            ASSERT_EQ(f, expected[i]) << "round " << round << ", sample " << i;
            findings += f.finding != FaultTypes::none;
        }
    }
    EXPECT_GT(findings, 500);  // the sample reaches the judgement, not only the starts
}

}  // namespace
}  // namespace kestrelvue::detail
