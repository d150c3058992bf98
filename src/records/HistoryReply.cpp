#include "records/HistoryReply.h"

#include <kestrelvue/Environment.h>
#include <kestrelvue/Limits.h>
#include <simdjson.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

#include "core/Utf8.h"
#include "records/TripFactory.h"

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

// Each key as the service writes it, closing quote and colon included.
struct KeyPattern {
    std::array<char, kMaxKeyLength + 2> text{};
    std::size_t size = 0;
};
constexpr auto kKeyPatterns = [] {
    std::array<KeyPattern, kHistoryMemberCount> patterns{};
    for (int m = 0; m < kHistoryMemberCount; ++m) {
        KeyPattern& p = patterns[static_cast<std::size_t>(m)];
        for (char c : kMembers[m].key) p.text[p.size++] = c;
        p.text[p.size++] = '"';
        p.text[p.size++] = ':';
    }
    return patterns;
}();

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
    // Texts are made at their size and moved in: assigning to an empty string reserves at
    // least 30 bytes, which thousands of records would hold for nothing.
    const auto has = [&](HistoryMember m) { return e.present[m]; };
    if (has(kUserId)) trip.UserID = e.integer[kUserId];
    if (has(kDrivingGuid)) trip.DrivingID = std::string(e.text[kDrivingGuid]);
    if (has(kStartDateTime)) {
        bool readsBack = false;
        trip.StartDateTime = times.fromLocal(e.date[kStartDateTime], &readsBack);
        // The text is the wall time just read, unless the clocks change that day.
        if (readsBack) {
            trip.StartDateTime_Formatted = formatDisplayDate(e.date[kStartDateTime]);
        } else {
            trip.StartDateTime_Formatted = Trip::formatDateTime(trip.StartDateTime);
        }
    }
    if (has(kStartLocation)) trip.StartLocation = std::string(e.text[kStartLocation]);
    if (has(kStartLocationLatitude)) trip.StartLocationLat = e.number[kStartLocationLatitude];
    if (has(kStartLocationLongitude)) trip.StartLocationLong = e.number[kStartLocationLongitude];
    if (has(kEndDateTime)) trip.EndDateTime = times.fromLocal(e.date[kEndDateTime]);
    if (has(kEndLocation)) trip.EndLocation = std::string(e.text[kEndLocation]);
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
    if (has(kTimeElapsed)) trip.TimeElapsed = std::string(e.text[kTimeElapsed]);
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

// Keys compared a word at a time, the last word overlapping the one before: the call to memcmp,
// and a loop over the bytes left, for each of 240,000 keys showed in profiles.
bool sameBytes(const char* a, const char* b, std::size_t n) {
    const auto differ = [&](std::size_t at, auto word) {
        decltype(word) x, y;
        std::memcpy(&x, a + at, sizeof x);
        std::memcpy(&y, b + at, sizeof y);
        return x != y;
    };
    if (n >= 8) {
        for (std::size_t i = 0; i + 8 < n; i += 8) {
            if (differ(i, std::uint64_t{})) return false;
        }
        return !differ(n - 8, std::uint64_t{});
    }
    if (n >= 4) return !differ(0, std::uint32_t{}) && !differ(n - 4, std::uint32_t{});
    for (std::size_t i = 0; i < n; ++i) {
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

// Reads one parsed element into a new record at the end of `trips`, or says what is wrong.
std::optional<std::string> readElement(Element item, std::size_t index, MemberMatcher& matcher,
                                       LocalTimeConverter& times, const TripFactory& records,
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
    auto trip = records.make();
    applyHistoryElement(*trip, element, times);
    trips.push_back(std::move(trip));
    return std::nullopt;
}

constexpr std::size_t kKeepParserBytes = std::size_t{256} << 10;

// 10^0 .. 10^22: every one exact in a double, so a decimal of at most 2^53 times one of them is
// rounded exactly once, as a correct parser rounds it.
constexpr double kExactPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                   1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The common reply read straight from its text in one pass, without a tree or a copy: a list of
// flat objects whose texts are short. It accepts only what it is sure of and gives up (nullopt)
// at anything else: damage, a member of the wrong kind, nesting deeper than a few levels, a
// number it cannot read exactly, a lone surrogate escape. The whole text is then read as one
// tree, which decides and gives the reason, so what this accepts is exactly what that accepts.
class DirectReader {
public:
    explicit DirectReader(std::string_view body) : p_(body.data()), end_(p_ + body.size()) {}

    std::optional<HistoryReply> read(const Environment& environment) {
        // Every element here opens with a '{': with no more of them than the limit allows, the
        // limit cannot be passed, and no record is made of a reply the limit refuses.
        std::size_t braces = 0;
        for (const char* at = p_; braces <= kMaxHistoryTrips; ++at, ++braces) {
            at =
                static_cast<const char*>(std::memchr(at, '{', static_cast<std::size_t>(end_ - at)));
            if (at == nullptr) break;
        }
        if (braces > kMaxHistoryTrips) return std::nullopt;
        HistoryReply reply;
        reply.trips.reserve(braces);  // as many as there are elements, unless some nest objects
        LocalTimeConverter times;
        const TripFactory records(environment);
        blanks();
        if (!take('[')) return std::nullopt;
        blanks();
        if (!take(']')) {
            // One element reused: only what says which members are present is cleared.
            HistoryElement element;
            for (;;) {
                element.present = {};
                if (!readObject(element)) return std::nullopt;
                auto trip = records.make();
                applyHistoryElement(*trip, element, times);
                reply.trips.push_back(std::move(trip));
                blanks();
                if (take(']')) break;
                if (!take(',')) return std::nullopt;
                blanks();
            }
        }
        blanks();
        if (p_ != end_) return std::nullopt;
        reply.ok = true;
        return reply;
    }

private:
    bool take(char c) {
        if (p_ == end_ || *p_ != c) return false;
        ++p_;
        return true;
    }
    void blanks() {
        while (p_ != end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) ++p_;
    }

    bool readObject(HistoryElement& element) {
        if (!take('{')) return false;
        blanks();
        if (take('}')) return true;
        for (std::size_t position = 0;; ++position) {
            if (!take('"')) return false;
            bool colon = false;
            const int member = readKey(position, colon);
            if (member == kDamaged) return false;
            if (!colon) {
                blanks();
                if (!take(':')) return false;
            }
            blanks();
            if (!(member >= 0 ? readMember(element, static_cast<HistoryMember>(member))
                              : skipValue(0))) {
                return false;
            }
            blanks();
            if (take('}')) return true;
            if (!take(',')) return false;
            blanks();
        }
    }

    // After the opening quote. The member the service wrote at this position last time is
    // tried first, with the colon after it (`colon` tells). Gives the member, kUnread for a
    // key the library does not read, or kDamaged. (A plain int: an optional returned here cost
    // a stalled load per key.)
    static constexpr int kUnread = -1, kDamaged = -2;
    int readKey(std::size_t position, bool& colon) {
        if (position < expected_.size() && expected_[position] >= 0) {
            const int m = expected_[position];
            const KeyPattern& key = kKeyPatterns[m];
            if (static_cast<std::size_t>(end_ - p_) >= key.size &&
                sameBytes(p_, key.text.data(), key.size)) {
                p_ += key.size;
                colon = true;
                return m;
            }
        }
        std::string_view key;
        if (!readString(key, keyText_)) return kDamaged;
        const auto member = findHistoryMember(key);
        const int found = member ? static_cast<int>(*member) : kUnread;
        if (position < expected_.size()) expected_[position] = found;
        return found;
    }

    bool readMember(HistoryElement& element, HistoryMember member) {
        if (p_ == end_) return false;
        const char c = *p_;
        if (c == 'n') return literal("null");
        switch (historyKind(member)) {
            case HistoryKind::integer: {
                std::int64_t integer = 0;
                double number = 0;
                switch (readNumber(integer, number)) {
                    case Number::integer:
                        element.present[member] = true;
                        element.integer[member] = integer;
                        return true;
                    case Number::real:
                        return !storeInteger(element, member, number);
                    case Number::unsure:
                        return false;
                }
                return false;
            }
            case HistoryKind::number: {
                std::int64_t integer = 0;
                double number = 0;
                switch (readNumber(integer, number)) {
                    // Every number read here is finite: stored without storeNumber's check.
                    case Number::integer:
                        element.present[member] = true;
                        element.number[member] = static_cast<double>(integer);
                        return true;
                    case Number::real:
                        element.present[member] = true;
                        element.number[member] = number;
                        return true;
                    case Number::unsure:
                        return false;
                }
                return false;
            }
            case HistoryKind::text:
            case HistoryKind::date: {
                if (!take('"')) return false;
                std::string_view text;
                return readString(text, texts_[member]) && !storeText(element, member, text);
            }
        }
        return false;
    }

    bool literal(std::string_view word) {
        if (static_cast<std::size_t>(end_ - p_) < word.size() ||
            std::memcmp(p_, word.data(), word.size()) != 0) {
            return false;
        }
        p_ += word.size();
        return true;
    }

    // After the opening quote, up to and past the closing one. Without escapes the text is the
    // reply's own bytes; with them it is decoded into `decoded`.
    bool readString(std::string_view& text, std::string& decoded) {
        const char* const begin = p_;
        bool wide = false;
        // Eight bytes at a time while none of them ends the text, escapes or is a control.
        constexpr std::uint64_t kOnes = 0x0101010101010101u, kHigh = 0x8080808080808080u;
        while (end_ - p_ >= 8) {
            std::uint64_t word;
            std::memcpy(&word, p_, 8);
            const std::uint64_t quote = word ^ (kOnes * '"'), slash = word ^ (kOnes * '\\');
            // The classic test for a zero byte (and for one below 0x20): exact for the lowest one.
            const std::uint64_t stop = ((quote - kOnes) & ~quote) | ((slash - kOnes) & ~slash) |
                                       ((word - kOnes * 0x20) & ~word);
            if ((stop & kHigh) != 0) break;
            wide |= (word & kHigh) != 0;
            p_ += 8;
        }
        while (p_ != end_) {
            const auto c = static_cast<unsigned char>(*p_);
            if (c == '"') {
                text = std::string_view(begin, static_cast<std::size_t>(p_ - begin));
                ++p_;
                return !wide || simdjson::validate_utf8(text.data(), text.size());
            }
            if (c == '\\') return readEscaped(begin, wide, text, decoded);
            if (c < 0x20) return false;
            wide |= c >= 0x80;
            ++p_;
        }
        return false;
    }

    // From the first backslash; `wide` tells whether the bytes before it had any beyond ASCII.
    bool readEscaped(const char* begin, bool wide, std::string_view& text, std::string& decoded) {
        decoded.assign(begin, p_);
        while (p_ != end_) {
            const auto c = static_cast<unsigned char>(*p_++);
            if (c == '"') {
                text = decoded;
                return !wide || simdjson::validate_utf8(decoded.data(), decoded.size());
            }
            if (c < 0x20) return false;
            if (c != '\\') {
                wide |= c >= 0x80;
                decoded += static_cast<char>(c);
                continue;
            }
            if (p_ == end_) return false;
            switch (*p_++) {
                case '"':
                    decoded += '"';
                    break;
                case '\\':
                    decoded += '\\';
                    break;
                case '/':
                    decoded += '/';
                    break;
                case 'b':
                    decoded += '\b';
                    break;
                case 'f':
                    decoded += '\f';
                    break;
                case 'n':
                    decoded += '\n';
                    break;
                case 'r':
                    decoded += '\r';
                    break;
                case 't':
                    decoded += '\t';
                    break;
                case 'u': {
                    std::uint32_t code = 0;
                    if (!hex4(code)) return false;
                    if (code >= 0xD800 && code < 0xDC00) {
                        std::uint32_t low = 0;
                        if (!literal("\\u") || !hex4(low) || low < 0xDC00 || low >= 0xE000) {
                            return false;
                        }
                        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                    } else if (code >= 0xDC00 && code < 0xE000) {
                        return false;
                    }
                    detail::appendUtf8(decoded, code);
                    break;
                }
                default:
                    return false;
            }
        }
        return false;
    }

    bool hex4(std::uint32_t& code) {
        if (end_ - p_ < 4) return false;
        for (int i = 0; i < 4; ++i) {
            const char c = *p_++;
            const int digit = c >= '0' && c <= '9'   ? c - '0'
                              : c >= 'a' && c <= 'f' ? c - 'a' + 10
                              : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                     : -1;
            if (digit < 0) return false;
            code = code * 16 + static_cast<std::uint32_t>(digit);
        }
        return true;
    }

    enum class Number { integer, real, unsure };

    // A JSON number, read as the tree reader reads it: without a fraction or an exponent it is
    // an integer, else a double. Integers of more than 18 digits, "-0" and doubles beyond the
    // exact cases are left to the tree reader.
    Number readNumber(std::int64_t& integer, double& real) {
        const char* const begin = p_;
        const bool negative = take('-');
        if (p_ == end_ || *p_ < '0' || *p_ > '9') return Number::unsure;
        std::uint64_t mantissa = 0;
        int digits = 0;
        if (*p_ == '0') {
            ++p_;
        } else {
            for (; p_ != end_ && *p_ >= '0' && *p_ <= '9'; ++p_, ++digits) {
                mantissa = mantissa * 10 + static_cast<std::uint64_t>(*p_ - '0');
                if (digits == 18) return Number::unsure;
            }
        }
        int exponent = 0;
        bool real_ = false;
        if (p_ != end_ && *p_ == '.') {
            real_ = true;
            ++p_;
            const char* const fraction = p_;
            for (; p_ != end_ && *p_ >= '0' && *p_ <= '9'; ++p_) {
                if (digits == 18) return Number::unsure;
                mantissa = mantissa * 10 + static_cast<std::uint64_t>(*p_ - '0');
                digits += mantissa != 0 ? 1 : 0;  // leading zeros of "0.00x" take no room
                --exponent;
            }
            if (p_ == fraction) return Number::unsure;
        }
        if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
            real_ = true;
            ++p_;
            const bool down = p_ != end_ && *p_ == '-';
            if (p_ != end_ && (*p_ == '-' || *p_ == '+')) ++p_;
            const char* const digitsAt = p_;
            int e = 0;
            for (; p_ != end_ && *p_ >= '0' && *p_ <= '9'; ++p_) {
                if (e > 1000) return Number::unsure;
                e = e * 10 + (*p_ - '0');
            }
            if (p_ == digitsAt) return Number::unsure;
            exponent += down ? -e : e;
        }
        if (!real_) {
            if (negative && mantissa == 0) return Number::unsure;
            integer = negative ? -static_cast<std::int64_t>(mantissa)
                               : static_cast<std::int64_t>(mantissa);
            return Number::integer;
        }
        if (mantissa > (std::uint64_t{1} << 53) || exponent < -22 || exponent > 22) {
            // Rare in a reply: the library's reading, correctly rounded like the tree reader's.
            double value = 0;
            const auto [at, ec] = std::from_chars(begin + (negative ? 1 : 0), p_, value);
            if (ec != std::errc() || at != p_ || !std::isfinite(value)) return Number::unsure;
            real = negative ? -value : value;
            return Number::real;
        }
        double value = static_cast<double>(mantissa);
        value = exponent < 0 ? value / kExactPowers[-exponent] : value * kExactPowers[exponent];
        real = negative ? -value : value;
        return Number::real;
    }

    // A value of a member the library does not read: checked, not kept.
    bool skipValue(int depth) {
        if (p_ == end_ || depth > kMaxNesting) return false;
        std::string_view text;
        switch (*p_) {
            case '"':
                ++p_;
                return readString(text, keyText_);
            case 'n':
                return literal("null");
            case 't':
                return literal("true");
            case 'f':
                return literal("false");
            case '[':
            case '{': {
                const bool object = *p_++ == '{';
                const char close = object ? '}' : ']';
                blanks();
                if (take(close)) return true;
                for (;;) {
                    if (object) {
                        if (!take('"') || !readString(text, keyText_)) return false;
                        blanks();
                        if (!take(':')) return false;
                        blanks();
                    }
                    if (!skipValue(depth + 1)) return false;
                    blanks();
                    if (take(close)) return true;
                    if (!take(',')) return false;
                    blanks();
                }
            }
            default: {
                std::int64_t integer = 0;
                double real = 0;
                return readNumber(integer, real) != Number::unsure;
            }
        }
    }

    static constexpr int kMaxNesting = 32;

    const char* p_;
    const char* const end_;
    std::array<int, 48> expected_ = [] {
        std::array<int, 48> a{};
        a.fill(-1);
        return a;
    }();
    std::string keyText_;
    std::array<std::string, kHistoryMemberCount> texts_;
};

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
    if (auto read = DirectReader(body).read(environment)) return std::move(*read);
    return readHistoryTree(body, environment);
}

HistoryReply readHistoryTree(std::string_view body, const Environment& environment) {
    HistoryReply reply;
    const auto fail = [&](std::string error) {
        reply.trips.clear();
        reply.error = std::move(error);
        return std::move(reply);
    };
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
    const TripFactory records(environment);
    MemberMatcher matcher;
    std::size_t index = 0;
    for (Element item : array) {
        if (auto problem = readElement(item, index, matcher, times, records, reply.trips)) {
            return fail(std::move(*problem));
        }
        ++index;
    }
    reply.ok = true;
    return reply;
}

}  // namespace kestrelvue::detail
