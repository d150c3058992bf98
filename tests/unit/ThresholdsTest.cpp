// Band lookups, the band archive, and the handler of the threshold reply.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "core/Json.h"
#include "records/KeyedArchive.h"
#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using test::EngineHarness;

ThresholdList bands(std::initializer_list<Threshold> list) {
    ThresholdList out;
    for (const Threshold& t : list) out.push_back(std::make_shared<const Threshold>(t));
    return out;
}

TEST(BandLookup, Cases) {
    struct Case {
        const char* name;
        ThresholdList list;
        double value;
        ThresholdImpact expected;
    };
    const ThresholdList two = bands({{0, 1, 2, false}, {1, 2, 5, true}});
    const Case cases[] = {
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
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(thresholdImpactFor(c.value, c.list), c.expected);
        EXPECT_EQ(exceedsThresholds(c.value, c.list), c.expected != ThresholdImpact{});
    }
}

// ---- Archive --------------------------------------------------------------------------------

// Runs `script` with an input and an output file; python's complaints go to the test's output.
std::string python(const std::string& script, const std::string& input = "") {
    static int serial = 0;
    const std::string base = ::testing::TempDir() + "kv_plist_" + std::to_string(::getpid()) + "_" +
                             std::to_string(serial++);
    std::ofstream(base + ".py") << script;
    std::ofstream(base + ".in", std::ios::binary) << input;
    const std::string command = "python3 " + base + ".py " + base + ".in " + base + ".out";
    EXPECT_EQ(std::system(command.c_str()), 0) << "python3 failed";
    std::ifstream out(base + ".out", std::ios::binary);
    return {std::istreambuf_iterator<char>(out), {}};
}

bool havePython() {
    return std::system("python3 -c 'import plistlib' >/dev/null 2>&1") == 0;
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

TEST(BandArchive, PythonReadsOurArchive) {
    if (!havePython()) GTEST_SKIP() << "python3 with plistlib is not installed";
    const std::string script = R"(
import plistlib, sys
p = plistlib.loads(open(sys.argv[1], 'rb').read())
assert p['$archiver'] == 'NSKeyedArchiver', p
assert p['$version'] == 100000
objs = p['$objects']
assert objs[0] == '$null'
root = objs[p['$top']['root'].data]
cls = objs[root['$class'].data]
out = '%s|%s|%r|%r|%r|%r' % (cls['$classname'], ','.join(cls['$classes']), root['LimitStart'],
      root['LimitEnd'], root['Impact'], root['IsPerKilometer'])
open(sys.argv[2], 'w').write(out)
)";
    EXPECT_EQ(python(script, Threshold(0.25, 9.5, 3, true).archivedData()),
              "_TtCC10Kestrelvue14DrivingInsight9Threshold|"
              "_TtCC10Kestrelvue14DrivingInsight9Threshold,NSObject|0.25|9.5|3.0|True");
}

TEST(BandArchive, WeReadPythonsArchive) {
    if (!havePython()) GTEST_SKIP() << "python3 with plistlib is not installed";
    const std::string writer = R"(
import plistlib, sys
name = '_TtCC10Kestrelvue14DrivingInsight9Threshold'
fields = {'$class': plistlib.UID(2), 'LimitStart': 1.5, 'LimitEnd': 4, 'Impact': 2.25}
if open(sys.argv[1]).read() == 'flag':
    fields['IsPerKilometer'] = True
archive = {'$archiver': 'NSKeyedArchiver', '$version': 100000,
           '$top': {'root': plistlib.UID(1)},
           '$objects': ['$null', fields, {'$classname': name, '$classes': [name, 'NSObject']}]}
open(sys.argv[2], 'wb').write(plistlib.dumps(archive, fmt=plistlib.FMT_BINARY))
)";
    for (bool flag : {true, false}) {
        auto band = Threshold::unarchive(python(writer, flag ? "flag" : "none"));
        ASSERT_TRUE(band) << band.error;
        EXPECT_EQ(band.value->LimitStart, 1.5);
        EXPECT_EQ(band.value->LimitEnd, 4.0);  // written as an integer
        EXPECT_EQ(band.value->Impact, 2.25);
        EXPECT_EQ(band.value->IsPerKilometer, flag);  // a missing flag reads as false
    }
}

TEST(BandArchive, DamagedArchivesAreErrorsNotCrashes) {
    const std::string good = Threshold(0.3, 0.5, 2, true).archivedData();
    // Every truncation is refused.
    for (std::size_t n = 0; n < good.size(); ++n)
        EXPECT_FALSE(Threshold::unarchive(good.substr(0, n))) << "length " << n;
    // A trailer that claims a huge object count or offsets past the end.
    std::string lying = good;
    for (int i = 0; i < 8; ++i) lying[lying.size() - 24 + i] = '\xFF';
    EXPECT_FALSE(Threshold::unarchive(lying));
}

}  // namespace
}  // namespace kestrelvue
