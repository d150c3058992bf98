#include <httplib.h>
#include <kestrelvue/Json.h>
#include <kestrelvue/service/ReferenceService.h>

#include <charconv>
#include <cmath>
#include <ctime>
#include <string_view>
#include <thread>

#include "Storage.h"

namespace kestrelvue::service {
namespace {

constexpr const char* kJson = "application/json; charset=utf-8";
constexpr const char* kText = "text/plain; charset=utf-8";

void badRequest(httplib::Response& res, std::string_view why) {
    res.status = 400;
    res.set_content(std::string(why), kText);
}

void replyJson(httplib::Response& res, const Value& value) {
    std::string body;
    if (!json::writeTo(body, value)) {
        res.status = 500;
        res.set_content("non-finite number in reply", kText);
        return;
    }
    res.set_content(body, kJson);
}

/// The request body as a JSON object, or nullopt after answering 400.
std::optional<Value> objectBody(const httplib::Request& req, httplib::Response& res) {
    json::ParseResult parsed = json::parse(req.body);
    if (!parsed || !parsed.value->isObject()) {
        badRequest(res, "request body must be a JSON object");
        return std::nullopt;
    }
    return std::move(*parsed.value);
}

std::string text(const Value& object, std::string_view key) {
    const Value* v = object.find(key);
    return v && v->isString() ? *v->asString() : std::string();
}

double number(const Value& object, std::string_view key) {
    const Value* v = object.find(key);
    std::optional<double> d = v ? v->asNumber() : std::nullopt;
    return d && std::isfinite(*d) ? *d : 0.0;
}

std::int64_t integer(const Value& object, std::string_view key) {
    const Value* v = object.find(key);
    if (!v) return 0;
    if (auto i = v->asInt()) return *i;
    if (auto d = v->asNumber(); d && std::isfinite(*d) && std::fabs(*d) < 9e18) {
        return static_cast<std::int64_t>(*d);
    }
    return 0;
}

std::optional<std::int64_t> pathInteger(const std::string& text) {
    std::int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

double parseField(std::string_view field) {
    while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
    double value = 0;
    auto [end, ec] = std::from_chars(field.data(), field.data() + field.size(), value);
    (void)end;
    return ec == std::errc() && std::isfinite(value) ? value : 0.0;
}

/// The samples of a bulk: records end with ";", fields with ",". Position is fields 17 and 18,
/// the penalties 25 to 35. A record with fewer fields is malformed and rejects the bulk.
std::optional<std::vector<PointRow>> parseMotionText(std::string_view text) {
    std::vector<PointRow> points;
    while (!text.empty()) {
        std::size_t end = text.find(';');
        std::string_view record = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (record.empty()) continue;
        std::vector<std::string_view> fields;
        while (!record.empty()) {
            std::size_t comma = record.find(',');
            fields.push_back(record.substr(0, comma));
            record =
                comma == std::string_view::npos ? std::string_view() : record.substr(comma + 1);
        }
        if (fields.size() < 39) return std::nullopt;
        PointRow p;
        p.latitude = parseField(fields[16]);
        p.longitude = parseField(fields[17]);
        for (int i = 0; i < 5; ++i) {
            p.penalty[i] = parseField(fields[24 + i]);
            p.penaltyPerKM[i] = parseField(fields[29 + i]);
        }
        p.fuelPerKM = parseField(fields[34]);
        points.push_back(p);
    }
    return points;
}

/// "yyyy-MM-dd HH:mm:ss +0000" (UTC) to "yyyy-MM-ddTHH:mm:ss" in this machine's local time, which
/// is how clients read history dates. Unparseable texts are passed through unchanged.
std::string utcToLocalPattern(const std::string& utc) {
    std::tm tm{};
    int offset = 0;
    if (std::sscanf(utc.c_str(), "%4d-%2d-%2d %2d:%2d:%2d %d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
                    &tm.tm_hour, &tm.tm_min, &tm.tm_sec, &offset) < 6) {
        return utc;
    }
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    std::time_t t = timegm(&tm);
    std::tm local{};
    localtime_r(&t, &local);
    char out[32];
    std::strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%S", &local);
    return out;
}

}  // namespace

struct ReferenceService::Impl {
    ServiceOptions options;
    Storage storage;
    httplib::Server server;
    std::thread thread;
    int port = 0;
    std::string error;

    void routes();
    bool bind();
};

void ReferenceService::Impl::routes() {
    server.set_payload_max_length(options.maxBodyBytes);

    server.Get("/api/Driving/getThresholds",
               [this](const httplib::Request&, httplib::Response& res) {
                   List list;
                   for (const ThresholdRow& t : storage.thresholds()) {
                       list.push_back(Object{{"_enmThresholdName", t.name},
                                             {"_limitStart", t.limitStart},
                                             {"_limitEnd", t.limitEnd},
                                             {"_impact", t.impact},
                                             {"_perKilometer", t.perKilometer}});
                   }
                   replyJson(res, list);
               });

    server.Post("/api/Driving/addMotionData",
                [this](const httplib::Request& req, httplib::Response& res) {
                    auto body = objectBody(req, res);
                    if (!body) return;
                    std::string guid = text(*body, "DrivingGuid");
                    if (guid.empty()) return badRequest(res, "DrivingGuid missing");
                    auto points = parseMotionText(text(*body, "MotionStr"));
                    if (!points) return badRequest(res, "MotionStr malformed");
                    storage.addPoints(guid, integer(*body, "UserID"), *points);
                    res.set_content("true", kJson);
                });

    server.Post("/api/Driving/addDrivingScore",
                [this](const httplib::Request& req, httplib::Response& res) {
                    auto body = objectBody(req, res);
                    if (!body) return;
                    DrivingRow d;
                    d.userID = integer(*body, "userID");
                    d.guid = text(*body, "drivingGuid");
                    if (d.guid.empty()) return badRequest(res, "drivingGuid missing");
                    d.startDateTime = text(*body, "startDateTime");
                    d.endDateTime = text(*body, "endDateTime");
                    d.startLocation = text(*body, "startLocation");
                    d.endLocation = text(*body, "endLocation");
                    d.startLat = number(*body, "startLocationLatitude");
                    d.startLong = number(*body, "startLocationLongitude");
                    d.endLat = number(*body, "endLocationLatitude");
                    d.endLong = number(*body, "endLocationLongitude");
                    d.score = number(*body, "Score");
                    static constexpr const char* kinds[5] = {"Cornering", "Speeding", "Braking",
                                                             "Elevating", "LaneChanging"};
                    for (int i = 0; i < 5; ++i) {
                        d.counts[i] = integer(*body, std::string("sharp") + kinds[i] + "Count");
                        d.penalties[i] = number(*body, std::string("sharp") + kinds[i] + "Penalty");
                    }
                    d.fuelPenalty = number(*body, "fuelEfficiencyPenalty");
                    d.totalDistance = number(*body, "totalDistance");
                    d.timeElapsed = text(*body, "timeElapsed");
                    storage.saveDriving(d);
                    res.set_content("true", kJson);
                });

    server.Get(R"(/api/Driving/getPassedCoordinates/(.+))",
               [this](const httplib::Request& req, httplib::Response& res) {
                   static constexpr const char* kinds[5] = {"Cornering", "Speeding", "Braking",
                                                            "Elevating", "LaneChanging"};
                   List list;
                   for (const PointRow& p : storage.points(req.matches[1])) {
                       Object point{{"Latitude", p.latitude},
                                    {"Longitude", p.longitude},
                                    {"HasFault", p.hasFault()},
                                    {"FuelEfficiencyPenaltyPerKM", p.fuelPerKM}};
                       for (int i = 0; i < 5; ++i) {
                           point.emplace(std::string(kinds[i]) + "Penalty", p.penalty[i]);
                           point.emplace(std::string(kinds[i]) + "PenaltyPerKM", p.penaltyPerKM[i]);
                       }
                       list.push_back(std::move(point));
                   }
                   replyJson(res, list);
               });

    server.Get(R"(/api/Driving/getDriving/(-?\d+))", [this](const httplib::Request& req,
                                                            httplib::Response& res) {
        auto user = pathInteger(req.matches[1]);
        if (!user) return badRequest(res, "user identifier out of range");
        static constexpr const char* kinds[5] = {"Cornering", "Speeding", "Braking", "Elevating",
                                                 "LaneChanging"};
        List list;
        for (const DrivingRow& d : storage.drivings(*user)) {
            Object trip{{"UserId", d.userID},
                        {"DrivingGuid", d.guid},
                        {"StartDateTime", utcToLocalPattern(d.startDateTime)},
                        {"StartLocation", d.startLocation},
                        {"StartLocationLatitude", d.startLat},
                        {"StartLocationLongitude", d.startLong},
                        {"EndDateTime", utcToLocalPattern(d.endDateTime)},
                        {"EndLocation", d.endLocation},
                        {"EndLocationLatitude", d.endLat},
                        {"EndLocationLongitude", d.endLong},
                        {"Score", d.score},
                        {"FuelEfficiencyPenalty", d.fuelPenalty},
                        {"TimeElapsed", d.timeElapsed},
                        {"TotalDistance", d.totalDistance}};
            for (int i = 0; i < 5; ++i) {
                trip.emplace(std::string("Sharp") + kinds[i] + "Count", d.counts[i]);
                trip.emplace(std::string("Sharp") + kinds[i] + "Penalty", d.penalties[i]);
            }
            list.push_back(std::move(trip));
        }
        replyJson(res, list);
    });

    server.Get(R"(/api/Driving/getDrivingSummary/(-?\d+))", [this](const httplib::Request& req,
                                                                   httplib::Response& res) {
        auto user = pathInteger(req.matches[1]);
        if (!user) return badRequest(res, "user identifier out of range");
        auto trips = storage.drivings(*user);
        double scores = 0, metres = 0;
        for (const DrivingRow& d : trips) {
            scores += d.score;
            metres += d.totalDistance;
        }
        Object summary{{"NumberOfTrips", static_cast<std::int64_t>(trips.size())},
                       {"TotalDistance", metres / 1000.0},  // kilometres
                       {"AverageScore", trips.empty() ? 0.0 : scores / double(trips.size())}};
        replyJson(res, List{Value(std::move(summary))});
    });

    server.Get(R"(/api/General/getWeatherDataByLatLon/(-?\d+))", [](const httplib::Request& req,
                                                                    httplib::Response& res) {
        double lat = parseField(req.get_param_value("latitude"));
        double lon = parseField(req.get_param_value("longitude"));
        // A deterministic stand-in for a weather source: colder away from the equator.
        double temperature = std::round((28.0 - std::fabs(lat) * 0.4) * 10.0) / 10.0;
        replyJson(res, Object{{"Temperature", temperature}, {"Latitude", lat}, {"Longitude", lon}});
    });

    server.Post("/api/User/LoginWithToken",
                [this](const httplib::Request& req, httplib::Response& res) {
                    auto body = objectBody(req, res);
                    if (!body) return;
                    std::string mobile = text(*body, "Mobile"), token = text(*body, "Token");
                    if (mobile.empty() || token.empty())
                        return badRequest(res, "Mobile and Token required");
                    bool expired = false;
                    auto user = storage.login(mobile, token, expired);
                    if (expired) {
                        res.status = 403;
                        res.set_content("expired", kText);
                        return;
                    }
                    if (!user) return badRequest(res, "login failed");
                    replyJson(res, Object{{"Id", user->id}, {"UserTypeId", user->typeId}});
                });

    server.Post("/api/User/AddUser", [this](const httplib::Request& req, httplib::Response& res) {
        auto body = objectBody(req, res);
        if (!body) return;
        UserRow u;
        u.firstName = text(*body, "FirstName");
        u.lastName = text(*body, "LastName");
        u.email = text(*body, "Email");
        u.genderId = integer(*body, "GenderId");
        u.referenceId = text(*body, "ReferenceId");
        std::int64_t id = storage.addUser(u);
        if (id == 0) return badRequest(res, "user not added");
        res.set_content(std::to_string(id), kText);
    });

    server.Post(
        "/api/General/AddFriend", [this](const httplib::Request& req, httplib::Response& res) {
            auto body = objectBody(req, res);
            if (!body) return;
            if (!storage.addFriend(text(*body, "ReferenceID"), text(*body, "FriendReferenceID"))) {
                res.status = 404;
                res.set_content("Kullanıcı bulunamadı", kText);
                return;
            }
            res.set_content("OK", kText);
        });

    server.Get(R"(/api/General/getLeaderShip/(-?\d+))",
               [this](const httplib::Request& req, httplib::Response& res) {
                   auto id = pathInteger(req.matches[1]);
                   auto me = id ? storage.user(*id) : std::nullopt;
                   if (!me) {
                       res.status = 404;
                       res.set_content("Kullanıcı bulunamadı", kText);
                       return;
                   }
                   auto scope = pathInteger(req.get_param_value("RankType")).value_or(0);
                   if (scope < 0 || scope > 3) scope = 0;
                   auto rows = storage.leaders(*me, static_cast<int>(scope));
                   List list;
                   std::int64_t rank = 0;
                   for (const LeaderRow& row : rows) {
                       list.push_back(Object{{"UserID", std::to_string(row.id)},
                                             {"RankType", scope},
                                             {"Name", row.name},
                                             {"CountryName", row.country},
                                             {"CityName", row.city},
                                             {"TotalDriving", row.trips},
                                             {"TotalUser", static_cast<std::int64_t>(rows.size())},
                                             {"AVGDrivingScore", row.averageScore},
                                             {"UserRank", ++rank},
                                             {"IsCurrentUser", row.id == me->id}});
                   }
                   replyJson(res, list);
               });
}

bool ReferenceService::Impl::bind() {
    if (!storage.open(options.databasePath, error)) return false;
    routes();
    port = options.port == 0
               ? server.bind_to_any_port(options.host)
               : (server.bind_to_port(options.host, options.port) ? options.port : -1);
    if (port <= 0) {
        error = "cannot listen on " + options.host + ":" + std::to_string(options.port);
        return false;
    }
    return true;
}

ReferenceService::ReferenceService(ServiceOptions options) : impl_(std::make_unique<Impl>()) {
    impl_->options = std::move(options);
}

ReferenceService::~ReferenceService() {
    stop();
}

bool ReferenceService::start() {
    if (!impl_->bind()) return false;
    // The socket already listens: connections made from now on queue until the loop accepts.
    impl_->thread = std::thread([impl = impl_.get()] { impl->server.listen_after_bind(); });
    return true;
}

bool ReferenceService::run() {
    if (!impl_->bind()) return false;
    return impl_->server.listen_after_bind();
}

void ReferenceService::stop() {
    impl_->server.stop();
    if (impl_->thread.joinable()) impl_->thread.join();
}

int ReferenceService::port() const {
    return impl_->port;
}

std::string ReferenceService::baseURL() const {
    return "http://" + impl_->options.host + ":" + std::to_string(impl_->port);
}

const std::string& ReferenceService::error() const {
    return impl_->error;
}

}  // namespace kestrelvue::service
