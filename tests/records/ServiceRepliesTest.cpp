// Readers of the route and summary replies.

#include <gtest/gtest.h>

#include "core/Json.h"
#include "records/ServiceReplies.h"

using namespace kestrelvue;
using namespace kestrelvue::detail;

namespace {

// User information as the call layer posts it for a reply body.
UserInfo data(std::string_view json) {
    auto parsed = json::parse(json);
    EXPECT_TRUE(parsed) << json;
    return Object{{"Data", parsed ? *parsed.value : Value()}};
}

TEST(RouteReply, PointsFaultsAndFuelEntries) {
    auto lists = readRouteReply(data(R"([
        {"Latitude": 41.1, "Longitude": 29.2, "HasFault": false, "FuelEfficiencyPenaltyPerKM": 3.5,
         "BrakingPenalty": 9, "CorneringPenalty": "ignored without a fault"},
        {"Latitude": 41, "Longitude": 29, "HasFault": true, "BrakingPenalty": 2,
         "BrakingPenaltyPerKM": 0.5},
        {"HasFault": true, "CorneringPenalty": 1, "CorneringPenaltyPerKM": 2, "SpeedingPenalty": 3,
         "SpeedingPenaltyPerKM": 4, "ElevatingPenalty": 5, "ElevatingPenaltyPerKM": 6,
         "LaneChangingPenalty": 7, "LaneChangingPenaltyPerKM": 8, "FuelEfficiencyPenaltyPerKM": 1},
        {"Latitude": null, "HasFault": null, "FuelEfficiencyPenaltyPerKM": null}
    ])"));
    ASSERT_TRUE(lists);
    using C = platform::Coordinate;
    EXPECT_EQ(lists->passedCoordinates, (std::vector<C>{{41.1, 29.2}, {41, 29}, {0, 0}, {0, 0}}));
    // Each fault's place and penalties (cornering, speeding, braking, elevating, lane change).
    std::vector<std::vector<double>> faults, fuel;
    for (const auto& f : lists->faults)
        faults.push_back({f.Coordinate.latitude, f.Coordinate.longitude, f.CorneringPenalty,
                          f.SpeedingPenalty, f.BrakingPenalty, f.ElevatingPenalty,
                          f.LaneChangingPenalty});
    for (const auto& f : lists->fuelDefficiencies)
        fuel.push_back({f.Coordinate.latitude, f.Coordinate.longitude, f.FuelEfficiencyPenalty});
    EXPECT_EQ(faults, (std::vector<std::vector<double>>{{41, 29, 0, 0, 2.5, 0, 0},
                                                        {0, 0, 3, 7, 0, 11, 15}}));
    EXPECT_EQ(fuel, (std::vector<std::vector<double>>{
                        {41.1, 29.2, 3.5}, {41, 29, 0}, {0, 0, 1}, {0, 0, 0}}));
}

TEST(RouteReply, FailuresAndWrongShapesLeaveTheListsAlone) {
    const UserInfo cases[] = {
        Object{{"error", Value("Detay bilgisi alınamadı. Daha sonra tekrar deneyin.")}},
        Object{{"error", Value("x")}, {"Data", Value(List{})}},  // an error text wins
        Object{{"error", Value(TransportError{"d", 1, "x"})}},   // not a text: no Data either
        Object{{"Data", Value()}},                               // the call layer's "not a list"
        data(R"([{"Latitude": "41"}])"),
        data(R"([{"HasFault": 1}])"),
        data(R"([{"HasFault": true, "SpeedingPenaltyPerKM": "2"}])"),
        data(R"([{"FuelEfficiencyPenaltyPerKM": {}}])"),
        data(R"([{}, {"Latitude": "late in the list"}])"),
        Object{{"Data", Value(List{Value(Object{}), Value(3)})}},
    };
    int i = 0;
    for (const auto& info : cases) EXPECT_FALSE(readRouteReply(info)) << "case " << i++;
}

TEST(SummaryReply, WrongShapesAreDescribed) {
    struct Case {
        UserInfo info;
        const char* problem;
    } cases[] = {
        {Object{{"Data", Value()}}, "the reply is not a list of objects"},
        {std::nullopt, "the reply is not a list of objects"},
        {data(R"([{"AverageScore": "70"}])"), "[0].AverageScore: expected a number"},
        {data(R"([{}, {"TotalDistance": false}])"), "[1].TotalDistance: expected a number"},
        {data(R"([{"NumberOfTrips": 2.5}])"), "[0].NumberOfTrips: expected an integer"},
        {data(R"([{"NumberOfTrips": 1e300}])"), "[0].NumberOfTrips: expected an integer"},
        {Object{{"Data", Value(List{Value(1)})}}, "[0]: expected an object"},
    };
    for (const auto& c : cases) {
        auto read = readSummaryReply(c.info);
        ASSERT_TRUE(std::holds_alternative<std::string>(read)) << c.problem;
        EXPECT_EQ(std::get<std::string>(read), c.problem);
    }
}

}  // namespace
