// Band lookups and the band archive.

#include <gtest/gtest.h>
#include <kestrelvue/Threshold.h>

#include <cmath>
#include <tuple>

#include "records/KeyedArchive.h"

namespace kestrelvue {
namespace {

ThresholdList bands(std::initializer_list<Threshold> list) {
    ThresholdList out;
    for (const Threshold& t : list) out.push_back(std::make_shared<const Threshold>(t));
    return out;
}

TEST(BandLookup, Cases) {
    const ThresholdList two = bands({{0, 1, 2, false}, {1, 2, 5, true}});
    const std::tuple<const char*, ThresholdList, double, ThresholdImpact> cases[] = {
        {"empty list", {}, 1.0, {}},
        {"start is inclusive", two, 1.0, {5, true}},
        {"first band", two, 0.5, {2, false}},
        {"end is exclusive", two, 2.0, {}},
        {"below every band", two, -0.1, {}},
        {"NaN matches nothing", two, NAN, {}},
        {"out of order: the walk stops at the first band",
         bands({{5, 6, 9, false}, {1, 2, 3, false}}),
         1.5,
         {}},
        {"overlapping: the first listed band wins",
         bands({{0, 10, 1, false}, {2, 3, 7, true}}),
         2.5,
         {1, false}},
    };
    for (const auto& [name, list, value, expected] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(thresholdImpactFor(value, list), expected);
        EXPECT_EQ(exceedsThresholds(value, list), expected != ThresholdImpact{});
    }
}

TEST(BandArchive, RoundTripsMissingKeysReadAsZeroAndOtherArchivesAreRefused) {
    for (const Threshold& t :
         {Threshold{0.3, 0.5, 2, false}, Threshold{-1e300, 1e-300, 0.1, true}}) {
        auto back = Threshold::unarchive(t.archivedData());
        ASSERT_TRUE(back) << back.error;
        EXPECT_EQ(std::tuple(back.value->LimitStart, back.value->LimitEnd, back.value->Impact,
                             back.value->IsPerKilometer),
                  std::tuple(t.LimitStart, t.LimitEnd, t.Impact, t.IsPerKilometer));
    }
    KeyedArchiver coder{std::string(Threshold::archiveClassName)};
    coder.encodeDouble(7, "Impact");
    auto band = Threshold::unarchive(coder.encodedData());
    ASSERT_TRUE(band) << band.error;
    EXPECT_EQ(std::tuple(band.value->LimitStart, band.value->LimitEnd, band.value->Impact),
              std::tuple(0.0, 0.0, 7.0));
    KeyedArchiver other{"NSDate"};
    other.encodeDouble(1, "NS.time");
    EXPECT_FALSE(Threshold::unarchive(other.encodedData()));
    EXPECT_FALSE(Threshold::unarchive("<?xml version=\"1.0\"?><plist></plist>"));
}

}  // namespace
}  // namespace kestrelvue
