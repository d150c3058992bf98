#include "records/HistoryReply.h"

#include <kestrelvue/Environment.h>
#include <kestrelvue/Limits.h>
#include <simdjson.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace kestrelvue::detail {
namespace {

struct MemberInfo {
    std::string_view key;
    HistoryKind kind;
};

constexpr MemberInfo kMembers[kHistoryMemberCount] = {
    {"UserId", HistoryKind::integer},
    {"DrivingGuid", HistoryKind::text},
    {"StartDateTime", HistoryKind::date},
    {"StartLocation", HistoryKind::text},
    {"StartLocationLatitude", HistoryKind::number},
    {"StartLocationLongitude", HistoryKind::number},
    {"EndDateTime", HistoryKind::date},
    {"EndLocation", HistoryKind::text},
    {"EndLocationLatitude", HistoryKind::number},
    {"EndLocationLongitude", HistoryKind::number},
    {"Score", HistoryKind::number},
    {"SharpCorneringCount", HistoryKind::integer},
    {"SharpSpeedingCount", HistoryKind::integer},
    {"SharpBrakingCount", HistoryKind::integer},
    {"SharpElevatingCount", HistoryKind::integer},
    {"SharpLaneChangingCount", HistoryKind::integer},
    {"SharpCorneringPenalty", HistoryKind::number},
    {"SharpSpeedingPenalty", HistoryKind::number},
    {"SharpBrakingPenalty", HistoryKind::number},
    {"SharpElevatingPenalty", HistoryKind::number},
    {"SharpLaneChangingPenalty", HistoryKind::number},
    {"FuelEfficiencyPenalty", HistoryKind::number},
    {"TimeElapsed", HistoryKind::text},
    {"TotalDistance", HistoryKind::number},
};

// Keys grouped by length: a lookup compares against one or a few keys only. It runs for every
// member of every trip, so a hash of each key would already cost more than the whole match.
constexpr std::size_t kMaxKeyLength = 24;
struct KeyIndex {
    std::array<std::array<std::int8_t, 4>, kMaxKeyLength + 1> byLength{};
    constexpr KeyIndex() {
        for (auto& slot : byLength) slot.fill(-1);
        for (int m = 0; m < kHistoryMemberCount; ++m) {
            auto& slot = byLength[kMembers[m].key.size()];
            std::size_t i = 0;
            while (slot[i] != -1) ++i;  // no length has more than four keys
            slot[i] = static_cast<std::int8_t>(m);
        }
    }
};
constexpr KeyIndex kKeyIndex;

constexpr double kTwoTo63 = 9223372036854775808.0;

}  // namespace

std::string_view historyKey(HistoryMember member) {
    return kMembers[member].key;
}
HistoryKind historyKind(HistoryMember member) {
    return kMembers[member].kind;
}

std::optional<HistoryMember> findHistoryMember(std::string_view key) {
    if (key.size() > kMaxKeyLength) return std::nullopt;
    for (std::int8_t m : kKeyIndex.byLength[key.size()]) {
        if (m < 0) break;
        if (std::memcmp(kMembers[m].key.data(), key.data(), key.size()) == 0) {
            return static_cast<HistoryMember>(m);
        }
    }
    return std::nullopt;
}

std::string historyProblem(std::size_t index, HistoryMember member, std::string_view what) {
    std::string out;
    out += '[';
    out += std::to_string(index);
    out += ']';
    if (member != kHistoryMemberCount) {
        out += '.';
        out += historyKey(member);
    }
    out += ": ";
    out += what;
    return out;
}

std::optional<std::string> storeInteger(HistoryElement& e, HistoryMember m, double value) {
    // A whole double (3.0, 1e2) is the same number; a fraction or a value beyond 64 bits is not
    // a count.
    if (!std::isfinite(value) || value != std::trunc(value) || value < -kTwoTo63 ||
        value >= kTwoTo63) {
        return "expected an integer";
    }
    e.present[m] = true;
    e.integer[m] = static_cast<std::int64_t>(value);
    return std::nullopt;
}

std::optional<std::string> storeNumber(HistoryElement& e, HistoryMember m, double value) {
    if (!std::isfinite(value)) return "expected a finite number";
    e.present[m] = true;
    e.number[m] = value;
    return std::nullopt;
}

std::optional<std::string> storeText(HistoryElement& e, HistoryMember m, std::string_view value) {
    if (historyKind(m) == HistoryKind::date) {
        auto date = parseServiceDateTime(value);
        if (!date) return "expected a date in the form yyyy-MM-ddTHH:mm:ss";
        e.date[m] = *date;
    } else {
        e.text[m] = value;
    }
    e.present[m] = true;
    return std::nullopt;
}

void applyHistoryElement(Trip& trip, const HistoryElement& e, LocalTimeConverter& times) {
    const auto has = [&](HistoryMember m) { return e.present[m]; };
    if (has(kUserId)) trip.UserID = e.integer[kUserId];
    if (has(kDrivingGuid)) trip.DrivingID.assign(e.text[kDrivingGuid]);
    if (has(kStartDateTime)) {
        trip.StartDateTime = times.fromLocal(e.date[kStartDateTime]);
        trip.StartDateTime_Formatted = Trip::formatDateTime(trip.StartDateTime);
    }
    if (has(kStartLocation)) trip.StartLocation.assign(e.text[kStartLocation]);
    if (has(kStartLocationLatitude)) trip.StartLocationLat = e.number[kStartLocationLatitude];
    if (has(kStartLocationLongitude)) trip.StartLocationLong = e.number[kStartLocationLongitude];
    if (has(kEndDateTime)) trip.EndDateTime = times.fromLocal(e.date[kEndDateTime]);
    if (has(kEndLocation)) trip.EndLocation.assign(e.text[kEndLocation]);
    if (has(kEndLocationLatitude)) trip.EndLocationLat = e.number[kEndLocationLatitude];
    if (has(kEndLocationLongitude)) trip.EndLocationLong = e.number[kEndLocationLongitude];
    if (has(kScore)) trip.Score = e.number[kScore];
    if (has(kSharpCorneringCount)) trip.SharpCorneringCount = e.integer[kSharpCorneringCount];
    if (has(kSharpSpeedingCount)) trip.SharpSpeedingCount = e.integer[kSharpSpeedingCount];
    if (has(kSharpBrakingCount)) trip.SharpBrakingCount = e.integer[kSharpBrakingCount];
    if (has(kSharpElevatingCount)) trip.SharpElevatingCount = e.integer[kSharpElevatingCount];
    if (has(kSharpLaneChangingCount)) {
        trip.SharpLaneChangingCount = e.integer[kSharpLaneChangingCount];
    }
    // The reply carries one value per kind; it is the part without the per-kilometre suffix.
    if (has(kSharpCorneringPenalty)) trip.SharpCorneringPenalty = e.number[kSharpCorneringPenalty];
    if (has(kSharpSpeedingPenalty)) trip.SharpSpeedingPenalty = e.number[kSharpSpeedingPenalty];
    if (has(kSharpBrakingPenalty)) trip.SharpBrakingPenalty = e.number[kSharpBrakingPenalty];
    if (has(kSharpElevatingPenalty)) trip.SharpElevatingPenalty = e.number[kSharpElevatingPenalty];
    if (has(kSharpLaneChangingPenalty)) {
        trip.SharpLaneChangingPenalty = e.number[kSharpLaneChangingPenalty];
    }
    if (has(kFuelEfficiencyPenalty)) {
        trip.FuelEfficiencyPenaltyPerKM = e.number[kFuelEfficiencyPenalty];
    }
    if (has(kTimeElapsed)) trip.TimeElapsed.assign(e.text[kTimeElapsed]);
    if (has(kTotalDistance)) {
        trip.TotalDistance = e.number[kTotalDistance];
        // From the duration as it stands now: the reply's, or the initial one when it had none.
        trip.TimeElapsedTotalDistance_Formatted =
            Trip::formatTimeElapsedTotalDistance(trip.TimeElapsed, trip.TotalDistance);
    }
    // Pins stand at the coordinates even when the reply had none (then at 0, 0).
    if (trip.StartAnnotation) {
        trip.StartAnnotation->coordinate = {trip.StartLocationLat, trip.StartLocationLong};
        trip.StartAnnotation->subtitle = "Başlangıç";
    }
    if (trip.EndAnnotation) {
        trip.EndAnnotation->coordinate = {trip.EndLocationLat, trip.EndLocationLong};
        trip.EndAnnotation->subtitle = "Bitiş";
    }
}

namespace {

using Element = simdjson::dom::element;
using Type = simdjson::dom::element_type;

// Keys compared eight bytes at a time: the call to memcmp for each of 240,000 keys showed in
// profiles.
bool sameBytes(const char* a, const char* b, std::size_t n) {
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        std::uint64_t x, y;
        std::memcpy(&x, a + i, 8);
        std::memcpy(&y, b + i, 8);
        if (x != y) return false;
    }
    for (; i < n; ++i) {
        if (a[i] != b[i]) return false;
    }
    return true;
}

// The service writes every element's members in the same order, so the member found at a
// position last time is tried first.
class MemberMatcher {
public:
    std::optional<HistoryMember> match(std::size_t position, std::string_view key) {
        if (position < last_.size()) {
            const int m = last_[position];
            if (m >= 0 && kMembers[m].key.size() == key.size() &&
                sameBytes(kMembers[m].key.data(), key.data(), key.size())) {
                return static_cast<HistoryMember>(m);
            }
        }
        auto member = findHistoryMember(key);
        if (position < last_.size()) last_[position] = member ? *member : -1;
        return member;
    }

private:
    std::array<int, 48> last_ = [] {
        std::array<int, 48> a{};
        a.fill(-1);
        return a;
    }();
};

// Reads one member's value into `element`. A null counts as absent.
std::optional<std::string> readMember(Element value, HistoryElement& element,
                                      HistoryMember member) {
    const Type type = value.type();
    if (type == Type::NULL_VALUE) return std::nullopt;
    switch (historyKind(member)) {
        case HistoryKind::integer:
            if (type == Type::INT64) {
                element.present[member] = true;
                element.integer[member] = value.get_int64().value_unsafe();
                return std::nullopt;
            }
            // Beyond 64 bits (UINT64) is no count; a double may still be a whole number.
            if (type != Type::DOUBLE) return "expected an integer";
            return storeInteger(element, member, value.get_double().value_unsafe());
        case HistoryKind::number:
            if (type == Type::DOUBLE) {
                return storeNumber(element, member, value.get_double().value_unsafe());
            }
            if (type == Type::INT64) {
                return storeNumber(element, member,
                                   static_cast<double>(value.get_int64().value_unsafe()));
            }
            if (type == Type::UINT64) {
                return storeNumber(element, member,
                                   static_cast<double>(value.get_uint64().value_unsafe()));
            }
            return "expected a number";
        case HistoryKind::text:
        case HistoryKind::date:
            if (type != Type::STRING) return "expected a text";
            return storeText(element, member, value.get_string().value_unsafe());
    }
    return std::nullopt;
}

}  // namespace

namespace {

constexpr std::size_t kKeepParserBytes = std::size_t{256} << 10;

std::size_t skipBlanks(std::string_view text, std::size_t at) {
    while (at < text.size() &&
           (text[at] == ' ' || text[at] == '\t' || text[at] == '\n' || text[at] == '\r')) {
        ++at;
    }
    return at;
}

// Reads one parsed element into a new record at the end of `trips`, or says what is wrong.
std::optional<std::string> readElement(Element item, std::size_t index, MemberMatcher& matcher,
                                       LocalTimeConverter& times, const Environment& environment,
                                       std::vector<std::shared_ptr<Trip>>& trips) {
    if (!item.is_object()) return historyProblem(index, kHistoryMemberCount, "expected an object");
    HistoryElement element;
    const simdjson::dom::object object = item.get_object().value_unsafe();
    std::size_t position = 0;
    for (simdjson::dom::key_value_pair field : object) {
        if (auto member = matcher.match(position++, field.key)) {
            if (auto problem = readMember(field.value, element, *member)) {
                return historyProblem(index, *member, *problem);
            }
        }
    }
    auto trip = std::make_shared<Trip>(environment);
    applyHistoryElement(*trip, element, times);
    trips.push_back(std::move(trip));
    return std::nullopt;
}

// The common reply, a list of objects, read one object at a time: each is parsed on its own from
// a small per-thread buffer that stays in the cache, where a tree of the whole text takes about
// 14 bytes per byte of text (90 MB for 10,000 trips), faulted in afresh for every reply. An
// element ends at a '}' followed by a comma and a '{' (or by the closing ']' and the end of the
// text) where the text up to it parses as one object: such a text cannot also be the start of a
// longer object, so a '}' inside a string is passed over when its cut does not parse. Returns
// nullopt for anything else (another shape, damage, a member of the wrong kind, a cut tried
// too often), and the whole text is then read as one tree, which gives the reason as always.
std::optional<HistoryReply> readElementWise(std::string_view body, const Environment& environment) {
    std::size_t start = skipBlanks(body, 0);
    if (start == body.size() || body[start] != '[') return std::nullopt;
    start = skipBlanks(body, start + 1);
    if (start == body.size() || body[start] != '{') return std::nullopt;

    // Every '}' followed by a comma and a '{': where an element may end and the next begin.
    struct Cut {
        std::size_t end, next;
    };
    std::vector<Cut> cuts;
    std::size_t last = std::string_view::npos;  // the '}' before the closing ']'
    for (std::size_t at = start;;) {
        const void* found = std::memchr(body.data() + at, '}', body.size() - at);
        if (found == nullptr) break;
        const std::size_t brace =
            static_cast<std::size_t>(static_cast<const char*>(found) - body.data());
        const std::size_t after = skipBlanks(body, brace + 1);
        if (after < body.size() && body[after] == ',') {
            const std::size_t next = skipBlanks(body, after + 1);
            if (next < body.size() && body[next] == '{') cuts.push_back({brace + 1, next});
        } else if (after < body.size() && body[after] == ']' &&
                   skipBlanks(body, after + 1) == body.size()) {
            last = brace + 1;
            break;
        }
        at = brace + 1;
    }
    // Too many possible elements: the whole-text reader decides whether there are.
    if (last == std::string_view::npos || cuts.size() + 1 > kMaxHistoryTrips) return std::nullopt;
    cuts.push_back({last, std::string_view::npos});

    thread_local simdjson::dom::parser parser;
    thread_local std::string padded;
    struct ReleaseWhenLarge {
        ~ReleaseWhenLarge() {
            if (padded.capacity() > kKeepParserBytes) {
                parser = simdjson::dom::parser{};
                std::string().swap(padded);
            }
        }
    } release;

    HistoryReply reply;
    reply.trips.reserve(cuts.size());
    LocalTimeConverter times;
    MemberMatcher matcher;
    constexpr int kMaxTries = 8;  // cuts tried per element: braces inside its strings
    int tries = 0;
    for (const Cut& cut : cuts) {
        const std::size_t length = cut.end - start;
        padded.resize(length + simdjson::SIMDJSON_PADDING);
        std::memcpy(padded.data(), body.data() + start, length);
        // One level less than a whole text may nest: the list is the first.
        constexpr std::size_t kElementDepth = simdjson::DEFAULT_MAX_DEPTH - 1;
        if ((parser.max_depth() != kElementDepth || parser.capacity() < length) &&
            parser.allocate(std::max(length, parser.capacity()), kElementDepth) !=
                simdjson::SUCCESS) {
            return std::nullopt;
        }
        Element item;
        if (parser.parse(padded.data(), length, false).get(item) != simdjson::SUCCESS) {
            if (++tries == kMaxTries || cut.next == std::string_view::npos) return std::nullopt;
            continue;
        }
        if (readElement(item, reply.trips.size(), matcher, times, environment, reply.trips)) {
            return std::nullopt;
        }
        if (cut.next == std::string_view::npos) {
            reply.ok = true;
            return reply;
        }
        start = cut.next;
        tries = 0;
    }
    return std::nullopt;
}

}  // namespace

HistoryReply readHistoryReply(std::string_view body, const Environment& environment) {
    HistoryReply reply;
    const auto fail = [&](std::string error) {
        reply.trips.clear();
        reply.error = std::move(error);
        return std::move(reply);
    };
    if (body.size() > kMaxHistoryReplyBytes) {
        return fail("the reply of " + std::to_string(body.size()) + " bytes exceeds the limit of " +
                    std::to_string(kMaxHistoryReplyBytes));
    }
    if (auto read = readElementWise(body, environment)) return std::move(*read);

    // The parser and its padded input are kept per thread for small replies: they cost about
    // 16 bytes per byte of text, so after a large reply they are released again, or every HTTP
    // worker thread would hold its largest reply's worth for good. The parser validates the
    // whole text (syntax, UTF-8, numbers) before anything is read from it.
    thread_local simdjson::dom::parser parser;
    thread_local std::string padded;
    struct ReleaseWhenLarge {
        ~ReleaseWhenLarge() {
            if (padded.capacity() > kKeepParserBytes) {
                parser = simdjson::dom::parser{};
                std::string().swap(padded);
            }
        }
    } release;
    padded.resize(body.size() + simdjson::SIMDJSON_PADDING);
    if (!body.empty()) std::memcpy(padded.data(), body.data(), body.size());

    Element root;
    if (auto e = parser.parse(padded.data(), body.size(), false).get(root)) {
        return fail(simdjson::error_message(e));
    }
    if (!root.is_array()) {
        if (!root.is_object()) return fail("JSON text did not start with array or object");
        return fail("expected a list of trips, got an object");
    }
    const simdjson::dom::array array = root.get_array().value_unsafe();
    if (array.size() > kMaxHistoryTrips) {
        return fail("the reply's " + std::to_string(array.size()) + " trips exceed the limit of " +
                    std::to_string(kMaxHistoryTrips));
    }
    reply.trips.reserve(array.size());
    LocalTimeConverter times;
    MemberMatcher matcher;
    std::size_t index = 0;
    for (Element item : array) {
        if (auto problem = readElement(item, index, matcher, times, environment, reply.trips)) {
            return fail(std::move(*problem));
        }
        ++index;
    }
    reply.ok = true;
    return reply;
}

}  // namespace kestrelvue::detail
