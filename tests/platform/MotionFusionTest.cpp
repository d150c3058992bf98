// The IIO motion manager and its gravity filter: the filter against a drive whose gravity is
// known, seen through random mountings; the manager against a directory shaped like sysfs.

#include <gtest/gtest.h>
#include <kestrelvue/posix/IioMotionManager.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "Drive.h"
#include "platform/posix/sensors/MotionFusion.h"
#include "platform/sim/MainQueue.h"

namespace kestrelvue {
namespace {

using namespace std::chrono;
namespace fs = std::filesystem;

/// A rotation as its matrix; columns are the device's axes in the vehicle's frame.
struct Rotation {
    double m[3][3];
    Vector3 toDevice(Vector3 v) const {  // transpose: vehicle frame to device frame
        return {m[0][0] * v.x + m[1][0] * v.y + m[2][0] * v.z,
                m[0][1] * v.x + m[1][1] * v.y + m[2][1] * v.z,
                m[0][2] * v.x + m[1][2] * v.y + m[2][2] * v.z};
    }
    static Rotation random(std::mt19937& rng) {
        // A uniformly random unit quaternion.
        std::normal_distribution<double> n;
        double q[4], s = 0;
        for (double& c : q) s += std::pow(c = n(rng), 2);
        for (double& c : q) c /= std::sqrt(s);
        const double w = q[0], x = q[1], y = q[2], z = q[3];
        return {{{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
                 {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
                 {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}}};
    }
};

double angleBetween(Vector3 a, Vector3 b) {
    const double d = a.x * b.x + a.y * b.y + a.z * b.z;
    const double n =
        std::sqrt((a.x * a.x + a.y * a.y + a.z * a.z) * (b.x * b.x + b.y * b.y + b.z * b.z));
    return std::acos(std::clamp(d / n, -1.0, 1.0));
}

TEST(GravityFilter, FindsGravityWithinTwoDegreesWhateverTheMounting) {
    std::ifstream in(std::string(KESTRELVUE_SOURCE_DIR) + "/examples/drives/city-aggressive.kvd");
    const tools::Drive drive = *tools::parseDrive(in).value;
    std::mt19937 rng(25);
    for (int mounting = 0; mounting < 24; ++mounting) {
        const Rotation r = Rotation::random(rng);
        posix::GravityFilter filter;
        double worst = 0, last = -1;
        // The computer starts with the ignition: a few readings before the vehicle moves.
        std::vector<tools::DriveEvent> events(4, tools::DriveEvent{});
        for (auto& e : events) e.motion = platform::DeviceMotion{{}, {}, {}, {0, 0, -1}};
        events.insert(events.end(), drive.events.begin(), drive.events.end());
        for (const tools::DriveEvent& e : events) {
            if (!e.motion) continue;
            const platform::DeviceMotion& m = *e.motion;
            // What an IMU mounted so would read: specific force is minus the total, in m/s².
            const Vector3 total{m.userAcceleration.x + m.gravity.x,
                                m.userAcceleration.y + m.gravity.y,
                                m.userAcceleration.z + m.gravity.z};
            const Vector3 f = r.toDevice(total);
            // The drive keeps its attitude level: its x and y rates are the phone's jitter, which
            // its gravity does not follow. A real IMU turns with what it reads, so here the
            // vehicle turns about the vertical alone, at the drive's rate.
            const posix::ImuReading reading{
                {-f.x * posix::kStandardGravity, -f.y * posix::kStandardGravity,
                 -f.z * posix::kStandardGravity},
                r.toDevice({0, 0, m.rotationRate.z})};
            const platform::DeviceMotion out =
                filter.update(reading, last < 0 ? 0 : e.seconds() - last);
            last = e.seconds();
            if (e.seconds() >= 60)  // after the warm-up
                worst = std::max(worst, angleBetween(out.gravity, r.toDevice(m.gravity)));
        }
        EXPECT_LT(worst * 180 / M_PI, 2.0) << "mounting " << mounting;
    }
}

TEST(GravityFilter, OrientationFollowsGravity) {
    using O = platform::DeviceOrientation;
    const struct {
        Vector3 gravity;
        O expected;
    } cases[] = {{{0, 0, -1}, O::faceUp},        {{0, 0.3, 0.95}, O::faceDown},
                 {{0, -1, 0}, O::portrait},      {{0.1, 0.98, 0}, O::portraitUpsideDown},
                 {{-1, 0, 0}, O::landscapeLeft}, {{1, 0, 0.1}, O::landscapeRight},
                 {{0.7, 0, -0.7}, O::unknown},   {{0, 0, 0}, O::unknown}};
    for (const auto& c : cases)
        EXPECT_EQ(posix::orientationFromGravity(c.gravity), c.expected)
            << c.gravity.x << " " << c.gravity.y << " " << c.gravity.z;
}

TEST(IioTest, ReadsScaledChannelsAndDeliversSamplesUntilStopped) {
    const fs::path root =
        fs::temp_directory_path() / ("kestrelvue-iio-" + std::to_string(::getpid()));
    const std::shared_ptr<void> removed(nullptr, [&](void*) { fs::remove_all(root); });
    auto write = [&](const std::string& device, const std::string& file, const std::string& text) {
        fs::create_directories(root / device);
        std::ofstream(root / device / file) << text << "\n";
    };
    posix::IioMotionManager none({(root / "missing").string()});
    EXPECT_FALSE(none.isDeviceMotionAvailable());

    // An accelerometer with one scale for all axes and an offset on z; a gyroscope with per-axis
    // scales; a device with neither in between.
    write("iio:device0", "name", "pressure");
    write("iio:device1", "in_accel_scale", "0.000598");
    write("iio:device1", "in_accel_z_offset", "399");
    for (const std::string axis : {"x", "y", "z"}) {
        write("iio:device1", "in_accel_" + axis + "_raw", axis == "z" ? "16000" : "0");
        write("iio:device2", "in_anglvel_" + axis + "_raw", "-100");
        write("iio:device2", "in_anglvel_" + axis + "_scale", "0.001");
    }
    posix::IioMotionManager iio({root.string()});
    ASSERT_TRUE(iio.isDeviceMotionAvailable());
    const auto reading = iio.read();
    ASSERT_TRUE(reading);
    EXPECT_NEAR(reading->accel.z, (16000 + 399) * 0.000598, 1e-9);
    EXPECT_NEAR(reading->gyro.y, -0.1, 1e-12);

    auto queue = std::make_shared<sim::MainQueue>();
    std::vector<platform::DeviceMotion> samples;
    iio.setDeviceMotionUpdateInterval(0.01);
    auto session =
        iio.startDeviceMotionUpdates(platform::AttitudeReferenceFrame::xArbitraryZVertical, queue,
                                     [&](const auto& motion, const auto&) {
                                         if (motion) samples.push_back(*motion);
                                     });
    const auto deadline = steady_clock::now() + seconds(10);
    while (samples.size() < 3 && steady_clock::now() < deadline) {
        queue->runUntilIdle();
        std::this_thread::sleep_for(milliseconds(5));
    }
    ASSERT_GE(samples.size(), 3U);
    EXPECT_NEAR(samples.back().gravity.z, -1.0, 0.01) << "lying still face up";
    EXPECT_EQ(iio.orientation(), platform::DeviceOrientation::faceUp);

    write("iio:device2", "in_anglvel_x_raw", "garbage");
    iio.stopDeviceMotionUpdates();
    const std::size_t seen = samples.size();
    queue->runUntilIdle();
    EXPECT_EQ(samples.size(), seen) << "a sample queued before the stop reached the handler";
    std::string why;
    EXPECT_FALSE(iio.read(&why));
    EXPECT_NE(why.find("in_anglvel_x_raw: not a number"), std::string::npos) << why;
}

}  // namespace
}  // namespace kestrelvue
