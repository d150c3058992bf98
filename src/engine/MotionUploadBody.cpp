// The motion upload body, written straight into one buffer.

#include "engine/MotionUploadBody.h"

#include <kestrelvue/Json.h>

#include <algorithm>
#include <cstring>

namespace kestrelvue {
namespace detail {
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

// Appends `text` quoted and escaped. Bulk texts are plain ASCII: the scan looks at many bytes at
// once for the three kinds of byte that need escaping, and clean runs are copied in one piece.
void appendJsonString(std::string& out, std::string_view text) {
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

}  // namespace

std::optional<std::string> writeMotionDataBody(std::int64_t userID, std::string_view drivingGuid,
                                               std::string_view motionStr,
                                               const std::optional<std::string>& appVersion) {
    if (!json::isValidUtf8(drivingGuid) || !json::isValidUtf8(motionStr) ||
        (appVersion && !json::isValidUtf8(*appVersion)))
        return std::nullopt;
    std::string out;
    out.reserve(motionStr.size() + drivingGuid.size() + (appVersion ? appVersion->size() : 0) + 96);
    out += "{\"UserID\":";
    out += std::to_string(userID);
    out += ",\"DrivingGuid\":";
    appendJsonString(out, drivingGuid);
    out += ",\"MotionStr\":";
    appendJsonString(out, motionStr);
    out += ",\"AppVersion\":";
    if (appVersion)
        appendJsonString(out, *appVersion);
    else
        out += "null";
    out.push_back('}');
    return out;
}

std::string describeOptionalError(const std::optional<TransportError>& error) {
    if (!error) return "nil";
    return "Optional(Error Domain=" + error->domain + " Code=" + std::to_string(error->code) +
           " \"" + error->description + "\")";
}

}  // namespace detail

}  // namespace kestrelvue
