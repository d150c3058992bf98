// The gpsd location manager against a real gpsd, fed by gpsfake from an NMEA log written from an
// example drive.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kestrelvue/posix/GpsdLocationManager.h>
#include <kestrelvue/service/ReferenceService.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "Import.h"
#include "Record.h"
#include "Report.h"
#include "platform/posix/sensors/GpsdReport.h"
#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using namespace std::chrono;
namespace fs = std::filesystem;

/// A port free now, below the range the system draws connections' local ports from: a port from
/// that range may be taken by any outgoing connection (ours included) before gpsd binds it.
int freePort() {
    static std::mt19937 rng(static_cast<unsigned>(::getpid()));
    for (int tries = 0; tries < 100; ++tries) {
        const int port = std::uniform_int_distribution<int>(20000, 32000)(rng);
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        if (bound) return port;
    }
    return 0;
}

/// gpsfake playing `log` once into a private gpsd on `port`; ended with its process group.
class Gpsfake {
public:
    Gpsfake(const fs::path& log, int port, double cycle) {
        // Spawned, not forked: the test has threads, and a forked child may only call what is
        // safe after fork until it execs (a lock held elsewhere at the fork hangs it for good).
        std::vector<std::string> args = {
            "gpsfake",   "-q", "-1", "-c", std::to_string(cycle), "-P", std::to_string(port),
            log.string()};
        // Started by root, gpsd drops to its own user, which cannot read gpsfake's root-owned
        // terminal: run both as nobody then.
        if (::geteuid() == 0)
            args.insert(args.begin(),
                        {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
        std::vector<char*> argv;
        argv.reserve(args.size() + 1);
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        for (int fd : {1, 2})
            posix_spawn_file_actions_addopen(&files, fd, "/dev/null", O_WRONLY, 0);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&attributes, 0);  // its own group, ended whole
        if (::posix_spawnp(&pid_, argv[0], &files, &attributes, argv.data(), environ) != 0)
            pid_ = -1;
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&files);
    }
    ~Gpsfake() { kill(); }
    void kill() {
        if (pid_ <= 0) return;
        ::kill(-pid_, SIGKILL);  // gpsfake and its gpsd: a crash, not a clean stop
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

/// Polls (gpsd is real time) until `done` or the deadline; drains the host's queue meanwhile.
template <class Done>
bool within(seconds limit, test::EngineHarness& h, Done done) {
    const auto deadline = steady_clock::now() + limit;
    while (steady_clock::now() < deadline) {
        h.queue->runUntilIdle();
        if (done()) return true;
        std::this_thread::sleep_for(milliseconds(20));
    }
    return false;
}

class GpsdTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::system("command -v gpsfake >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "gpsfake not installed (scripts/install-deps.sh installs gpsd-clients)";
        useDrive("city-calm.kvd");
        dir_ = fs::temp_directory_path() / ("kestrelvue-gpsd-" + std::to_string(::getpid()));
        fs::create_directories(dir_);
        start_ = time_point_cast<milliseconds>(system_clock::now());
    }
    void TearDown() override { fs::remove_all(dir_); }

    void useDrive(const std::string& name) {
        std::ifstream in(std::string(KESTRELVUE_SOURCE_DIR) + "/examples/drives/" + name);
        drive_ = *tools::parseDrive(in).value;
    }

    /// The drive's fixes from `from` to `to` seconds as an NMEA log.
    fs::path log(const std::string& name, double from, double to) {
        tools::Drive part;
        for (const auto& e : drive_.events)
            if (e.fix && e.seconds() >= from && e.seconds() < to) part.events.push_back(e);
        fs::path path = dir_ / name;
        std::ofstream out(path, std::ios::binary);
        tools::writeNmea(out, part, start_);
        return path;
    }

    tools::Drive drive_;
    fs::path dir_;
    system_clock::time_point start_;
};

// Reports arrive as fixes with the receiver's own time and a 68 % accuracy; the trip goes on when
// gpsd is killed and restarted, and no batch queued before a stop is delivered after it.
TEST_F(GpsdTest, FixesKeepTheirTimeAndTheTripGoesOnWhenGpsdIsKilledAndRestarted) {
    const int port = freePort();
    test::EngineHarness h;
    auto engine = h.makeEngine();
    auto gpsd = std::make_shared<posix::GpsdLocationManager>(
        posix::GpsdEndpoint{"127.0.0.1", std::to_string(port)}, h.queue);
    EXPECT_FALSE(gpsd->locationServicesEnabled()) << "nothing listens yet: services read as off";
    gpsd->setBackoff(milliseconds(50), milliseconds(400));
    std::vector<platform::Location> fixes;
    gpsd->setFixHandler([&](const std::vector<platform::Location>& batch) {
        // The host's clock keeps the receiver's time here, as a synchronised one would.
        h.clock->setNow(batch.back().timestamp);
        engine->didUpdateLocations(batch);
        h.motion->push(test::EngineHarness::flatSample());
        fixes.insert(fixes.end(), batch.begin(), batch.end());
    });

    // Each log plays for longer than a slow (sanitized) reconnection can take: gpsfake plays
    // whether or not anyone listens, and each waits below end as soon as fixes arrive.
    auto first = std::make_unique<Gpsfake>(log("a.nmea", 30, 150), port, 0.1);
    ASSERT_TRUE(within(seconds(20), h, [&] { return gpsd->locationServicesEnabled(); }));
    h.clock->setNow(start_ + seconds(30));
    ASSERT_TRUE(engine->startTrip());
    gpsd->startUpdatingLocation();
    ASSERT_TRUE(within(seconds(20), h, [&] { return engine->TotalTraveledDistance() > 0; }));
    const double t = duration<double>(fixes[0].timestamp - start_).count();
    const platform::Location truth =
        *std::find_if(drive_.events.begin(), drive_.events.end(), [&](auto& e) {
             return e.fix && e.seconds() == std::round(t);
         })->fix;
    EXPECT_NEAR(t, std::round(t), 0.011);
    EXPECT_LT(fixes[0].distance(truth), 0.15);  // metres: six decimals of a degree
    EXPECT_NEAR(fixes[0].speed, truth.speed, 0.01);
    EXPECT_NEAR(fixes[0].course, truth.course, 0.01);
    // Within the engine's filter for speed (30 m), and smaller than gpsd's own 95 % figure. Any
    // report may lack the figure (-1), the first after a connection most often.
    EXPECT_TRUE(std::any_of(fixes.begin(), fixes.end(), [](const platform::Location& f) {
        return f.horizontalAccuracy > 0 && f.horizontalAccuracy < 30;
    }));

    first->kill();
    ASSERT_TRUE(within(seconds(10), h, [&] { return !gpsd->isConnected(); }));
    const double before = engine->TotalTraveledDistance();
    const std::size_t fixesBefore = fixes.size();
    Gpsfake second(log("b.nmea", 150, 270), port, 0.1);
    ASSERT_TRUE(within(seconds(20), h, [&] {
        return engine->TotalTraveledDistance() > before && fixes.size() > fixesBefore + 3;
    }));
    EXPECT_TRUE(engine->IsDriving());
    EXPECT_GE(gpsd->connections(), 2U);
    gpsd->stopUpdatingLocation();
    const std::size_t seen = fixes.size();
    h.queue->runUntilIdle();
    EXPECT_EQ(fixes.size(), seen) << "a batch queued before the stop was delivered after it";
    engine->stopTrip();
}

/// A fake IIO device (a directory shaped like sysfs) that shows the drive's motion as an IMU
/// lying flat would read it, sample by sample at the drive's own times from `start`.
class FakeImu {
public:
    FakeImu(const fs::path& root, const tools::Drive& drive, system_clock::time_point start)
        : dir_(root / "iio:device0") {
        fs::create_directories(dir_);
        for (const char* kind : {"accel", "anglvel"})
            std::ofstream(dir_ / ("in_" + std::string(kind) + "_scale")) << kScale << "\n";
        show({0, 0, -1}, {0, 0, 0});  // parked, until the drive starts
        writer_ = std::jthread([this, &drive, start](const std::stop_token& stop) {
            for (const auto& e : drive.events) {
                if (!e.motion) continue;
                std::unique_lock lock(mutex_);
                wake_.wait_until(lock, stop, start + nanoseconds(e.t), [] { return false; });
                if (stop.stop_requested()) return;
                const auto& m = *e.motion;
                show({m.userAcceleration.x + m.gravity.x, m.userAcceleration.y + m.gravity.y,
                      m.userAcceleration.z + m.gravity.z},
                     m.rotationRate);
            }
        });
    }

private:
    static constexpr double kScale = 1e-4;
    void show(Vector3 total, Vector3 rate) {
        const double a[3] = {total.x, total.y, total.z}, r[3] = {rate.x, rate.y, rate.z};
        for (int i = 0; i < 3; ++i) {
            // Specific force is minus the phone's total acceleration. Renamed into place, so a
            // reader never sees half a number.
            put("in_accel_" + std::string(1, "xyz"[i]) + "_raw", -a[i] * 9.80665 / kScale);
            put("in_anglvel_" + std::string(1, "xyz"[i]) + "_raw", r[i] / kScale);
        }
    }
    void put(const std::string& name, double value) {
        const fs::path tmp = dir_ / (name + ".new");
        std::ofstream(tmp) << std::llround(value) << "\n";
        fs::rename(tmp, dir_ / name);
    }
    fs::path dir_;
    std::mutex mutex_;
    std::condition_variable_any wake_;  // woken early when the writer is asked to stop
    std::jthread writer_;               // last: stopped and joined before the rest goes
};

TEST_F(GpsdTest, RecordScoresADriveFromGpsfakeAndAFakeImuAsItsReplayDoes) {
    useDrive("city-aggressive.kvd");
    // From cruising to cruising: a hard acceleration and a sharp left corner in between. The
    // edges are quiet, so a sample more or less at either end changes no count.
    constexpr double kFrom = 17, kSeconds = 36;
    tools::Drive slice;
    for (auto e : drive_.events) {
        if (e.seconds() < kFrom || e.seconds() > kFrom + kSeconds) continue;
        e.t -= tools::driveTime(kFrom);
        slice.events.push_back(e);
    }
    // gpsd's first report carries no time, and a fix without one is not delivered: the receiver
    // says where it is a second before the drive, as one switched on before driving does.
    drive_ = slice;
    drive_.events.insert(drive_.events.begin(), slice.events.front());
    drive_.events.front().t = -tools::driveTime(1);
    service::ReferenceService service{service::ServiceOptions{}};
    ASSERT_TRUE(service.start()) << service.error();
    tools::ReplayOptions options;
    options.baseURL = service.baseURL();
    const tools::ReplayResult replayed = tools::replay(slice, options);
    ASSERT_TRUE(replayed.finished) << replayed.failure();
    ASSERT_FALSE(replayed.detections.empty()) << "a slice with nothing to compare";

    // The receiver's log starts a little ahead, so that gpsfake's start-up does not make its
    // first fixes stale (a loaded machine starts it in seconds); it is played at a sentence every
    // third of a second, a fix a second, and recorded two seconds past its end.
    start_ = time_point_cast<milliseconds>(system_clock::now()) + seconds(5);
    const int port = freePort();
    Gpsfake fake(log("drive.nmea", -1, kSeconds + 1), port, 0.33);
    FakeImu imu(dir_ / "iio", slice, start_);
    test::EngineHarness h;
    posix::GpsdLocationManager probe({"127.0.0.1", std::to_string(port)}, h.queue);
    ASSERT_TRUE(within(seconds(20), h, [&] { return probe.locationServicesEnabled(); }));
    tools::RecordSources sources;
    sources.gpsdHost = "127.0.0.1";
    sources.gpsdPort = std::to_string(port);
    sources.iioRoot = (dir_ / "iio").string();
    sources.seconds = duration<double>(start_ - system_clock::now()).count() + kSeconds + 2;
    options.live = tools::makeLiveHost(sources);
    options.outboxDirectory = (dir_ / "outbox").string();
    const tools::ReplayResult recorded = tools::replay({}, options);
    ASSERT_TRUE(recorded.finished) << recorded.failure();
    EXPECT_EQ(recorded.recordsConfirmed, recorded.records);

    const auto want = tools::kindLines(replayed), got = tools::kindLines(recorded);
    ASSERT_EQ(want.size(), got.size());
    for (std::size_t i = 0; i < want.size(); ++i)
        EXPECT_NEAR(got[i].events, want[i].events, 1) << "kind " << static_cast<int>(want[i].kind);
    EXPECT_NEAR(recorded.trip->TotalDistance, replayed.trip->TotalDistance,
                replayed.trip->TotalDistance * 0.01);
}

}  // namespace
}  // namespace kestrelvue
