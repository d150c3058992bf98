// `kestrelvue import`: each format's sample in tests/data/import, the axes and signs of a phone
// export against its known manoeuvres, and an error naming the file, line and reason.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <tuple>

#include "Import.h"

namespace kestrelvue::tools {
namespace {

const std::string kData = std::string(KESTRELVUE_SOURCE_DIR) + "/tests/data/import/";

std::vector<platform::Location> fixesOf(const Drive& drive) {
    std::vector<platform::Location> out;
    for (const DriveEvent& e : drive.events)
        if (e.fix) out.push_back(*e.fix);
    return out;
}

TEST(Import, EachPositionLogGivesTheTrackItRecorded) {
    // Every sample: ten fixes a second apart, 10 m apart northwards from 41.0082, 28.9784.
    const std::tuple<const char*, ImportFormat, double> cases[] = {
        {"drive.nmea", ImportFormat::nmea, 0.8 * 5.0},
        {"track.gpx", ImportFormat::gpx, 5.0},
        {"capture.json", ImportFormat::gpsd, 13.0 * 1.5096 / 2.4477}};
    for (const auto& [file, format, accuracy] : cases) {
        SCOPED_TRACE(file);
        EXPECT_EQ(guessFormat(kData + file), format);
        const ImportResult r = importFile(kData + file, format, std::nullopt);
        ASSERT_TRUE(r.drive) << r.error;
        ASSERT_EQ(r.notes.size(), 1U) << "motion absent is said";
        const auto fixes = fixesOf(*r.drive);
        ASSERT_EQ(fixes.size(), 10U);
        EXPECT_NEAR(fixes[0].coordinate.latitude, 41.0082, 1e-7);
        EXPECT_NEAR(fixes[0].coordinate.longitude, 28.9784, 1e-7);
        EXPECT_NEAR(fixes[0].horizontalAccuracy, accuracy, 1e-9);
        EXPECT_NEAR(fixes.back().distance(fixes.front()), 90.0, 0.9);
        EXPECT_DOUBLE_EQ(r.drive->duration(), 9.0);
        // And it is a drive: written and read back, as replay reads it.
        std::stringstream text;
        writeDrive(text, *r.drive);
        EXPECT_TRUE(parseDrive(text).value);
    }
}

TEST(Import, NmeaWrittenFromADriveReadsBackAsItsFixes) {
    std::ifstream in(std::string(KESTRELVUE_SOURCE_DIR) + "/examples/drives/city-loop.kvd");
    const Drive drive = *parseDrive(in).value;
    std::stringstream nmea;
    writeNmea(nmea, drive,
              std::chrono::sys_days(std::chrono::year(2024) / 6 / 1) + std::chrono::hours(23));
    const ImportResult r = importNmea(nmea, "loop.nmea");  // crosses midnight on the way
    ASSERT_TRUE(r.drive) << r.error;
    const auto want = fixesOf(drive), got = fixesOf(*r.drive);
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        EXPECT_LT(got[i].distance(want[i]), 0.003);  // metres: eight decimals of a degree
        EXPECT_NEAR(got[i].speed, want[i].speed, 1e-3);
        EXPECT_NEAR(got[i].horizontalAccuracy, want[i].horizontalAccuracy, 0.03);
    }
}

TEST(Import, BothPhonesExportsOfOneDriveReadAlikeWithBrakeAndRightTurnSigns) {
    const auto ios = importFile(kData + "sensor-logger-ios", ImportFormat::sensorLogger, {});
    const auto android =
        importFile(kData + "sensor-logger-android", ImportFormat::sensorLogger, {});
    ASSERT_TRUE(ios.drive && android.drive) << ios.error << android.error;
    ASSERT_EQ(ios.drive->events.size(), android.drive->events.size());
    for (std::size_t i = 0; i < ios.drive->events.size(); ++i) {
        const DriveEvent &a = ios.drive->events[i], &b = android.drive->events[i];
        ASSERT_EQ(a.t, b.t);
        if (!a.motion) continue;
        EXPECT_NEAR(a.motion->userAcceleration.y, b.motion->userAcceleration.y, 1e-6);
        EXPECT_NEAR(a.motion->userAcceleration.x, b.motion->userAcceleration.x, 1e-6);
        EXPECT_NEAR(a.motion->attitude.z, b.motion->attitude.z, 1e-6);
        EXPECT_EQ(a.orientation, platform::DeviceOrientation::faceUp);
        EXPECT_NEAR(a.motion->gravity.z, -1.0, 1e-4);
    }
    auto at = [&](double seconds) {
        for (const DriveEvent& e : ios.drive->events)
            if (e.motion && e.seconds() >= seconds) return *e.motion;
        return platform::DeviceMotion{};
    };
    // The engine reads braking as +y and a right turn (face up) as -x, turning clockwise.
    EXPECT_GT(at(11).userAcceleration.y, 0.35);
    EXPECT_LT(at(15).userAcceleration.x, -0.3);
    EXPECT_LT(at(15).rotationRate.z, 0);
    EXPECT_LT(at(16).attitude.z, at(14).attitude.z);

    const ImportResult unknown = importSensorLogger(kData + "missing", std::nullopt);
    EXPECT_NE(unknown.error.find("--phone"), std::string::npos) << unknown.error;
}

TEST(Import, EveryLineIsCheckedAndAnErrorNamesFileLineAndReason) {
    const std::string rmc =
        "$GPRMC,100000.00,A,4100.492000,N,02858.704000,E,19.438,0.00,010624,,,A*57\n";
    const std::tuple<ImportFormat, std::string, std::string> cases[] = {
        {ImportFormat::nmea,
         rmc + "$GPRMC,100001.00,A,4100.492000,N,02858.704000,E,19.438,0.00,010624,,,A*00\n",
         "x:2: checksum mismatch"},
        {ImportFormat::nmea, rmc + "GPRMC,1\n", "x:2: not an NMEA sentence"},
        {ImportFormat::nmea,
         rmc + "$GPRMC,095959.00,A,4100.492000,N,02858.704000,E,1,0,010624,,,A\n",
         "x:2: time goes backwards"},
        {ImportFormat::nmea, "$GPRMC,100000.00,A,9100.000000,N,02858.704000,E,1,0,010624,,,A\n",
         "x:1: bad position"},
        {ImportFormat::nmea, "$GPGGA,100000.00,,,,,0,00,99.99,,,,,,\n", "x: no position"},
        {ImportFormat::gpx, "<gpx>\n<trk><trkseg>\n<trkpt lat=\"41\" lon=\"29\"></trkpt>\n",
         "x:3: a point without a time"},
        {ImportFormat::gpx, "<gpx>\n<trkpt lat=\"41\" lon=\"29\"><time>yesterday</time>",
         "x:2: bad time"},
        {ImportFormat::gpx, "<gpx><trkpt lat=\"41\" lon=\"29\">\n</gpx>", "x:2: mismatched tag"},
        {ImportFormat::gpsd, "{\"class\":\"VERSION\"}\nSKY\n", "x:2: not a gpsd JSON report"},
        {ImportFormat::gpsd,
         "{\"class\":\"TPV\",\"mode\":3,\"time\":\"2024-06-01T10:00:00Z\",\"lat\":41,\"lon\":29}\n{"
         "\"class\":\"TPV\"\n",
         "x:2: not a gpsd JSON report"},
    };
    for (const auto& [format, text, error] : cases) {
        std::istringstream in(text);
        const ImportResult r = format == ImportFormat::nmea  ? importNmea(in, "x")
                               : format == ImportFormat::gpx ? importGpx(in, "x")
                                                             : importGpsd(in, "x");
        EXPECT_FALSE(r.drive) << text;
        EXPECT_EQ(r.error.substr(0, error.size()), error) << text;
    }
}

}  // namespace
}  // namespace kestrelvue::tools
