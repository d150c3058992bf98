#include "Requests.h"

#include <charconv>
#include <cmath>
#include <set>

#include "account/WireValues.h"
#include "core/Json.h"
#include "records/EventKinds.h"

namespace kestrelvue::service {
namespace {

/// Reads typed members of one JSON object; the first wrong type is kept as the reason to refuse.
/// An absent or null member reads as empty or zero: clients leave out what they do not know.
class Members {
public:
    explicit Members(const Value& object) : object_(object) {}

    std::string text(std::string_view key) {
        const Value* v = present(key);
        if (v && !v->isString()) return fail(key, "expected a text"), std::string();
        return v ? *v->asString() : std::string();
    }
    /// A finite number within ±`bound`: beyond it, no real trip.
    double bounded(std::string_view key, double bound) {
        const Value* v = present(key);
        const std::optional<double> d = v ? v->asNumber() : 0.0;
        if (!d || !std::isfinite(*d)) return fail(key, "expected a number"), 0.0;
        if (std::fabs(*d) > bound) fail(key, "beyond any real trip");
        return *d;
    }
    std::int64_t integer(std::string_view key) {
        const Value* v = present(key);
        if (!v) return 0;
        if (auto i = account::integerOf(*v)) return *i;
        return fail(key, "expected an integer"), 0;
    }
    const std::string& error() const { return error_; }

    void fail(std::string_view key, const char* what) {
        if (error_.empty()) error_ = std::string(key) + ": " + what;
    }

private:
    const Value* present(std::string_view key) const {
        const Value* v = object_.find(key);
        return v && !v->isNull() ? v : nullptr;
    }
    const Value& object_;
    std::string error_;
};

/// A JSON object body read by `read` into a T; refused with the first reason `read` or the
/// members gave.
template <class T, class Read>
Result<T> readObject(std::string_view body, Read read) {
    // A bulk's text is some 300 KB: a parser grown for one is kept for the next, as a fresh
    // parser's memory cost more in page faults than the parse.
    json::ParseResult parsed = json::parse(body, {.keepParserBytes = std::size_t{1} << 20});
    if (!parsed) return Result<T>::failure("malformed JSON: " + parsed.error);
    if (!parsed.value->isObject()) return Result<T>::failure("the body must be a JSON object");
    Members m(*parsed.value);
    T value = read(m);
    if (!m.error().empty()) return Result<T>::failure(m.error());
    return value;
}

}  // namespace

Result<MotionBulk> parseMotionBulk(std::string_view body, bool keepRecords) {
    auto bulk = readObject<MotionBulk>(body, [](Members& m) {
        MotionBulk read;
        read.userID = m.integer("UserID");
        read.guid = m.text("DrivingGuid");
        read.text = m.text("MotionStr");
        if (read.guid.empty()) m.fail("DrivingGuid", "missing");
        return read;
    });
    if (!bulk) return bulk;
    auto count = detail::readMotionText(bulk->text, true, [&](const MotionRecord& r) {
        (bulk->count++ == 0 ? bulk->first : bulk->last) = r;
        if (keepRecords) bulk->records.push_back(r);
    });
    if (!count) return Result<MotionBulk>::failure("MotionStr: " + count.error);
    if (bulk->count == 1) bulk->last = bulk->first;
    return bulk;
}

Result<DrivingRow> parseDrivingScore(std::string_view body) {
    return readObject<DrivingRow>(body, [](Members& m) {
        DrivingRow d;
        d.userID = m.integer("userID");
        d.guid = m.text("drivingGuid");
        d.startDateTime = m.text("startDateTime");
        d.endDateTime = m.text("endDateTime");
        d.startLocation = m.text("startLocation");
        d.endLocation = m.text("endLocation");
        d.startLat = m.bounded("startLocationLatitude", 90);
        d.startLong = m.bounded("startLocationLongitude", 180);
        d.endLat = m.bounded("endLocationLatitude", 90);
        d.endLong = m.bounded("endLocationLongitude", 180);
        d.score = m.bounded("Score", detail::kMaxScore);
        for (const auto kind : detail::kEventKinds) {
            const auto i = static_cast<std::size_t>(kind);
            const std::string stem = "sharp" + std::string(detail::namesOf(kind).wire);
            d.counts[i] = m.integer(stem + "Count");
            if (d.counts[i] < 0 || d.counts[i] > detail::kMaxPenalty)
                m.fail(stem + "Count", "beyond any real trip");
            d.penalties[i] = m.bounded(stem + "Penalty", detail::kMaxPenalty);
        }
        d.fuelPenalty = m.bounded("fuelEfficiencyPenalty", detail::kMaxPenalty);
        d.totalDistance = m.bounded("totalDistance", detail::kMaxDistanceMetres);
        if (d.totalDistance < 0) m.fail("totalDistance", "negative");
        d.timeElapsed = m.text("timeElapsed");
        if (d.guid.empty()) m.fail("drivingGuid", "missing");
        return d;
    });
}

Result<Login> parseLogin(std::string_view body) {
    return readObject<Login>(body, [](Members& m) {
        Login login{m.text("Mobile"), m.text("Token")};
        if (login.mobile.empty() || login.token.empty()) m.fail("Mobile and Token", "required");
        return login;
    });
}

Result<UserRow> parseAddUser(std::string_view body) {
    return readObject<UserRow>(body, [](Members& m) {
        UserRow u;
        u.firstName = m.text("FirstName");
        u.lastName = m.text("LastName");
        u.email = m.text("Email");
        u.genderId = m.integer("GenderId");
        u.referenceId = m.text("ReferenceId");
        if (u.firstName.empty() && u.lastName.empty() && u.email.empty() && u.referenceId.empty())
            m.fail("FirstName, LastName, Email or ReferenceId", "required");
        return u;
    });
}

Result<FriendRequest> parseAddFriend(std::string_view body) {
    return readObject<FriendRequest>(body, [](Members& m) {
        FriendRequest r{m.text("ReferenceID"), m.text("FriendReferenceID")};
        m.integer("LoginTypeID");
        if (r.referenceId == r.friendReferenceId)
            m.fail("FriendReferenceID", "the user's own reference");
        return r;
    });
}

Result<Value> parseBands(std::string_view text) {
    json::ParseResult parsed = json::parse(text);
    if (!parsed) return Result<Value>::failure("malformed JSON: " + parsed.error);
    const List* list = parsed.value->asList();
    if (!list) return Result<Value>::failure("expected a list of bands");
    // The library's names: six lists of bands, each of which a reply must fill (a kind without
    // bands is never charged), and six settings.
    using Names = std::set<std::string, std::less<>>;
    static const auto kLevels = [] {
        Names levels = {"FuelEfficiency"};
        for (const auto kind : detail::kEventKinds)
            levels.insert("Sharp" + std::string(detail::namesOf(kind).wire) + "Level");
        return levels;
    }();
    static const auto kSettings = [] {
        Names settings = {"UpdateInterval", "DistanceFilter"};
        for (char n = '1'; n <= '4'; ++n)
            settings.insert(std::string("SharpLaneChangingDuration") + n);
        return settings;
    }();
    Names levels;
    for (std::size_t i = 0; i < list->size(); ++i) {
        const Value& band = (*list)[i];
        const std::string at = "band " + std::to_string(i + 1) + ": ";
        if (!band.isObject()) return Result<Value>::failure(at + "expected an object");
        const Value* name = band.find("_enmThresholdName");
        if (!name || !name->isString())
            return Result<Value>::failure(at + "_enmThresholdName: expected a text");
        if (kLevels.count(*name->asString()))
            levels.insert(*name->asString());
        else if (!kSettings.count(*name->asString()))
            return Result<Value>::failure(at + "_enmThresholdName: unknown band " +
                                          *name->asString());
        for (const char* key : {"_limitStart", "_limitEnd", "_impact"}) {
            const Value* v = band.find(key);
            if (!v || !v->asNumber() || !std::isfinite(*v->asNumber()))
                return Result<Value>::failure(at + key + ": expected a number");
        }
        const Value* perKm = band.find("_perKilometer");
        if (!perKm || !perKm->isBool())
            return Result<Value>::failure(at + "_perKilometer: expected true or false");
    }
    for (const std::string& level : kLevels)
        if (!levels.count(level)) return Result<Value>::failure("no bands of " + level);
    return std::move(*parsed.value);
}

std::optional<std::int64_t> parsePathInteger(std::string_view text) {
    std::int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

}  // namespace kestrelvue::service
