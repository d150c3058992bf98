// Cornering, elevating, speeding/braking, fuel, band walk and score, case by case.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include "engine/Detectors.h"

namespace kestrelvue::detail {
namespace {

constexpr FaultTypes kNone = FaultTypes::none;
constexpr int kPortrait = 1;

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

}  // namespace
}  // namespace kestrelvue::detail
