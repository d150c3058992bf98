// The lane-change state machine, fed sample by sample.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/Detectors.h"

namespace kestrelvue::detail {
namespace {

ThresholdList band(double start, double end, double impact, bool perKm) {
    return {std::make_shared<const Threshold>(start, end, impact, perKm)};
}

std::vector<double> repeat(double r, int n) {
    return std::vector<double>(static_cast<std::size_t>(n), r);
}

std::vector<double> concat(std::initializer_list<std::vector<double>> parts) {
    std::vector<double> out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

struct Outcome {
    int findingAt = 0;  // 1-based sample that produced the last non-none finding; 0: none
    Finding finding;
    int findings = 0;
};

Outcome run(LaneChangingData& state, const std::vector<double>& samples,
            const ThresholdList& levels, int orientation = kFaceUp,
            LaneChangeSettings settings = {}) {
    Outcome out;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const Finding f = checkSharpLaneChanging(state, orientation, samples[i], settings, levels);
        if (f.finding != FaultTypes::none) {
            out.findingAt = static_cast<int>(i + 1);
            out.finding = f;
            ++out.findings;
        }
    }
    return out;
}

TEST(LaneChange, Starts) {
    struct Case {
        const char* name;
        int orientation;
        double r;
        std::int64_t index;
        char direction;
    };
    const Case cases[] = {
        {"portrait never starts", 1, 2.0, 0, ' '},
        {"face up at 1.0 exactly", kFaceUp, 1.0, 0, ' '},
        {"face up left", kFaceUp, 1.01, 1, 'L'},
        {"face up right", kFaceUp, -1.01, 1, 'R'},
        {"face down left", kFaceDown, -1.5, 1, 'L'},
        {"face down right", kFaceDown, 1.5, 1, 'R'},
        {"face down at -1.0 exactly", kFaceDown, -1.0, 0, ' '},
        {"unknown orientation", 0, 3.0, 0, ' '},
    };
    for (const Case& c : cases) {
        LaneChangingData state;
        const Finding f =
            checkSharpLaneChanging(state, c.orientation, c.r, {}, band(1.2, 9, 3, false));
        EXPECT_EQ(f, Finding{}) << c.name;
        EXPECT_EQ(state.index, c.index) << c.name;
        EXPECT_EQ(state.direction, c.direction) << c.name;
    }
}

TEST(LaneChange, ManoeuvresJudgedAtTheirEnd) {
    const ThresholdList levels = band(1.2, 9, 3, false);
    const auto example = concat({repeat(1.5, 8), {-1.4, -1.3, -1.1, -0.9}});
    struct Case {
        const char* name;
        std::vector<double> samples;
        int orientation;
        int findingAt;
        Finding expected;
    };
    const Finding left{FaultTypes::sharpLaneChangingLeft, 1.5, 3.0, false};
    const Finding right{FaultTypes::sharpLaneChangingRight, 1.5, 3.0, false};
    const Finding rightPeak2{FaultTypes::sharpLaneChangingRight, 2.0, 3.0, false};
    const Finding none{};
    const Case cases[] = {
        {"the worked example", example, kFaceUp, 12, left},
        {"mirrored: face down reads as right", example, kFaceDown, 12, right},
        {"right, peak on the swing back", concat({repeat(-1.3, 8), {2.0, 1.5, 0.5}}), kFaceUp, 11,
         rightPeak2},
        {"first swing too short (2 s)", concat({repeat(1.5, 3), {-1.4, -1.3, -1.1, -0.9}}), kFaceUp,
         0, none},
        {"first swing exactly 3 s counts", concat({repeat(1.5, 5), repeat(-1.4, 3), {-0.9}}),
         kFaceUp, 9, left},
        {"whole manoeuvre under 4 s", concat({repeat(1.5, 5), {-1.4, -0.9}}), kFaceUp, 0, none},
        {"peaks in no band", concat({repeat(1.1, 8), {-1.1, -1.05, -0.9}}), kFaceUp, 0, none},
        {"third swing ends it", concat({repeat(1.5, 8), {-1.4, -1.3, 0.5}}), kFaceUp, 11, left},
        {"zero changes nothing", concat({repeat(1.5, 8), {0.0, -1.4, 0.0, -1.3, -1.1, -0.9}}),
         kFaceUp, 14, left},
        {"first swing over 15 s dropped", repeat(1.5, 31), kFaceUp, 0, none},
        {"first swing exactly 10 s counts", concat({repeat(1.5, 19), {-1.4, -1.3, -0.9}}), kFaceUp,
         22, left},
        {"first swing 10.5 s is too long", concat({repeat(1.5, 20), {-1.4, -1.3, -0.9}}), kFaceUp,
         0, none},
        {"whole manoeuvre exactly 4 s counts", concat({repeat(1.5, 5), {-1.4, -1.3, -0.9}}),
         kFaceUp, 8, left},
        {"swing back cut at 14 s", concat({repeat(1.5, 8), repeat(-1.4, 20)}), kFaceUp, 28, left},
    };
    for (const Case& c : cases) {
        LaneChangingData state;
        const Outcome out = run(state, c.samples, levels, c.orientation);
        EXPECT_EQ(out.findingAt, c.findingAt) << c.name;
        EXPECT_EQ(out.finding, c.expected) << c.name;
        EXPECT_LE(out.findings, 1) << c.name;
    }
}

TEST(LaneChange, ExampleStateAlongTheWay) {
    LaneChangingData state;
    const ThresholdList levels = band(1.2, 9, 3, false);
    run(state, concat({repeat(1.5, 8), {-1.4}}), levels);
    EXPECT_EQ(state.index, 9);
    EXPECT_EQ(state.indexWhenSignChanged, 9);
    EXPECT_EQ(state.maxRotZ, 1.5);
    EXPECT_EQ(state.minRotZ, -1.4);
    EXPECT_EQ(state.direction, 'L');
    // The state runs on across calls, as it does between trips.
    EXPECT_EQ(run(state, {-1.3, -1.1, -0.9}, levels).findingAt, 3);
    EXPECT_EQ(state.index, 0);
    EXPECT_TRUE(state.rotZItems.empty());
    EXPECT_EQ(state.direction, ' ');
    EXPECT_EQ(state.maxRotZ, 0.0);
}

TEST(LaneChange, TimeoutResetsAtThe31stSample) {
    LaneChangingData state;
    run(state, repeat(1.5, 30), band(1.2, 9, 3, false));
    EXPECT_EQ(state.index, 30);  // 15 s is not more than 15 s
    run(state, {1.5}, band(1.2, 9, 3, false));
    EXPECT_EQ(state.index, 0);
}

TEST(LaneChange, ImpactIsTheLargerLookupAndFlagTheSecond) {
    // Two bands: the left peak 1.5 in the first (impact 5, per km), the right peak 3.0 in the
    // second (impact 2, absolute).
    ThresholdList levels = {std::make_shared<const Threshold>(1.2, 2.0, 5, true),
                            std::make_shared<const Threshold>(2.0, 9.0, 2, false)};
    LaneChangingData state;
    const Outcome out = run(state, concat({repeat(1.5, 8), {-3.0, -2.5, -0.5}}), levels);
    EXPECT_EQ(out.finding, (Finding{FaultTypes::sharpLaneChangingLeft, 3.0, 5.0, false}));

    // A peak in a band of impact 0 still counts as a finding, with impact 0.
    LaneChangingData zero;
    const Outcome free = run(zero, concat({repeat(1.5, 8), {-1.1, -0.9}}), band(1.2, 9, 0, true));
    EXPECT_EQ(free.finding, (Finding{FaultTypes::sharpLaneChangingLeft, 1.5, 0.0, false}));
}

TEST(LaneChange, DurationsComeFromTheSettings) {
    LaneChangeSettings fast{1, 2, 1, 4, 0.25};
    LaneChangingData state;
    // 6 samples of first swing = 1.5 s (1..2 s), whole 8 samples = 2 s (1..4 s).
    const Outcome out = run(state, concat({repeat(1.5, 5), {-1.4, -1.3, -0.9}}),
                            band(1.2, 9, 3, false), kFaceUp, fast);
    EXPECT_EQ(out.findingAt, 8);
}

}  // namespace
}  // namespace kestrelvue::detail
