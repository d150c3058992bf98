#include "core/Json.h"

#include <simdjson.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/JsonElement.h"

namespace kestrelvue::json {

Value scalarValue(simdjson::dom::element e) {
    using T = simdjson::dom::element_type;
    switch (e.type()) {
        case T::INT64:
            return Value(static_cast<long long>(e.get_int64().value_unsafe()));
        case T::UINT64:
            return Value(static_cast<double>(e.get_uint64().value_unsafe()));
        case T::DOUBLE:
            return Value(e.get_double().value_unsafe());
        case T::STRING:
            return Value(std::string(e.get_string().value_unsafe()));
        case T::BOOL:
            return Value(e.get_bool().value_unsafe());
        default:
            return Value();
    }
}

namespace {

Value convert(simdjson::dom::element e) {
    using T = simdjson::dom::element_type;
    switch (e.type()) {
        case T::ARRAY: {
            List list;
            simdjson::dom::array a = e.get_array().value_unsafe();
            list.reserve(a.size());
            for (auto child : a) list.push_back(convert(child));
            return Value(std::move(list));
        }
        case T::OBJECT: {
            Object obj;
            // Held in a local: iterating the temporary result directly would dangle.
            simdjson::dom::object o = e.get_object().value_unsafe();
            for (auto field : o) {
                // Later duplicates win, as with the platform's reader.
                obj.insert_or_assign(std::string(field.key), convert(field.value));
            }
            return Value(std::move(obj));
        }
        default:
            return scalarValue(e);
    }
}

/// A parser lent for one parse. Parsers are kept for the next parse so that small texts cost no
/// allocation, in a pool rather than per thread: a service that answers each connection on a
/// thread of its own would otherwise make a parser, and fault in its memory, for every request.
/// Its buffers take about 14 bytes per byte of text, so one grown past a large text is let go.
struct LentParser {
    explicit LentParser(bool keepAfter) : keep(keepAfter) {
        std::lock_guard lock(poolMutex());
        if (pool().empty()) return;
        parser = std::move(pool().back());
        pool().pop_back();
    }
    ~LentParser() {
        std::lock_guard lock(poolMutex());
        if (keep && pool().size() < kPooled) pool().push_back(std::move(parser));
    }
    LentParser(const LentParser&) = delete;
    LentParser& operator=(const LentParser&) = delete;
    static constexpr std::size_t kPooled = 4;  // about as many as parse at once
    static std::mutex& poolMutex() {
        static std::mutex mutex;
        return mutex;
    }
    static std::vector<std::unique_ptr<simdjson::dom::parser>>& pool() {
        static std::vector<std::unique_ptr<simdjson::dom::parser>> parsers;
        return parsers;
    }
    bool keep;
    std::unique_ptr<simdjson::dom::parser> parser = nullptr;
};

}  // namespace

ParseResult parse(std::string_view text, const ParseLimits& limits) {
    if (text.size() > limits.maxBytes) {
        return ParseResult::failure("the text of " + std::to_string(text.size()) +
                                    " bytes exceeds the limit of " +
                                    std::to_string(limits.maxBytes));
    }
    LentParser lent(text.size() <= limits.keepParserBytes);
    if (!lent.parser) lent.parser = std::make_unique<simdjson::dom::parser>();
    simdjson::padded_string padded(text);
    simdjson::dom::element root;
    auto error = lent.parser->parse(padded).get(root);
    if (error) return ParseResult::failure(simdjson::error_message(error));
    if (!root.is_array() && !root.is_object()) {
        return ParseResult::failure("JSON text did not start with array or object");
    }
    if (root.is_array() && root.get_array().value_unsafe().size() > limits.maxRootElements) {
        return ParseResult::failure("the list exceeds the limit of " +
                                    std::to_string(limits.maxRootElements) + " elements");
    }
    return convert(root);
}

namespace {

void appendEscaped(std::string& out, unsigned char c) {
    static constexpr char hex[] = "0123456789abcdef";
    switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\b':
            out += "\\b";
            break;
        case '\f':
            out += "\\f";
            break;
        default:
            out += "\\u00";
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 15]);
    }
}

using Bytes16 = unsigned char __attribute__((vector_size(16)));

// Each lane all ones where the byte is a control character, a quote or a backslash.
inline Bytes16 needsEscape16(Bytes16 v) {
    return reinterpret_cast<Bytes16>((v < 0x20) | (v == '"') | (v == '\\'));
}

}  // namespace

// Texts such as a motion bulk are long and plain ASCII: the scan looks at many bytes at once for
// the three kinds of byte that need escaping, and clean runs are copied in one piece.
void escapeTo(std::string& out, std::string_view text) {
    constexpr std::uint64_t ones = 0x0101010101010101ULL;
    constexpr std::uint64_t highs = 0x8080808080808080ULL;
    auto needsEscape = [](std::uint64_t w) {
        const std::uint64_t quote = w ^ (ones * '"');
        const std::uint64_t slash = w ^ (ones * '\\');
        return (((w - ones * 0x20) & ~w) | ((quote - ones) & ~quote) | ((slash - ones) & ~slash)) &
               highs;
    };
    const char* data = text.data();
    const std::size_t n = text.size();
    std::size_t start = 0;  // first byte not yet copied
    std::size_t i = 0;
    out.push_back('"');
    while (i < n) {
        // 64 bytes per step while nothing needs escaping, compared as 16-byte vectors (the
        // compiler's portable vector types: SIMD where the target has it).
        while (i + 64 <= n) {
            Bytes16 a, b, c, d;
            std::memcpy(&a, data + i, 16);
            std::memcpy(&b, data + i + 16, 16);
            std::memcpy(&c, data + i + 32, 16);
            std::memcpy(&d, data + i + 48, 16);
            const Bytes16 hits =
                needsEscape16(a) | needsEscape16(b) | needsEscape16(c) | needsEscape16(d);
            std::uint64_t lanes[2];
            std::memcpy(lanes, &hits, 16);
            if (lanes[0] | lanes[1]) break;
            i += 64;
        }
        if (i + 8 <= n) {
            std::uint64_t w;
            std::memcpy(&w, data + i, 8);
            if (!needsEscape(w)) {
                i += 8;
                continue;
            }
        }
        for (const std::size_t end = std::min(i + 8, n); i < end; ++i) {
            const auto c = static_cast<unsigned char>(data[i]);
            if (c >= 0x20 && c != '"' && c != '\\') continue;
            out.append(data + start, i - start);
            appendEscaped(out, c);
            start = i + 1;
        }
    }
    out.append(data + start, n - start);
    out.push_back('"');
}

bool writeTo(std::string& out, const Value& value) {
    switch (value.kind()) {
        case Value::Kind::Null:
            out += "null";
            return true;
        case Value::Kind::Bool:
            out += *value.asBool() ? "true" : "false";
            return true;
        case Value::Kind::Int: {
            char buf[24];
            auto r = std::to_chars(buf, buf + sizeof buf, *value.asInt());
            out.append(buf, r.ptr);
            return true;
        }
        case Value::Kind::Double: {
            double d = *value.asNumber();
            if (!std::isfinite(d)) return false;
            char buf[32];
            auto r = std::to_chars(buf, buf + sizeof buf, d);
            out.append(buf, r.ptr);
            return true;
        }
        case Value::Kind::String:
            escapeTo(out, *value.asString());
            return true;
        case Value::Kind::List: {
            out.push_back('[');
            bool first = true;
            for (const Value& v : *value.asList()) {
                if (!first) out.push_back(',');
                first = false;
                if (!writeTo(out, v)) return false;
            }
            out.push_back(']');
            return true;
        }
        case Value::Kind::Object: {
            out.push_back('{');
            bool first = true;
            for (const auto& [k, v] : *value.asObject()) {
                if (!first) out.push_back(',');
                first = false;
                escapeTo(out, k);
                out.push_back(':');
                if (!writeTo(out, v)) return false;
            }
            out.push_back('}');
            return true;
        }
        case Value::Kind::Error:
            return false;
    }
    return false;
}

std::optional<std::string> write(const Value& value) {
    std::string out;
    if (!writeTo(out, value)) return std::nullopt;
    return out;
}

bool isValidUtf8(std::string_view text) {
    return simdjson::validate_utf8(text.data(), text.size());
}

}  // namespace kestrelvue::json
