#include "Replay.h"

#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/posix/CurlHttpClient.h>
#include <kestrelvue/service/MotionBulk.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <mutex>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "Outbox.h"
#include "net/Gzip.h"
#include "net/HttpReply.h"
#include "net/Outbox.h"
#include "platform/sim/Sim.h"
#include "records/EnvironmentServices.h"

namespace kestrelvue::tools {
namespace {

using namespace std::chrono;

struct Place {
    const char* name;
    const char* city;  // nullptr: the name is the town
    double latitude, longitude;
};

// Istanbul's districts and a few towns: enough to name where a replayed drive starts and ends.
constexpr Place kPlaces[] = {
    {"Fatih", "İstanbul", 41.0186, 28.9497},       {"Beyoğlu", "İstanbul", 41.0370, 28.9770},
    {"Beşiktaş", "İstanbul", 41.0430, 29.0070},    {"Şişli", "İstanbul", 41.0600, 28.9870},
    {"Kadıköy", "İstanbul", 40.9900, 29.0290},     {"Üsküdar", "İstanbul", 41.0230, 29.0150},
    {"Sarıyer", "İstanbul", 41.1680, 29.0570},     {"Bakırköy", "İstanbul", 40.9800, 28.8720},
    {"Zeytinburnu", "İstanbul", 40.9940, 28.9040}, {"Eyüpsultan", "İstanbul", 41.0480, 28.9340},
    {"Kağıthane", "İstanbul", 41.0790, 28.9720},   {"Ataşehir", "İstanbul", 40.9920, 29.1240},
    {"Ümraniye", "İstanbul", 41.0160, 29.1240},    {"Maltepe", "İstanbul", 40.9350, 29.1310},
    {"Kartal", "İstanbul", 40.8890, 29.1900},      {"Pendik", "İstanbul", 40.8760, 29.2330},
    {"Bağcılar", "İstanbul", 41.0390, 28.8560},    {"Küçükçekmece", "İstanbul", 41.0000, 28.7800},
    {"Beylikdüzü", "İstanbul", 40.9820, 28.6400},  {"Başakşehir", "İstanbul", 41.0930, 28.8020},
    {"Beykoz", "İstanbul", 41.1340, 29.0920},      {"Ankara", nullptr, 39.9334, 32.8597},
    {"İzmir", nullptr, 38.4237, 27.1428},          {"Bursa", nullptr, 40.1885, 29.0610},
    {"Antalya", nullptr, 36.8969, 30.7133},        {"İzmit", nullptr, 40.7654, 29.9408},
    {"Edirne", nullptr, 41.6818, 26.5623},         {"Eskişehir", nullptr, 39.7767, 30.5206},
    {"Konya", nullptr, 37.8746, 32.4932},
};

double kilometresBetween(double lat1, double lon1, double lat2, double lon2) {
    const double x = (lon2 - lon1) * std::cos((lat1 + lat2) / 2 * M_PI / 180.0);
    return std::hypot(x, lat2 - lat1) * 111.32;
}

/// "yyyy-MM-dd HH:mm:ss:SSS" in the local zone, as the records carry it (the service's reader
/// has checked the pattern), to Unix milliseconds. The zone is asked once an hour of records
/// (mktime reads the zone's file at every call).
std::optional<std::int64_t> recordMillis(std::string_view text) {
    auto number = [&](std::size_t at, std::size_t digits) {
        int value = 0;
        for (std::size_t i = at; i < at + digits; ++i) value = value * 10 + (text[i] - '0');
        return value;
    };
    if (text.size() != 23) return std::nullopt;
    thread_local char cachedHour[13] = {};
    thread_local std::int64_t cachedHourMillis = 0;
    const std::string_view hourKey = text.substr(0, 13);
    if (hourKey != std::string_view(cachedHour, sizeof cachedHour)) {
        std::tm tm{};
        tm.tm_year = number(0, 4) - 1900;
        tm.tm_mon = number(5, 2) - 1;
        tm.tm_mday = number(8, 2);
        tm.tm_hour = number(11, 2);
        tm.tm_isdst = -1;
        const std::time_t seconds = std::mktime(&tm);
        if (seconds == -1) return std::nullopt;
        hourKey.copy(cachedHour, sizeof cachedHour);
        cachedHourMillis = static_cast<std::int64_t>(seconds) * 1000;
    }
    return cachedHourMillis + (std::int64_t{number(14, 2)} * 60 + number(17, 2)) * 1000 +
           number(20, 3);
}

/// The HTTP client the replay talks through: the real one, watched. It counts what the engine
/// sends and what the service confirms, and reads the charges off the motion records.
///
/// A motion bulk is read after it has been handed on, while the service reads and stores it:
/// the engine sends its next bulk only when this one is answered, so time spent here before
/// handing it on would hold up every upload.
class WireTap final : public platform::HttpClient {
public:
    explicit WireTap(std::shared_ptr<platform::HttpClient> inner) : inner_(std::move(inner)) {}

    platform::AsyncRequest send(platform::HttpRequest request,
                                platform::HttpCompletion completion) override {
        const bool motion = request.body && request.url.find("/addMotionData") != std::string::npos;
        const bool trip = request.body && request.url.find("/addDrivingScore") != std::string::npos;
        std::string key;  // what a repeat of this upload has in common with it
        if (trip) key = "trip " + *request.body;
        // A copy to read: the request goes on first. Kept per thread, so that its memory is
        // reused from bulk to bulk.
        thread_local std::string body;
        if (motion && !detail::isGzip(*request.body)) {
            body.assign(*request.body);
        } else if (motion) {
            body = detail::gunzip(*request.body, std::size_t{64} << 20).value_or(std::string());
        }
        auto upload = std::make_shared<Upload>();
        {
            std::lock_guard lock(mutex_);
            inFlight_ += motion ? 2 : 1;  // the reply, and the reading of a bulk
            motionInFlight_ += motion;
            if (motion || trip) bytesSent_ += request.body->size();
            if (!key.empty() && !sent_.insert(key).second) ++retried_;
        }
        const std::string url = request.url;
        platform::AsyncRequest pending = inner_->send(
            std::move(request), [this, url, upload, motion, completion = std::move(completion)](
                                    platform::HttpResult result) mutable {
                const detail::HttpReply reply = detail::classify(result);
                {
                    std::lock_guard lock(mutex_);
                    upload->answered = true;
                    upload->confirmed = reply.kind == detail::HttpReply::Kind::ok;
                    if (upload->read) confirm(*upload);
                    if (!upload->confirmed) {
                        problem_ = url + ": " +
                                   (reply.error ? reply.error->description + " (" +
                                                      std::to_string(reply.error->code) + ")"
                                                : "HTTP " + std::to_string(reply.status));
                    }
                }
                completion(std::move(result));
                if (motion) {
                    std::lock_guard lock(mutex_);
                    --motionInFlight_;
                }
                done();
            });
        if (!motion) return pending;
        if (auto bulk = service::parseMotionBulk(body)) {
            upload->guid = std::move(bulk->guid);
            for (const service::MotionRecord& p : bulk->records) upload->items.push_back(p.itemId);
            std::lock_guard lock(mutex_);
            key = "motion " + upload->guid + " " +
                  (upload->items.empty() ? "" : std::to_string(upload->items[0]));
            if (!sent_.insert(key).second) ++retried_;
            auto& sent = records_[upload->guid];
            // An outbox over a directory used before also sends earlier drives' records.
            const bool ours = upload->guid == trip_;
            for (const service::MotionRecord& p : bulk->records) {
                // A repeat was counted when it was first sent.
                if (sent.insert(p.itemId).second) {
                    ++recordsSent_;
                    if (ours) noteCharges(p);
                }
            }
            upload->read = true;
            if (upload->answered) confirm(*upload);
        }
        done();
        return pending;
    }

    void setStart(std::int64_t unixMillis) { startMillis_ = unixMillis; }
    /// The drive's trip: what the report counts. Set before the drive's first sample.
    void setTrip(std::string guid) {
        std::lock_guard lock(mutex_);
        trip_ = std::move(guid);
    }

    bool waitIdle(steady_clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        return idle_.wait_until(lock, deadline, [&] { return inFlight_ == 0; });
    }
    /// Holds the drive back, at most until `deadline`, while a motion bulk is on its way and
    /// more than `ahead` of the `delivered` samples wait unsent behind it.
    /// False when the deadline came first.
    bool waitForUploads(std::size_t delivered, std::size_t ahead,
                        steady_clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        return idle_.wait_until(lock, deadline, [&] {
            return motionInFlight_ == 0 || delivered <= recordsSent_ + ahead;
        });
    }
    std::string problem() const {
        std::lock_guard lock(mutex_);
        return problem_;
    }
    void collect(ReplayResult& out) const {
        std::lock_guard lock(mutex_);
        out.records = out.recordsConfirmed = 0;
        if (auto it = records_.find(trip_); it != records_.end()) out.records = it->second.size();
        if (auto it = confirmed_.find(trip_); it != confirmed_.end())
            out.recordsConfirmed = it->second.size();
        out.bulksUploaded = bulks_;
        out.uploadsRetried = retried_;
        out.bytesSent = bytesSent_;
        out.detections = detections_;
        // Bulks arrive in any order; by time, then kind, the report is the same every run.
        std::sort(out.detections.begin(), out.detections.end(),
                  [](const Detection& a, const Detection& b) {
                      return std::tie(a.t, a.kind) < std::tie(b.t, b.kind);
                  });
    }

private:
    /// One motion bulk: what it carried, once read, and how the service answered.
    struct Upload {
        std::string guid;
        std::vector<std::int64_t> items;
        bool read = false, answered = false, confirmed = false;
    };
    using ItemsByTrip = std::unordered_map<std::string, std::unordered_set<std::int64_t>>;

    // Both under the mutex.
    void confirm(const Upload& upload) {
        if (!upload.confirmed || upload.items.empty()) return;
        ++bulks_;
        confirmed_[upload.guid].insert(upload.items.begin(), upload.items.end());
    }
    void noteCharges(const service::MotionRecord& p) {
        const auto at = recordMillis(p.recordTimeText());
        if (!at) return;
        const double t = static_cast<double>(*at - startMillis_) / 1000.0;
        for (std::size_t i = 0; i < detail::kEventKindCount; ++i)
            if (p.penalty[i] > 0 || p.penaltyPerKM[i] > 0)
                detections_.push_back(
                    {t, static_cast<Kind>(i), 0.0, p.penalty[i] + p.penaltyPerKM[i]});
        if (p.fuelPerKM > 0) detections_.push_back({t, Kind::fuel, 0.0, p.fuelPerKM});
    }
    void done() {
        std::lock_guard lock(mutex_);
        --inFlight_;
        idle_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    int inFlight_ = 0, motionInFlight_ = 0;
    std::size_t recordsSent_ = 0;
    std::unordered_set<std::string> sent_;
    ItemsByTrip records_, confirmed_;
    std::size_t bulks_ = 0, retried_ = 0, bytesSent_ = 0;
    std::vector<Detection> detections_;
    std::string problem_;
    std::int64_t startMillis_ = 0;
    std::string trip_;
    // Last, so it ends first: its completions still running at the end find the counts alive.
    std::shared_ptr<platform::HttpClient> inner_;
};

/// Hears the engine's reports and lets the replay wait for them (bounded, in real time: the
/// service answers on its own threads).
class Listener final : public DrivingInsightDelegate {
public:
    void tripDidFinish(std::shared_ptr<Trip> trip) override {
        std::lock_guard lock(mutex_);
        done_ = true;
        trip_ = std::move(trip);
        cv_.notify_all();
    }
    void tripDidFail(std::int64_t code, const std::string& title, const std::string& message,
                     std::shared_ptr<platform::Alert>) override {
        std::lock_guard lock(mutex_);
        code_ = code;
        title_ = title;
        message_ = message;
        // A failure while driving (a motion bulk that did not go) is reported, not final.
        if (stopped_) done_ = true;
        cv_.notify_all();
    }
    void markStopped() {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    bool waitDone(milliseconds step) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, step, [&] { return done_; });
    }
    void result(ReplayResult& out) {
        std::lock_guard lock(mutex_);
        out.trip = trip_;
        out.finished = trip_ != nullptr;
        out.failureCode = code_;
        out.failureTitle = title_;
        out.failureMessage = message_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false, stopped_ = false;
    std::shared_ptr<Trip> trip_;
    std::int64_t code_ = 0;
    std::string title_, message_;
};

/// Waits, in real time and at most `timeout`, for a notification the service's reply brings.
class Awaited {
public:
    /// `first` runs on each notification before a waiter is woken, so that what it does is
    /// done by the time the wait returns.
    Awaited(NotificationCenter& center, const std::string& name,
            std::function<void(const Notification&)> first = {})
        : token_(center.addObserver(name, [this, first = std::move(first)](const Notification& n) {
              if (first) first(n);
              std::lock_guard lock(mutex_);
              if (!note_) note_ = n;
              cv_.notify_all();
          })) {}
    std::optional<Notification> wait(milliseconds timeout) {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, timeout, [&] { return note_.has_value(); });
        return note_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::optional<Notification> note_;
    ObserverToken token_;  // last: ends before the members its handler touches
};

}  // namespace

std::string ReplayResult::failure() const {
    if (failureTitle.empty() && failureMessage.empty()) return {};
    return std::to_string(failureCode) + " " + failureTitle + ": " + failureMessage;
}

std::vector<std::string> placeNear(double latitude, double longitude) {
    const Place* nearest = nullptr;
    double best = 1e9;
    for (const Place& p : kPlaces) {
        const double d = kilometresBetween(latitude, longitude, p.latitude, p.longitude);
        if (d < best) best = d, nearest = &p;
    }
    if (nearest && best < (nearest->city ? 12.0 : 30.0)) {
        if (nearest->city) return {nearest->name, nearest->city};
        return {nearest->name};
    }
    if (nearest && best < 150.0) {
        // Between the named places: how far, and which way, from the nearest.
        static const char* const kWays[8] = {"N", "NE", "E", "SE", "S", "SW", "W", "NW"};
        const double north = latitude - nearest->latitude;
        const double east = (longitude - nearest->longitude) *
                            std::cos((latitude + nearest->latitude) / 2 * M_PI / 180.0);
        const double bearing = std::fmod(std::atan2(east, north) * 180.0 / M_PI + 360.0, 360.0);
        const char* way = kWays[static_cast<int>(std::lround(bearing / 45.0)) % 8];
        const std::string from =
            std::to_string(std::lround(best)) + " km " + way + " of " + nearest->name;
        if (nearest->city) return {from, nearest->city};
        return {from};
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.5f, %.5f", latitude, longitude);
    return {text};
}

std::optional<platform::MountingAngles> parseAngles(const std::string& text) {
    double degrees[3];
    int used = 0;
    if (std::sscanf(text.c_str(), "%lf,%lf,%lf%n", &degrees[0], &degrees[1], &degrees[2], &used) !=
            3 ||
        used != static_cast<int>(text.size()))
        return std::nullopt;
    for (double d : degrees)
        if (!std::isfinite(d)) return std::nullopt;
    return platform::MountingAngles{degrees[0] * M_PI / 180, degrees[1] * M_PI / 180,
                                    degrees[2] * M_PI / 180};
}

bool parseAlignment(const std::string& text, ReplayOptions& options) {
    if (text.empty()) return true;
    options.align = true;
    if (text == "auto") return true;
    options.alignAngles = parseAngles(text);
    return options.alignAngles.has_value();
}

ReplayResult replay(const Drive& drive, const ReplayOptions& options) {
    const auto wallStart = steady_clock::now();
    ReplayResult result;
    auto say = [&](const std::string& line) {
        if (options.log) options.log(line);
    };

    // The simulated phone, as the tests build it; the replay adds a real HTTP client, random
    // trip identifiers and named places, and starts the clock at the present second.
    sim::Platform phone;
    const auto start = time_point_cast<system_clock::duration>(
        drive.start ? system_clock::from_time_t(static_cast<std::time_t>(*drive.start))
                    : floor<seconds>(system_clock::now()));
    result.startUnix = duration_cast<seconds>(start.time_since_epoch()).count();
    phone.clock->setNow(start);
    phone.geocoder->setAnswerer([](const platform::Location& at) {
        return sim::Geocoder::placemark(placeNear(at.coordinate.latitude, at.coordinate.longitude));
    });
    const auto& clock = phone.clock;
    const auto& queue = phone.queue;
    const auto& motion = phone.motion;

    Environment env;
    phone.installInto(env);
    if (options.live) options.live->install(env, queue);
    env.ids = std::make_shared<platform::RandomIdGenerator>();
    auto tap = std::make_shared<WireTap>(std::make_shared<posix::CurlHttpClient>());
    tap->setStart(duration_cast<milliseconds>(start.time_since_epoch()).count());
    env.http = tap;
    // The replay talks to a server it was pointed at; no default route is needed for that.
    env.reachability =
        std::make_shared<platform::FixedReachabilityProbe>(platform::kReachabilityFlagsReachable);
    env.notifications = NotificationCenter::make();
    Object info{{std::string(kBaseURLKey), options.baseURL},
                {"CFBundleShortVersionString", "kestrelvue-replay"},
                {"CFBundleDisplayName", "Kestrelvue"}};
    if (options.bulkMotionDataSize) info.emplace("BulkMotionDataSize", *options.bulkMotionDataSize);
    env.applicationInfo = std::move(info);
    env.compressUploads = options.compress;
    result.compressed = options.compress;
    Awaited unscored(*env.notifications, kTripUnscored);
    // The store's newest entry before this drive: what is newer is this drive's.
    std::int64_t keptBefore = 0;
    std::mutex problemMutex;
    std::optional<ObserverToken> problems;
    if (!options.outboxDirectory.empty()) {
        keptBefore = keptInOutbox(options.outboxDirectory).lastId;
        useOutbox(env, options.outboxDirectory);
        problems = env.notifications->addObserver(
            detail::kUploadsPending, [&result, &problemMutex](const Notification& n) {
                const Value* problem = nullptr;
                if (n.userInfo) {
                    auto it = n.userInfo->find("problem");
                    if (it != n.userInfo->end()) problem = &it->second;
                }
                if (const std::string* text = problem ? problem->asString() : nullptr) {
                    std::lock_guard lock(problemMutex);
                    result.outboxProblem = *text;
                }
            });
    }
    if (options.align) platform::useMountingAlignment(env, options.alignAngles);

    Awaited thresholds(*env.notifications, "thresholdsGot");
    std::vector<ObserverToken> traces;
    if (options.verbose) {
        for (const char* name :
             {"motionDataSynced", "motionDataSyncFailed", "getWeatherInfo",
              "tripStoppedEndAnnotationSetted", "tripEndedSuccessfully", detail::kUploadsPending}) {
            traces.push_back(env.notifications->addObserver(name, [say](const Notification& n) {
                std::string line = "  [" + n.name + "]";
                if (n.userInfo) {
                    if (auto it = n.userInfo->find("error"); it != n.userInfo->end()) {
                        if (const std::string* text = it->second.asString()) line += " " + *text;
                    }
                }
                say(line);
            }));
        }
    }

    auto engine = DrivingInsight::makeDetached(env);
    // Play the host: keep the temperature the weather request brings, so the engine stops asking.
    // The temperature is set before the replay is woken, or the next fix would ask again.
    Awaited weatherAnswered(*env.notifications, "getWeatherInfo",
                            [engine = engine.get()](const Notification& n) {
                                const Value* data = nullptr;
                                if (n.userInfo) {
                                    auto it = n.userInfo->find("Data");
                                    if (it != n.userInfo->end()) data = &it->second;
                                }
                                const Value* t = data ? data->find("Temperature") : nullptr;
                                if (auto celsius = t ? t->asNumber() : std::nullopt)
                                    engine->setTemperature(*celsius);
                            });
    const auto aligner =
        std::dynamic_pointer_cast<platform::MountingAlignment>(engine->MotionManager());
    auto listener = std::make_shared<Listener>();
    engine->setDrivingInsightDelegate(listener);
    engine->setUserID(options.userID);

    // What the engine was handed at each delivery, to read the detectors' values back from.
    std::vector<std::pair<std::int64_t, platform::DeviceMotion>> delivered;
    auto finish = [&] {
        tap->collect(result);
        result.unscored = unscored.wait(milliseconds(0)).has_value();
        for (Detection& d : result.detections) {
            // A record's time is its delivery's, to the millisecond.
            const std::int64_t at = std::llround(d.t * 1e9) + 1'000'000;
            auto it = std::upper_bound(delivered.begin(), delivered.end(), at,
                                       [](std::int64_t t, const auto& s) { return t < s.first; });
            if (it != delivered.begin()) d.value = detectorValue(d.kind, std::prev(it)->second);
        }
        result.events = groupEvents(result.detections, result.interval);
        std::size_t fix = 0;
        const DriveEvent* lastFix = nullptr;
        for (Event& e : result.events) {  // by start time, as the drive's events
            for (; fix < drive.events.size() && drive.events[fix].seconds() <= e.start; ++fix)
                if (drive.events[fix].fix) lastFix = &drive.events[fix];
            if (lastFix) e.where = lastFix->fix->coordinate;
        }
        result.fixGaps = fixGaps(drive);
        if (aligner) result.mounting = aligner->rotation();
        if (!options.outboxDirectory.empty()) {
            if (auto outbox = env.services().openOutbox()) outbox->waitUntilIdle();
            const KeptInOutbox kept = keptInOutbox(options.outboxDirectory, keptBefore);
            result.recordsWaiting = static_cast<std::size_t>(kept.records);
            result.tripsWaiting = static_cast<std::size_t>(kept.trips);
            problems.reset();
        }
        result.wallSeconds = duration<double>(steady_clock::now() - wallStart).count();
        return result;
    };

    // The bands come first: without them the drive would be charged nothing, and a service that
    // does not answer is better found before the drive than after it.
    const auto bands = thresholds.wait(options.serviceTimeout);
    result.thresholdsArrived = bands && !bands->userInfo;
    if (!result.thresholdsArrived) {
        const std::string why =
            tap->problem().empty() ? "no usable threshold reply" : tap->problem();
        if (options.outboxDirectory.empty()) {
            result.serviceUnreachable = true;
            result.failureCode = 2;
            result.failureTitle = "service unreachable";
            result.failureMessage = "the service at " + options.baseURL + " did not answer: " + why;
            return finish();
        }
        say("the service did not answer (" + why +
            "); recording into the outbox, scored with the bands an earlier run kept there, if "
            "any");
    } else {
        say("bands received from " + options.baseURL);
    }

    if (options.live && !options.live->waitForPosition(*queue, say)) {
        result.failureTitle = "no position";
        result.failureMessage = "the location source gave no current position before the stop";
        return finish();
    }
    if (!engine->startTrip()) {
        listener->result(result);
        if (result.failure().empty()) result.failureTitle = "the trip did not start";
        return finish();
    }
    tap->setTrip(engine->DrivingID());
    result.interval = motion->deviceMotionUpdateInterval();
    if (options.live) options.live->run(*engine, *queue, result);
    const std::int64_t intervalNs =
        std::max<std::int64_t>(1'000'000, std::llround(result.interval * 1e9));
    // Live, the trip has run already: there is no drive to play.
    const std::int64_t lastNs = options.live           ? -1
                                : drive.events.empty() ? 0
                                                       : drive.events.back().t;
    // The engine sends a bulk at a time, the next when the last is answered, so playing the drive
    // far ahead of the uploads only piles records up in its buffer (where each answered bulk is
    // erased from the front), to be sent after the drive anyway: hold the drive back to two bulks
    // ahead of what has gone out. A service that keeps up answers in milliseconds; one that takes
    // seconds is not waited for again.
    std::size_t pace =
        static_cast<std::size_t>(std::max<std::int64_t>(engine->bulkMotionDataSize(), 0)) * 2;
    const milliseconds paceWait = std::min<milliseconds>(options.serviceTimeout, seconds(2));
    ReplayProgress progress;
    // The last delivery is the first at or after the drive's last event, so that a final fix or
    // sample between two deliveries is still delivered.
    const std::int64_t ticks = (lastNs + intervalNs - 1) / intervalNs + 1;
    progress.total = static_cast<std::size_t>(ticks);
    delivered.reserve(progress.total);

    // Motion goes in at the engine's interval whatever the recording's rate, holding the latest
    // recorded sample between recorded ones; fixes go in when they were recorded. An event at
    // the same instant as a delivery comes first.
    const DriveEvent* latest = nullptr;
    std::size_t next = 0;
    for (std::int64_t i = 0; i < ticks; ++i) {
        const std::int64_t tick = i * intervalNs;
        for (; next < drive.events.size() && drive.events[next].t <= tick; ++next) {
            const DriveEvent& e = drive.events[next];
            if (e.motion) latest = &e;
            if (!e.fix) continue;
            clock->setNow(start + duration_cast<system_clock::duration>(nanoseconds(e.t)));
            platform::Location fix = *e.fix;
            fix.timestamp = clock->now();
            engine->didUpdateLocations({fix});
            queue->runUntilIdle();
            if (result.fixes++ == 0) {
                // In real time the weather reply lands long before the next fix; give the first
                // one that chance, so the engine does not ask again at every fix.
                weatherAnswered.wait(milliseconds(2000));
            }
        }
        if (latest) {
            if (pace > 0 &&
                !tap->waitForUploads(result.samples, pace, steady_clock::now() + paceWait))
                pace = 0;
            clock->setNow(start + duration_cast<system_clock::duration>(nanoseconds(tick)));
            phone.device->setOrientation(latest->orientation);
            motion->push(*latest->motion);
            ++result.samples;
            queue->runUntilIdle();
            delivered.emplace_back(tick,
                                   aligner ? aligner->align(*latest->motion) : *latest->motion);
        }
        ++progress.done;
        if (options.progress && progress.done % 256 == 0) {
            progress.driveSeconds = static_cast<double>(tick) * 1e-9;
            options.progress(progress);
        }
    }
    progress.done = progress.total;
    progress.driveSeconds = static_cast<double>((ticks - 1) * intervalNs) * 1e-9;
    if (options.progress) options.progress(progress);

    engine->stopTrip();
    listener->markStopped();
    say("trip stopped; uploading");
    const auto deadline = steady_clock::now() + options.serviceTimeout;
    while (steady_clock::now() < deadline) {
        queue->runUntilIdle();  // geocoder answers arrive through the main queue
        if (listener->waitDone(milliseconds(20))) break;
    }
    queue->runUntilIdle();
    // The trip's outcome can come before its last motion bulk settles.
    tap->waitIdle(deadline);
    if (auto outbox = env.services().openOutbox()) outbox->waitUntilIdle();
    listener->result(result);
    if (!result.finished && result.failure().empty()) {
        result.failureTitle = "no answer from the service";
        result.failureMessage = tap->problem();
    }

    if (result.finished && options.fetchRoute) {
        Awaited drawn(*env.notifications, "drawPassedCoordinates");
        result.trip->getPassedCoordinatesFromServer();
        if (drawn.wait(options.serviceTimeout))
            result.route = result.trip->route();
        else
            result.routeProblem = "the route did not come back: " + tap->problem();
    }
    return finish();
}

}  // namespace kestrelvue::tools
