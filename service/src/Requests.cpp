#include "Requests.h"

#include <simdjson.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <memory>
#include <mutex>

#include "core/Json.h"
#include "core/JsonElement.h"

namespace kestrelvue::service {
namespace {

constexpr std::size_t kFieldsPerRecord = 39;

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
    double number(std::string_view key) {
        const Value* v = present(key);
        if (!v) return 0;
        const std::optional<double> d = v->asNumber();
        if (!d || !std::isfinite(*d)) return fail(key, "expected a number"), 0.0;
        return *d;
    }
    std::int64_t integer(std::string_view key) {
        const Value* v = present(key);
        if (!v) return 0;
        if (auto i = v->asInt()) return *i;
        // A whole double (3.0) is the same number; a fraction or a text is not a count.
        const std::optional<double> d = v->asNumber();
        if (!d || *d != std::trunc(*d) || std::fabs(*d) >= 9.2e18) {
            return fail(key, "expected an integer"), 0;
        }
        return static_cast<std::int64_t>(*d);
    }
    const std::string& error() const { return error_; }

private:
    const Value* present(std::string_view key) const {
        const Value* v = object_.find(key);
        return v && !v->isNull() ? v : nullptr;
    }
    void fail(std::string_view key, const char* what) {
        if (error_.empty()) error_ = std::string(key) + ": " + what;
    }

    const Value& object_;
    std::string error_;
};

/// The body as a JSON object, or the reason it is not one.
Parsed<Value> objectBody(std::string_view body) {
    json::ParseResult parsed = json::parse(body);
    if (!parsed) return Parsed<Value>::refuse("malformed JSON: " + parsed.error);
    if (!parsed.value->isObject()) return Parsed<Value>::refuse("the body must be a JSON object");
    return {std::move(*parsed.value), {}};
}

/// Splits a record (without its ';') into its comma-terminated fields, keeping the first
/// kFieldsPerRecord in `fields`: the number of fields, or npos when text follows the last comma.
std::size_t splitFields(std::string_view record, std::string_view* fields) {
    std::size_t count = 0, start = 0, at = 0;
    const auto field = [&](std::size_t comma) {
        if (count < kFieldsPerRecord) fields[count] = record.substr(start, comma - start);
        ++count;
        start = comma + 1;
    };
#if defined(__SSE2__)
    // Sixteen bytes at a time: a record has some 300 bytes and 39 commas, and a call to find each
    // comma cost more than looking at every byte.
    const __m128i comma = _mm_set1_epi8(',');
    for (; at + 16 <= record.size(); at += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(record.data() + at));
        for (auto mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, comma)));
             mask != 0; mask &= mask - 1)
            field(at + static_cast<std::size_t>(std::countr_zero(mask)));
    }
#endif
    for (; at < record.size(); ++at) {
        if (record[at] == ',') field(at);
    }
    return start == record.size() ? count : std::string_view::npos;
}

std::string_view trimmed(std::string_view field) {
    while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
    return field;
}

/// A plain decimal ("-12.345", the motion text's every number) read as from_chars reads it, only
/// faster: with at most 15 digits the digits are an exact integer and the power of ten is exact,
/// so the one division rounds once, correctly. Anything else is left to from_chars.
bool readPlainDecimal(std::string_view field, double& out) {
    static constexpr double kPowersOfTen[16] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    const bool negative = !field.empty() && field.front() == '-';
    if (negative) field.remove_prefix(1);
    std::uint64_t digitsValue = 0;
    int digits = 0, decimals = -1;  // -1: no point yet
    for (const char c : field) {
        if (c >= '0' && c <= '9') {
            if (++digits > 15) return false;
            digitsValue = digitsValue * 10 + static_cast<std::uint64_t>(c - '0');
            if (decimals >= 0) ++decimals;
        } else if (c == '.' && decimals < 0 && digits > 0) {
            decimals = 0;
        } else {
            return false;
        }
    }
    if (digits == 0 || decimals == 0) return false;
    const double value =
        static_cast<double>(digitsValue) / kPowersOfTen[decimals < 0 ? 0 : decimals];
    out = negative ? -value : value;
    return true;
}

bool readReal(std::string_view field, double& out) {
    field = trimmed(field);
    if (readPlainDecimal(field, out)) return true;
    auto [end, ec] = std::from_chars(field.data(), field.data() + field.size(), out);
    return ec == std::errc() && end == field.data() + field.size() && std::isfinite(out);
}

bool readInteger(std::string_view field, std::int64_t& out) {
    field = trimmed(field);
    auto [end, ec] = std::from_chars(field.data(), field.data() + field.size(), out);
    return ec == std::errc() && end == field.data() + field.size() && !field.empty();
}

// "yyyy-MM-dd HH:mm:ss:SSS", the record time of the motion text.
bool isRecordTime(std::string_view s) {
    constexpr std::string_view pattern = "dddd-dd-dd dd:dd:dd:ddd";
    if (s.size() != pattern.size()) return false;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const bool digit = s[i] >= '0' && s[i] <= '9';
        if (pattern[i] == 'd' ? !digit : s[i] != pattern[i]) return false;
    }
    return true;
}

// The stored fields, 1-based as the motion text numbers them.
constexpr const char* kPenaltyNames[11] = {
    "cornering penalty",        "speeding penalty",
    "braking penalty",          "elevating penalty",
    "lane-changing penalty",    "cornering penalty per km",
    "speeding penalty per km",  "braking penalty per km",
    "elevating penalty per km", "lane-changing penalty per km",
    "fuel penalty per km"};

std::string fieldProblem(std::size_t record, std::size_t field, const char* name,
                         const char* what) {
    return "record " + std::to_string(record) + ", field " + std::to_string(field) + " (" + name +
           "): " + what;
}

}  // namespace

/// A JSON parser with its buffers and a padded copy of the text, kept between motion bulks: a bulk
/// is a few hundred kilobytes, and fresh buffers of that size for each one cost more in page
/// faults than the parse itself.
struct WarmParser {
    simdjson::dom::parser parser;
    std::vector<char> text;  // the body, then at least simdjson's padding
};

namespace {

/// A parser lent for one body of `bytes` bytes from a small pool. Parsers of very large bodies are
/// let go, so that one outsized request does not hold its memory for good.
class WarmParsers {
public:
    static std::unique_ptr<WarmParser> take() {
        WarmParsers& p = pool();
        std::lock_guard lock(p.mutex_);
        if (p.idle_.empty()) return std::make_unique<WarmParser>();
        auto parser = std::move(p.idle_.back());
        p.idle_.pop_back();
        return parser;
    }
    static void give(std::unique_ptr<WarmParser> parser, std::size_t bytes) {
        if (bytes > kKeepBytes) return;
        WarmParsers& p = pool();
        std::lock_guard lock(p.mutex_);
        if (p.idle_.size() < kKeepParsers) p.idle_.push_back(std::move(parser));
    }

private:
    // A parser takes some 14 bytes per byte of text, most of it never touched by a bulk of plain
    // records: four kept for bulks up to 1 MiB, as many as a few busy clients have parsed at once.
    // With fewer, every other bulk faulted in a parser's memory afresh.
    static constexpr std::size_t kKeepBytes = std::size_t{1} << 20, kKeepParsers = 4;
    static WarmParsers& pool() {
        static auto* parsers = new WarmParsers;  // never destroyed: any thread may still lend
        return *parsers;
    }
    std::mutex mutex_;
    std::vector<std::unique_ptr<WarmParser>> idle_;
};

/// A member as the general reader would have made it, for Members to check. Only scalars are
/// kept; a list or an object stands in empty, since any of them is refused alike.
Value scalarOf(simdjson::dom::element e) {
    if (e.is_array()) return Value(List{});
    if (e.is_object()) return Value(Object{});
    return json::scalarValue(e);
}

/// parseMotionBulk through the general reader: the body as a Value, then its members.
Parsed<MotionBulk> parseMotionBulkAsValue(std::string_view body);

}  // namespace

Parsed<std::vector<PointRow>> parseMotionText(std::string_view text) {
    using Result = Parsed<std::vector<PointRow>>;
    std::vector<PointRow> points;
    // One allocation for a usual bulk without counting its records first (a pass over the whole
    // text): the library's records run to some 300 bytes; shorter ones grow the vector.
    points.reserve(text.size() / 256 + 1);
    std::string_view fields[kFieldsPerRecord];
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find(';');
        if (end == std::string_view::npos) {
            return Result::refuse("record " + std::to_string(number) + ": no closing ';'");
        }
        std::string_view record = text.substr(0, end);
        text.remove_prefix(end + 1);
        const std::size_t count = splitFields(record, fields);
        if (count == std::string_view::npos) {
            return Result::refuse("record " + std::to_string(number) +
                                  ": a field without its closing ','");
        }
        if (count != kFieldsPerRecord) {
            return Result::refuse("record " + std::to_string(number) + ": " +
                                  std::to_string(count) + " fields, expected 39");
        }
        PointRow p;
        if (!readReal(fields[16], p.latitude))
            return Result::refuse(fieldProblem(number, 17, "latitude", "not a number"));
        if (!readReal(fields[17], p.longitude))
            return Result::refuse(fieldProblem(number, 18, "longitude", "not a number"));
        if (!readInteger(fields[22], p.itemId))
            return Result::refuse(fieldProblem(number, 23, "ItemId", "not an integer"));
        if (!isRecordTime(fields[23])) {
            return Result::refuse(
                fieldProblem(number, 24, "DateTime", "not yyyy-MM-dd HH:mm:ss:SSS"));
        }
        std::copy(fields[23].begin(), fields[23].end(), p.recordTime.begin());
        double values[11];
        for (std::size_t i = 0; i < 11; ++i) {
            if (!readReal(fields[24 + i], values[i]))
                return Result::refuse(
                    fieldProblem(number, 25 + i, kPenaltyNames[i], "not a number"));
        }
        for (int i = 0; i < 5; ++i) {
            p.penalty[i] = values[i];
            p.penaltyPerKM[i] = values[5 + i];
        }
        p.fuelPerKM = values[10];
        points.push_back(p);
    }
    return {std::move(points), {}};
}

namespace {

Parsed<MotionBulk> parseMotionBulkAsValue(std::string_view body) {
    auto object = objectBody(body);
    if (!object) return Parsed<MotionBulk>::refuse(object.error);
    Members m(*object.value);
    MotionBulk bulk;
    bulk.userID = m.integer("UserID");
    bulk.guid = m.text("DrivingGuid");
    const std::string motion = m.text("MotionStr");
    if (!m.error().empty()) return Parsed<MotionBulk>::refuse(m.error());
    if (bulk.guid.empty()) return Parsed<MotionBulk>::refuse("DrivingGuid: missing");
    auto points = parseMotionText(motion);
    if (!points) return Parsed<MotionBulk>::refuse("MotionStr: " + points.error);
    bulk.points = std::move(*points.value);
    return {std::move(bulk), {}};
}

}  // namespace

// The same reading as parseMotionBulkAsValue, without building a Value of the whole body: the
// motion text is read where the parser left it instead of being copied twice. A body that is
// not a JSON object goes the general way, so that its refusal is worded the same.
Parsed<MotionBulk> parseMotionBulk(std::string_view body) {
    MotionBulkReader reader(body.size());
    reader.append(body.data(), body.size());
    return reader.parse();
}

MotionBulkReader::MotionBulkReader(std::size_t expectedBytes) : warm_(WarmParsers::take()) {
    // Only grows: the spare bytes past a body are the parser's padding.
    if (warm_->text.size() < expectedBytes + simdjson::SIMDJSON_PADDING)
        warm_->text.resize(expectedBytes + simdjson::SIMDJSON_PADDING);
}

MotionBulkReader::~MotionBulkReader() {
    WarmParsers::give(std::move(warm_), size_);
}

void MotionBulkReader::append(const char* data, std::size_t size) {
    std::vector<char>& text = warm_->text;
    if (text.size() < size_ + size + simdjson::SIMDJSON_PADDING)
        text.resize(std::max(size_ + size, 2 * size_) + simdjson::SIMDJSON_PADDING);
    std::copy(data, data + size, text.begin() + static_cast<std::ptrdiff_t>(size_));
    size_ += size;
}

Parsed<MotionBulk> MotionBulkReader::parse() {
    WarmParser& warm = *warm_;
    const std::string_view body(warm.text.data(), size_);
    simdjson::dom::element root;
    simdjson::dom::object object;
    if (warm.parser.parse(warm.text.data(), body.size(), false).get(root) ||
        root.get_object().get(object)) {
        return parseMotionBulkAsValue(body);
    }
    // Later duplicates win, as with the general reader.
    std::optional<simdjson::dom::element> user, guid, motion;
    for (auto field : object) {
        if (field.key == "UserID")
            user = field.value;
        else if (field.key == "DrivingGuid")
            guid = field.value;
        else if (field.key == "MotionStr")
            motion = field.value;
    }
    Object scalars;
    if (user) scalars.emplace("UserID", scalarOf(*user));
    if (guid) scalars.emplace("DrivingGuid", scalarOf(*guid));
    std::string_view motionText;
    if (motion && motion->is_string())
        motionText = motion->get_string().value_unsafe();
    else if (motion)
        scalars.emplace("MotionStr", scalarOf(*motion));
    const Value members(std::move(scalars));
    Members m(members);
    MotionBulk bulk;
    bulk.userID = m.integer("UserID");
    bulk.guid = m.text("DrivingGuid");
    m.text("MotionStr");  // a wrong type is refused in its turn
    if (!m.error().empty()) return Parsed<MotionBulk>::refuse(m.error());
    if (bulk.guid.empty()) return Parsed<MotionBulk>::refuse("DrivingGuid: missing");
    auto points = parseMotionText(motionText);
    if (!points) return Parsed<MotionBulk>::refuse("MotionStr: " + points.error);
    bulk.points = std::move(*points.value);
    return {std::move(bulk), {}};
}

Parsed<DrivingRow> parseDrivingScore(std::string_view body) {
    auto object = objectBody(body);
    if (!object) return Parsed<DrivingRow>::refuse(object.error);
    Members m(*object.value);
    DrivingRow d;
    d.userID = m.integer("userID");
    d.guid = m.text("drivingGuid");
    d.startDateTime = m.text("startDateTime");
    d.endDateTime = m.text("endDateTime");
    d.startLocation = m.text("startLocation");
    d.endLocation = m.text("endLocation");
    d.startLat = m.number("startLocationLatitude");
    d.startLong = m.number("startLocationLongitude");
    d.endLat = m.number("endLocationLatitude");
    d.endLong = m.number("endLocationLongitude");
    d.score = m.number("Score");
    static constexpr const char* kinds[5] = {"Cornering", "Speeding", "Braking", "Elevating",
                                             "LaneChanging"};
    for (int i = 0; i < 5; ++i) {
        d.counts[i] = m.integer(std::string("sharp") + kinds[i] + "Count");
        d.penalties[i] = m.number(std::string("sharp") + kinds[i] + "Penalty");
    }
    d.fuelPenalty = m.number("fuelEfficiencyPenalty");
    d.totalDistance = m.number("totalDistance");
    d.timeElapsed = m.text("timeElapsed");
    if (!m.error().empty()) return Parsed<DrivingRow>::refuse(m.error());
    if (d.guid.empty()) return Parsed<DrivingRow>::refuse("drivingGuid: missing");
    return {std::move(d), {}};
}

Parsed<Login> parseLogin(std::string_view body) {
    auto object = objectBody(body);
    if (!object) return Parsed<Login>::refuse(object.error);
    Members m(*object.value);
    Login login{m.text("Mobile"), m.text("Token")};
    if (!m.error().empty()) return Parsed<Login>::refuse(m.error());
    if (login.mobile.empty() || login.token.empty()) {
        return Parsed<Login>::refuse("Mobile and Token: required");
    }
    return {std::move(login), {}};
}

Parsed<UserRow> parseAddUser(std::string_view body) {
    auto object = objectBody(body);
    if (!object) return Parsed<UserRow>::refuse(object.error);
    Members m(*object.value);
    UserRow u;
    u.firstName = m.text("FirstName");
    u.lastName = m.text("LastName");
    u.email = m.text("Email");
    u.genderId = m.integer("GenderId");
    u.referenceId = m.text("ReferenceId");
    if (!m.error().empty()) return Parsed<UserRow>::refuse(m.error());
    return {std::move(u), {}};
}

Parsed<FriendRequest> parseAddFriend(std::string_view body) {
    auto object = objectBody(body);
    if (!object) return Parsed<FriendRequest>::refuse(object.error);
    Members m(*object.value);
    FriendRequest r{m.text("ReferenceID"), m.text("FriendReferenceID")};
    m.integer("LoginTypeID");
    if (!m.error().empty()) return Parsed<FriendRequest>::refuse(m.error());
    return {std::move(r), {}};
}

Parsed<Value> parseBands(std::string_view text) {
    json::ParseResult parsed = json::parse(text);
    if (!parsed) return Parsed<Value>::refuse("malformed JSON: " + parsed.error);
    const List* list = parsed.value->asList();
    if (!list) return Parsed<Value>::refuse("expected a list of bands");
    for (std::size_t i = 0; i < list->size(); ++i) {
        const Value& band = (*list)[i];
        const std::string at = "band " + std::to_string(i + 1) + ": ";
        if (!band.isObject()) return Parsed<Value>::refuse(at + "expected an object");
        const Value* name = band.find("_enmThresholdName");
        if (!name || !name->isString()) {
            return Parsed<Value>::refuse(at + "_enmThresholdName: expected a text");
        }
        for (const char* key : {"_limitStart", "_limitEnd", "_impact"}) {
            const Value* v = band.find(key);
            if (!v || !v->asNumber() || !std::isfinite(*v->asNumber()))
                return Parsed<Value>::refuse(at + key + ": expected a number");
        }
        const Value* perKm = band.find("_perKilometer");
        if (!perKm || !perKm->isBool()) {
            return Parsed<Value>::refuse(at + "_perKilometer: expected true or false");
        }
    }
    return {std::move(*parsed.value), {}};
}

std::optional<std::int64_t> parsePathInteger(std::string_view text) {
    std::int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

}  // namespace kestrelvue::service
