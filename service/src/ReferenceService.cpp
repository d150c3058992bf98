#include <kestrelvue/Limits.h>
#include <kestrelvue/service/ReferenceService.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "DefaultBands.h"
#include "HttpServer.h"
#include "Requests.h"
#include "Storage.h"
#include "core/Json.h"
#include "records/EventKinds.h"

namespace kestrelvue::service {
namespace {

using detail::kEventKinds;
using detail::namesOf;
using platform::TimePoint;

constexpr const char* kJson = "application/json; charset=utf-8";

Reply jsonReply(std::string body) {
    return Reply{200, kJson, std::move(body), {}};
}

Reply jsonReply(const Value& value) {
    std::string body;
    if (!json::writeTo(body, value)) return textReply(500, "non-finite number in reply");
    return jsonReply(std::move(body));
}

double parseField(std::string_view field) {
    while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
    double value = 0;
    const auto read = std::from_chars(field.data(), field.data() + field.size(), value);
    return read.ec == std::errc() && std::isfinite(value) ? value : 0.0;
}

/// The route of a long trip, thinned evenly to at most `limit` points; every fault point stays.
std::vector<MotionRecord> thinned(const std::vector<MotionRecord>& points, std::size_t limit) {
    const auto faults = static_cast<std::size_t>(std::count_if(
        points.begin(), points.end(), [](const MotionRecord& p) { return p.hasFault(); }));
    const std::size_t plain = points.size() - faults, room = limit > faults ? limit - faults : 0;
    std::vector<MotionRecord> out;
    std::size_t seen = 0, kept = 0;
    for (const MotionRecord& p : points) {
        bool keep = p.hasFault();
        if (!keep) {
            // Kept when the even share of the room reaches the next whole point.
            keep = room > 0 && seen++ * room / plain >= kept;
            kept += keep;
        }
        if (keep) out.push_back(p);
    }
    return out;
}

/// "yyyy-MM-dd HH:mm:ss +0000" (UTC) to "yyyy-MM-ddTHH:mm:ss" in this machine's local time, which
/// is how clients read history dates. Unparseable texts are passed through unchanged.
std::string utcToLocalPattern(const std::string& utc) {
    std::tm tm{};
    if (!strptime(utc.c_str(), "%Y-%m-%d %H:%M:%S", &tm)) return utc;
    const std::time_t t = timegm(&tm);
    std::tm local{};
    char out[32];
    std::strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%S", localtime_r(&t, &local));
    return out;
}

/// A trip as the history lists it, its dates in this machine's local time.
Value tripValue(const DrivingRow& d) {
    Object trip{{"DrivingGuid", d.guid},
                {"UserId", d.userID},
                {"StartDateTime", utcToLocalPattern(d.startDateTime)},
                {"EndDateTime", utcToLocalPattern(d.endDateTime)},
                {"StartLocation", d.startLocation},
                {"EndLocation", d.endLocation},
                {"StartLocationLatitude", d.startLat},
                {"StartLocationLongitude", d.startLong},
                {"EndLocationLatitude", d.endLat},
                {"EndLocationLongitude", d.endLong},
                {"Score", d.score},
                {"FuelEfficiencyPenalty", d.fuelPenalty},
                {"TotalDistance", d.totalDistance},
                {"TimeElapsed", d.timeElapsed}};
    for (const auto kind : kEventKinds) {
        const std::string stem = "Sharp" + std::string(namesOf(kind).wire);
        trip.emplace(stem + "Count", d.counts[static_cast<std::size_t>(kind)]);
        trip.emplace(stem + "Penalty", d.penalties[static_cast<std::size_t>(kind)]);
    }
    return trip;
}

/// Logins refused for a while once a mobile number or a client address has failed too often, so
/// that tokens cannot be guessed at the speed of the network.
class LoginLimiter {
public:
    /// Seconds to wait before trying again, or 0 when a try is allowed now.
    std::int64_t wait(const std::string& mobile, const std::string& address, TimePoint now) {
        std::lock_guard lock(mutex_);
        std::int64_t wait = 0;
        for (const auto& [key, allowed] : {std::pair("m:" + mobile, 5), {"a:" + address, 20}}) {
            const auto it = failures_.find(key);
            if (it == failures_.end() || it->second.second < allowed) continue;
            const auto left = it->second.first + kWindow - now;
            wait = std::max(wait, std::chrono::ceil<std::chrono::seconds>(left).count());
        }
        return wait;
    }
    void failed(const std::string& mobile, const std::string& address, TimePoint now) {
        std::lock_guard lock(mutex_);
        if (failures_.size() > 100000)
            std::erase_if(failures_,
                          [now](const auto& f) { return now - f.second.first >= kWindow; });
        for (const std::string& key : {"m:" + mobile, "a:" + address}) {
            auto& [since, count] = failures_[key];
            if (now - since >= kWindow) since = now, count = 0;
            ++count;
        }
    }

private:
    static constexpr std::chrono::seconds kWindow{60};
    std::mutex mutex_;
    std::unordered_map<std::string, std::pair<TimePoint, int>> failures_;  // since, how many
};

/// What the handlers share.
struct State {
    ServiceOptions options;
    std::unique_ptr<Storage> storage;
    std::mutex bandsMutex;
    std::string bands;  // the threshold reply's body, checked
    LoginLimiter logins;

    TimePoint now() const { return options.clock ? options.clock->now() : TimePoint::clock::now(); }
};

// One handler per endpoint; `req.tail` is what follows the route's path.

Reply getThresholds(State& s, Request&) {
    std::lock_guard lock(s.bandsMutex);
    return jsonReply(s.bands);
}

Reply addMotionData(State& s, Request& req) {
    auto bulk = parseMotionBulk(req.body, false);
    if (!bulk) return textReply(400, bulk.error);
    if (!s.storage->addMotion(*bulk)) return textReply(500, "the records could not be stored");
    return jsonReply(std::string("true"));
}

Reply addDrivingScore(State& s, Request& req) {
    auto row = parseDrivingScore(req.body);
    if (!row) return textReply(400, row.error);
    if (!s.storage->saveDriving(*row)) return textReply(500, "the trip could not be stored");
    return jsonReply(std::string("true"));
}

// A long trip's route is thinned to what the library accepts, in points and in bytes.
Reply getPassedCoordinates(State& s, Request& req) {
    const auto stored = s.storage->motion(req.tail);
    if (!stored) return textReply(500, stored.error);
    std::size_t limit = std::min(s.options.maxRoutePoints, stored->size());
    for (;;) {
        const std::vector<MotionRecord> points = thinned(*stored, limit);
        List list;
        for (const MotionRecord& p : points) {
            Object point{{"Latitude", p.latitude},
                         {"Longitude", p.longitude},
                         {"HasFault", p.hasFault()},
                         {"FuelEfficiencyPenaltyPerKM", p.fuelPerKM}};
            for (const auto kind : kEventKinds) {
                const std::string stem(namesOf(kind).wire);
                point.emplace(stem + "Penalty", p.penalty[static_cast<std::size_t>(kind)]);
                point.emplace(stem + "PenaltyPerKM",
                              p.penaltyPerKM[static_cast<std::size_t>(kind)]);
            }
            list.push_back(std::move(point));
        }
        Reply reply = jsonReply(list);
        // Fewer points in proportion, with a margin; the fault points alone are the floor.
        const std::size_t fits = points.size() * s.options.maxRouteBytes / (reply.body.size() + 1);
        if (reply.body.size() <= s.options.maxRouteBytes || fits * 20 / 21 >= points.size() ||
            points.size() < limit)
            return reply;
        limit = fits * 20 / 21;
    }
}

Reply getDriving(State& s, Request& req) {
    std::string body = "[";
    for (const DrivingRow& d : s.storage->drivings(*parsePathInteger(req.tail))) {
        if (body.size() > 1) body += ',';
        if (!json::writeTo(body, tripValue(d))) return textReply(500, "non-finite number in reply");
    }
    return jsonReply(body + "]");
}

Reply getDrivingSummary(State& s, Request& req) {
    const SummaryRow trips = s.storage->summary(*parsePathInteger(req.tail));
    // Metres, as in the history.
    Object summary{{"NumberOfTrips", trips.trips},
                   {"TotalDistance", trips.metres},
                   {"AverageScore", trips.averageScore}};
    return jsonReply(List{Value(std::move(summary))});
}

Reply getWeather(State&, Request& req) {
    const double lat = parseField(req.param("latitude"));
    const double lon = parseField(req.param("longitude"));
    if (std::fabs(lat) > 90 || std::fabs(lon) > 180)
        return textReply(400, "latitude must be within ±90 and longitude within ±180");
    // A deterministic stand-in for a weather source: colder away from the equator.
    const double temperature = std::round((28.0 - std::fabs(lat) * 0.4) * 10.0) / 10.0;
    return jsonReply(Object{{"Temperature", temperature}, {"Latitude", lat}, {"Longitude", lon}});
}

Reply loginWithToken(State& s, Request& req) {
    auto login = parseLogin(req.body);
    if (!login) return textReply(400, login.error);
    if (const auto wait = s.logins.wait(login->mobile, req.client, s.now()); wait > 0) {
        Reply refused = textReply(429, "too many failed logins; try again later");
        refused.headers.emplace_back("Retry-After", std::to_string(wait));
        return refused;
    }
    auto user = s.storage->login(login->mobile, login->token);
    if (!user) {
        s.logins.failed(login->mobile, req.client, s.now());
        // The same answer for an unknown number and a wrong token.
        return textReply(403, "expired");
    }
    return jsonReply(Object{{"Id", user->id}, {"UserTypeId", user->typeId}});
}

Reply addUser(State& s, Request& req) {
    auto user = parseAddUser(req.body);
    if (!user) return textReply(400, user.error);
    const AddedUser added = s.storage->addUser(*user);
    if (added.referenceTaken) return textReply(409, "ReferenceId: held by another account");
    if (added.id == 0) return textReply(400, "user not added");
    return textReply(200, std::to_string(added.id));
}

Reply addFriend(State& s, Request& req) {
    auto request = parseAddFriend(req.body);
    if (!request) return textReply(400, request.error);
    if (!s.storage->addFriend(request->referenceId, request->friendReferenceId))
        return textReply(404, "Kullanıcı bulunamadı");
    return textReply(200, "OK");
}

Reply getLeaderShip(State& s, Request& req) {
    const std::string rankType = req.param("RankType");
    const auto scope =
        rankType.empty() ? std::optional<std::int64_t>(0) : parsePathInteger(rankType);
    if (!scope || *scope < 0 || *scope > 3) return textReply(400, "RankType must be 0, 1, 2 or 3");
    auto me = s.storage->user(*parsePathInteger(req.tail));
    if (!me) return textReply(404, "Kullanıcı bulunamadı");
    auto rows = s.storage->leaders(*me, static_cast<int>(*scope));
    List list;
    std::int64_t rank = 0;
    for (const LeaderRow& row : rows) {
        list.push_back(Object{{"UserID", std::to_string(row.id)},
                              {"RankType", *scope},
                              {"Name", row.name},
                              {"CountryName", row.country},
                              {"CityName", row.city},
                              {"TotalDriving", row.trips},
                              {"TotalUser", static_cast<std::int64_t>(rows.size())},
                              {"AVGDrivingScore", row.averageScore},
                              {"UserRank", ++rank},
                              {"IsCurrentUser", row.id == me->id}});
    }
    return jsonReply(list);
}

Reply healthz(State& s, Request&) {
    return s.storage->healthy() ? textReply(200, "ok")
                                : textReply(503, "the storage does not answer");
}

}  // namespace

struct ReferenceService::Impl : State {
    std::unique_ptr<HttpServer> server;
    std::string error;

    bool loadBands();
    bool openStorage() {
        if (!storage) storage = openSqliteStorage(options.databasePath, error);
        return storage != nullptr;
    }
    Reply route(Request& req);
};

// A path ending in "/" takes what follows it, which may not be empty; `user`: an integer user
// identifier. A known path with another method is 405 (with Allow), an unknown one 404.
Reply ReferenceService::Impl::route(Request& req) {
    struct Route {
        const char* method;
        std::string_view path;
        bool user;
        Reply (*handle)(State&, Request&);
    };
    static constexpr Route kRoutes[] = {
        {"GET", "/api/Driving/getThresholds", false, &getThresholds},
        {"POST", "/api/Driving/addMotionData", false, &addMotionData},
        {"POST", "/api/Driving/addDrivingScore", false, &addDrivingScore},
        {"GET", "/api/Driving/getPassedCoordinates/", false, &getPassedCoordinates},
        {"GET", "/api/Driving/getDriving/", true, &getDriving},
        {"GET", "/api/Driving/getDrivingSummary/", true, &getDrivingSummary},
        {"GET", "/api/General/getWeatherDataByLatLon/", true, &getWeather},
        {"POST", "/api/User/LoginWithToken", false, &loginWithToken},
        {"POST", "/api/User/AddUser", false, &addUser},
        {"POST", "/api/General/AddFriend", false, &addFriend},
        {"GET", "/api/General/getLeaderShip/", true, &getLeaderShip},
        {"GET", "/healthz", false, &healthz},
    };
    std::string allowed;
    for (const Route& r : kRoutes) {
        if (!req.path.starts_with(r.path) ||
            (req.path.size() == r.path.size()) == r.path.ends_with('/'))
            continue;
        if (req.method == r.method) {
            req.tail = req.path.substr(r.path.size());
            if (r.user && !parsePathInteger(req.tail))
                return textReply(400, "the path must end in an integer user identifier");
            return r.handle(*this, req);
        }
        allowed += allowed.empty() ? r.method : std::string(", ") + r.method;
    }
    if (allowed.empty()) return textReply(404, "no such path");
    Reply refused = textReply(405, "method not allowed; use " + allowed);
    refused.headers.emplace_back("Allow", allowed);
    return refused;
}

bool ReferenceService::Impl::loadBands() {
    std::string text(kShippedBands);
    if (!options.bandsFile.empty()) {
        std::ifstream file(options.bandsFile, std::ios::binary);
        if (!file) {
            error = "cannot read bands file " + options.bandsFile;
            return false;
        }
        text.assign(std::istreambuf_iterator<char>(file), {});
    }
    auto parsed = parseBands(text);
    if (!parsed) {
        error = "bands file " + options.bandsFile + ": " + parsed.error;
        return false;
    }
    std::string body = json::write(*parsed.value).value_or("");  // its numbers are finite
    std::lock_guard lock(bandsMutex);
    bands = std::move(body);
    return true;
}

ReferenceService::ReferenceService(ServiceOptions options) : impl_(std::make_unique<Impl>()) {
    impl_->options = std::move(options);
}

ReferenceService::~ReferenceService() {
    stop();
}

bool ReferenceService::start() {
    Impl& s = *impl_;
    if (!s.openStorage() || !s.loadBands()) return false;
    s.server = std::make_unique<HttpServer>(s.options, [&s](Request& req) { return s.route(req); });
    return s.server->start(s.error);
}

void ReferenceService::stop() {
    if (impl_->server) impl_->server->stop();
}

bool ReferenceService::reloadBands() {
    return impl_->loadBands();
}

std::string ReferenceService::issueToken(const std::string& mobile) {
    return impl_->openStorage() ? impl_->storage->issueToken(mobile) : std::string();
}

int ReferenceService::port() const {
    return impl_->server ? impl_->server->port() : 0;
}

std::string ReferenceService::baseURL() const {
    return "http://" + impl_->options.host + ":" + std::to_string(port());
}

const std::string& ReferenceService::error() const {
    return impl_->error;
}

}  // namespace kestrelvue::service
