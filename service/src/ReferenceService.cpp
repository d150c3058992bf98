#include <httplib.h>
#include <kestrelvue/service/ReferenceService.h>
#include <malloc.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string_view>
#include <thread>

#include "BufferedServer.h"
#include "DefaultBands.h"
#include "Requests.h"
#include "Storage.h"
#include "core/Json.h"

namespace kestrelvue::service {
namespace {

constexpr const char* kJson = "application/json; charset=utf-8";
constexpr const char* kText = "text/plain; charset=utf-8";
constexpr const char* kKinds[5] = {"Cornering", "Speeding", "Braking", "Elevating", "LaneChanging"};

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

double parseField(std::string_view field) {
    while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
    double value = 0;
    auto [end, ec] = std::from_chars(field.data(), field.data() + field.size(), value);
    (void)end;
    return ec == std::errc() && std::isfinite(value) ? value : 0.0;
}

/// The route of a long trip, thinned evenly to at most `limit` points; every fault point stays.
std::vector<MotionRecord> thinned(std::vector<MotionRecord> points, std::size_t limit) {
    if (points.size() <= limit) return points;
    std::size_t faults = 0;
    for (const MotionRecord& p : points) faults += p.hasFault();
    const std::size_t room = limit > faults ? limit - faults : 0;
    const std::size_t plain = points.size() - faults;
    std::vector<MotionRecord> out;
    out.reserve(std::min(points.size(), faults + room));
    std::size_t seen = 0, kept = 0;
    for (const MotionRecord& p : points) {
        if (p.hasFault()) {
            out.push_back(p);
            continue;
        }
        // Keep the plain point when the even share of the room reaches the next whole point.
        if (room > 0 && (seen * room) / plain >= kept) {
            out.push_back(p);
            ++kept;
        }
        ++seen;
    }
    return out;
}

// When the request began, for the access log: the pre-routing handler and the logger run on the
// worker thread that serves the request.
thread_local std::chrono::steady_clock::time_point tRequestStart;

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

/// The members of one JSON object written in turn; the caller names them in the order of their
/// names, the order in which an Object is written, and numbers are written as json::writeTo
/// writes them.
class ObjectWriter {
public:
    explicit ObjectWriter(std::string& out) : out_(out) {}
    ObjectWriter& text(std::string_view name, std::string_view value) {
        json::escapeTo(key(name), value);
        return *this;
    }
    ObjectWriter& integer(std::string_view name, std::int64_t value) {
        char buffer[24];
        key(name).append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
        return *this;
    }
    ObjectWriter& number(std::string_view name, double value) {
        finite_ = finite_ && std::isfinite(value);
        char buffer[32];
        key(name).append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
        return *this;
    }
    /// False when a number was not finite, which JSON cannot carry.
    bool close() {
        out_ += open_ ? "}" : "{}";
        return finite_;
    }

private:
    std::string& key(std::string_view name) {  // names here need no escaping
        out_ += open_ ? ',' : '{';
        open_ = true;
        return out_.append(1, '"').append(name).append("\":");
    }
    std::string& out_;
    bool open_ = false, finite_ = true;
};

/// One trip of the history reply, written straight from its row: a user's history runs to
/// thousands of trips, and a Value of each cost more than the query.
bool writeTrip(std::string& out, const DrivingRow& d) {
    // The kinds in the order of their names: braking, cornering, elevating, lane changing,
    // speeding.
    static constexpr int kByName[5] = {2, 0, 3, 4, 1};
    static const auto names = [] {
        std::array<std::string, 10> n;
        for (std::size_t i = 0; i < 5; ++i) {
            n[2 * i] = std::string("Sharp") + kKinds[kByName[i]] + "Count";
            n[2 * i + 1] = std::string("Sharp") + kKinds[kByName[i]] + "Penalty";
        }
        return n;
    }();
    ObjectWriter trip(out);
    trip.text("DrivingGuid", d.guid)
        .text("EndDateTime", utcToLocalPattern(d.endDateTime))
        .text("EndLocation", d.endLocation)
        .number("EndLocationLatitude", d.endLat)
        .number("EndLocationLongitude", d.endLong)
        .number("FuelEfficiencyPenalty", d.fuelPenalty)
        .number("Score", d.score);
    for (std::size_t i = 0; i < 5; ++i) {
        trip.integer(names[2 * i], d.counts[kByName[i]])
            .number(names[2 * i + 1], d.penalties[kByName[i]]);
    }
    trip.text("StartDateTime", utcToLocalPattern(d.startDateTime))
        .text("StartLocation", d.startLocation)
        .number("StartLocationLatitude", d.startLat)
        .number("StartLocationLongitude", d.startLong)
        .text("TimeElapsed", d.timeElapsed)
        .number("TotalDistance", d.totalDistance)
        .integer("UserId", d.userID);
    return trip.close();
}

}  // namespace

struct ReferenceService::Impl {
    ServiceOptions options;
    std::unique_ptr<Storage> storage;
    BufferedServer server;
    std::thread thread;
    std::atomic<bool> loopEnded{false};
    int port = 0;
    bool opened = false;
    std::string error;
    std::mutex bandsMutex;
    std::string bands;  // the threshold reply's body, checked

    void routes();
    bool loadBands();
    bool openStorage() {
        storage = openSqliteStorage(options.databasePath, error);
        return storage != nullptr;
    }
    bool bind();
};

bool ReferenceService::Impl::loadBands() {
    std::string text;
    if (options.bandsFile.empty()) {
        text = std::string(shippedBands());
    } else {
        std::FILE* f = std::fopen(options.bandsFile.c_str(), "rb");
        if (!f) {
            error = "cannot read bands file " + options.bandsFile;
            return false;
        }
        char buffer[8192];
        for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, f)) > 0;)
            text.append(buffer, n);
        std::fclose(f);
    }
    auto parsed = parseBands(text);
    if (!parsed) {
        error = "bands file " + options.bandsFile + ": " + parsed.error;
        return false;
    }
    std::string body;
    json::writeTo(body, *parsed.value);
    std::lock_guard lock(bandsMutex);
    bands = std::move(body);
    return true;
}

void ReferenceService::Impl::routes() {
    server.set_payload_max_length(options.maxBodyBytes);
    const std::size_t workers = options.workerThreads ? options.workerThreads : 1;
    server.new_task_queue = [workers] { return new httplib::ThreadPool(workers); };
    server.set_read_timeout(options.readTimeoutSeconds, 0);
    server.set_keep_alive_timeout(options.readTimeoutSeconds);
    // A phone posts a bulk every few seconds while it drives: httplib's default of five requests
    // a connection would make it connect anew every fifth bulk.
    server.set_keep_alive_max_count(1000);
    // A reply goes out in two writes (head, then body): with Nagle's algorithm the body waits for
    // the client's delayed acknowledgement of the head, some 40 ms on a kept connection.
    server.set_tcp_nodelay(true);
    // Only SO_REUSEADDR: with SO_REUSEPORT a second service would share a busy port silently.
    server.set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server.set_pre_routing_handler([](const httplib::Request&, httplib::Response&) {
        tRequestStart = std::chrono::steady_clock::now();
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server.set_logger([this](const httplib::Request& req, const httplib::Response& res) {
        if (options.accessLog) {
            const auto ms = std::chrono::duration<double, std::milli>(
                std::chrono::steady_clock::now() - tRequestStart);
            std::fprintf(stderr, "%s %s %d %zu %.1f ms\n", req.method.c_str(), req.path.c_str(),
                         res.status, res.body.size(), ms.count());
        }
        // Large bodies leave the heap fragmented; give the memory back to the system.
        // (A bulk's body is read past req.body: its announced length counts.)
        const auto received = std::max<std::uint64_t>(
            req.body.size(), req.get_header_value<std::uint64_t>("Content-Length"));
        if (received + res.body.size() > (1u << 20)) malloc_trim(0);
    });

    // A known path with another method is 405, not 404.
    auto only = [this](const std::string& pattern, const char* allowed) {
        auto refuse = [allowed](const httplib::Request&, httplib::Response& res) {
            res.status = 405;
            res.set_header("Allow", allowed);
            res.set_content("method not allowed; use " + std::string(allowed), kText);
        };
        if (std::string_view(allowed) != "GET") server.Get(pattern, refuse);
        if (std::string_view(allowed) != "POST") server.Post(pattern, refuse);
        server.Put(pattern, refuse);
        server.Delete(pattern, refuse);
        server.Patch(pattern, refuse);
    };
    // A path identifier that is not an integer is 400.
    auto userOf = [](const httplib::Request& req, httplib::Response& res) {
        auto id = parsePathInteger(req.matches[1].str());
        if (!id) badRequest(res, "the path must end in an integer user identifier");
        return id;
    };

    server.Get("/api/Driving/getThresholds",
               [this](const httplib::Request&, httplib::Response& res) {
                   std::lock_guard lock(bandsMutex);
                   res.set_content(bands, kJson);
               });
    only("/api/Driving/getThresholds", "GET");

    // Bulks are read as they arrive into a warm buffer of the announced size, not grown 4 KB at a
    // time into a fresh string and then copied for the parser.
    server.Post("/api/Driving/addMotionData",
                [this](const httplib::Request& req, httplib::Response& res) {
                    auto bulk = parseMotionBulk(req.body);
                    if (!bulk) return badRequest(res, bulk.error);
                    if (!storage->addMotion(*bulk.value)) {
                        res.status = 500;
                        return res.set_content("the records could not be stored", kText);
                    }
                    res.set_content("true", kJson);
                });
    only("/api/Driving/addMotionData", "POST");

    server.Post("/api/Driving/addDrivingScore",
                [this](const httplib::Request& req, httplib::Response& res) {
                    auto row = parseDrivingScore(req.body);
                    if (!row) return badRequest(res, row.error);
                    if (!storage->saveDriving(*row.value)) {
                        res.status = 500;
                        return res.set_content("the trip could not be stored", kText);
                    }
                    res.set_content("true", kJson);
                });
    only("/api/Driving/addDrivingScore", "POST");

    server.Get(R"(/api/Driving/getPassedCoordinates/(.+))", [this](const httplib::Request& req,
                                                                   httplib::Response& res) {
        List list;
        for (const MotionRecord& p :
             thinned(storage->motion(req.matches[1]), options.maxRoutePoints)) {
            Object point{{"Latitude", p.latitude},
                         {"Longitude", p.longitude},
                         {"HasFault", p.hasFault()},
                         {"FuelEfficiencyPenaltyPerKM", p.fuelPerKM}};
            for (int i = 0; i < 5; ++i) {
                point.emplace(std::string(kKinds[i]) + "Penalty", p.penalty[i]);
                point.emplace(std::string(kKinds[i]) + "PenaltyPerKM", p.penaltyPerKM[i]);
            }
            list.push_back(std::move(point));
        }
        replyJson(res, list);
    });
    only(R"(/api/Driving/getPassedCoordinates/(.+))", "GET");

    server.Get(R"(/api/Driving/getDriving/([^/]+))",
               [this, userOf](const httplib::Request& req, httplib::Response& res) {
                   auto user = userOf(req, res);
                   if (!user) return;
                   const auto trips = storage->drivings(*user);
                   std::string body;
                   body.reserve(trips.size() * 768);
                   body += '[';
                   bool finite = true;
                   for (const DrivingRow& d : trips) {
                       if (body.size() > 1) body += ',';
                       finite = writeTrip(body, d) && finite;
                   }
                   body += ']';
                   if (!finite) {
                       res.status = 500;
                       return res.set_content("non-finite number in reply", kText);
                   }
                   res.set_content(body, kJson);
               });
    only(R"(/api/Driving/getDriving/([^/]+))", "GET");

    server.Get(R"(/api/Driving/getDrivingSummary/([^/]+))",
               [this, userOf](const httplib::Request& req, httplib::Response& res) {
                   auto user = userOf(req, res);
                   if (!user) return;
                   const SummaryRow trips = storage->summary(*user);
                   // Metres, as in the history.
                   Object summary{{"NumberOfTrips", trips.trips},
                                  {"TotalDistance", trips.metres},
                                  {"AverageScore", trips.averageScore}};
                   replyJson(res, List{Value(std::move(summary))});
               });
    only(R"(/api/Driving/getDrivingSummary/([^/]+))", "GET");

    server.Get(R"(/api/General/getWeatherDataByLatLon/([^/]+))", [userOf](
                                                                     const httplib::Request& req,
                                                                     httplib::Response& res) {
        if (!userOf(req, res)) return;
        double lat = parseField(req.get_param_value("latitude"));
        double lon = parseField(req.get_param_value("longitude"));
        // A deterministic stand-in for a weather source: colder away from the equator.
        double temperature = std::round((28.0 - std::fabs(lat) * 0.4) * 10.0) / 10.0;
        replyJson(res, Object{{"Temperature", temperature}, {"Latitude", lat}, {"Longitude", lon}});
    });
    only(R"(/api/General/getWeatherDataByLatLon/([^/]+))", "GET");

    server.Post("/api/User/LoginWithToken",
                [this](const httplib::Request& req, httplib::Response& res) {
                    auto login = parseLogin(req.body);
                    if (!login) return badRequest(res, login.error);
                    auto user = storage->login(login.value->mobile, login.value->token);
                    if (!user) {
                        // The same answer for an unknown number and a wrong token.
                        res.status = 403;
                        return res.set_content("expired", kText);
                    }
                    replyJson(res, Object{{"Id", user->id}, {"UserTypeId", user->typeId}});
                });
    only("/api/User/LoginWithToken", "POST");

    server.Post("/api/User/AddUser", [this](const httplib::Request& req, httplib::Response& res) {
        auto user = parseAddUser(req.body);
        if (!user) return badRequest(res, user.error);
        const AddedUser added = storage->addUser(*user.value);
        if (added.referenceTaken) {
            res.status = 409;
            return res.set_content("ReferenceId: held by another account", kText);
        }
        if (added.id == 0) return badRequest(res, "user not added");
        res.set_content(std::to_string(added.id), kText);
    });
    only("/api/User/AddUser", "POST");

    server.Post(
        "/api/General/AddFriend", [this](const httplib::Request& req, httplib::Response& res) {
            auto request = parseAddFriend(req.body);
            if (!request) return badRequest(res, request.error);
            if (!storage->addFriend(request.value->referenceId, request.value->friendReferenceId)) {
                res.status = 404;
                return res.set_content("Kullanıcı bulunamadı", kText);
            }
            res.set_content("OK", kText);
        });
    only("/api/General/AddFriend", "POST");

    server.Get(R"(/api/General/getLeaderShip/([^/]+))",
               [this, userOf](const httplib::Request& req, httplib::Response& res) {
                   auto id = userOf(req, res);
                   if (!id) return;
                   auto me = storage->user(*id);
                   if (!me) {
                       res.status = 404;
                       return res.set_content("Kullanıcı bulunamadı", kText);
                   }
                   auto scope = parsePathInteger(req.get_param_value("RankType")).value_or(0);
                   if (scope < 0 || scope > 3) scope = 0;
                   auto rows = storage->leaders(*me, static_cast<int>(scope));
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
    only(R"(/api/General/getLeaderShip/([^/]+))", "GET");
}

bool ReferenceService::Impl::bind() {
    if (!opened && !(opened = openStorage())) return false;
    if (!loadBands()) return false;
    routes();
    port = options.port == 0
               ? server.bind_to_any_port(options.host)
               : (server.bind_to_port(options.host, options.port) ? options.port : -1);
    if (port <= 0) {
        error = "cannot listen on " + options.host + ":" + std::to_string(options.port) +
                " (is another service using it?)";
        return false;
    }
    return true;
}

// Bulks of a few hundred kilobytes should reuse warm memory, and uploads of megabytes should go
// back to the system as soon as they are stored. glibc's defaults do neither here: each worker
// thread may get an arena of its own (up to eight per core), and after the first large block is
// freed its threshold for mapping blocks apart rises, so large uploads stay in those arenas.
void tuneAllocatorForService() {
    mallopt(M_ARENA_MAX, 2);
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    mallopt(M_TRIM_THRESHOLD, 8 << 20);
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
    impl_->thread = std::thread([impl = impl_.get()] {
        impl->server.listen_after_bind();
        impl->loopEnded = true;
    });
    // httplib's stop ends the loop only once it runs: a stop before then would leave it waiting
    // in accept for good.
    while (!impl_->server.is_running() && !impl_->loopEnded)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    return true;
}

bool ReferenceService::run() {
    if (!impl_->bind()) return false;
    return impl_->server.listen_after_bind();
}

void ReferenceService::stop() {
    impl_->server.shutdown();
    if (impl_->thread.joinable()) impl_->thread.join();
}

bool ReferenceService::reloadBands() {
    return impl_->loadBands();
}

std::string ReferenceService::issueToken(const std::string& mobile) {
    if (!impl_->opened && !(impl_->opened = impl_->openStorage())) return {};
    return impl_->storage->issueToken(mobile);
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
