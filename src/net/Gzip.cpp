#include "net/Gzip.h"

#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace kestrelvue::detail {
namespace {

// 15 window bits plus 16: a gzip header and trailer rather than zlib's.
constexpr int kGzipWindowBits = 15 + 16;
// Level 1 gives nearly the bytes of the default level on motion text at a third of the time
// (tests/bench/UploadBench.cpp), and the deflate runs once a bulk on a phone.
constexpr int kLevel = 1;
constexpr int kMemLevel = 8;

Bytef* bytes(std::string_view text) {
    // zlib's input pointer is not const-qualified; it never writes through it.
    return reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
}

}  // namespace

std::optional<std::string> gzip(std::string_view plain) {
    if (plain.size() > std::numeric_limits<uInt>::max() / 2) return std::nullopt;
    z_stream z{};
    if (deflateInit2(&z, kLevel, Z_DEFLATED, kGzipWindowBits, kMemLevel, Z_DEFAULT_STRATEGY) !=
        Z_OK) {
        return std::nullopt;
    }
    std::string out(deflateBound(&z, static_cast<uLong>(plain.size())), '\0');
    z.next_in = bytes(plain);
    z.avail_in = static_cast<uInt>(plain.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    // deflateBound leaves room for the whole stream, so one call finishes it.
    const int rc = deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    if (rc != Z_STREAM_END) return std::nullopt;
    return out;
}

Inflated gunzip(std::string_view compressed, std::size_t limit, std::string& out) {
    out.clear();
    if (compressed.size() > std::numeric_limits<uInt>::max()) return Inflated::Damaged;
    // A gzip member ends with its inflated size (modulo 2^32): the room for the usual one-member
    // body is made once, not by doubling.
    if (const std::size_t n = compressed.size(); n >= 18) {
        std::uint32_t size = 0;
        for (std::size_t i = 1; i <= 4; ++i) size = size << 8 | std::uint8_t(compressed[n - i]);
        out.reserve(std::min<std::size_t>(size, limit));
    }
    z_stream z{};
    if (inflateInit2(&z, kGzipWindowBits) != Z_OK) return Inflated::Damaged;
    z.next_in = bytes(compressed);
    z.avail_in = static_cast<uInt>(compressed.size());
    char chunk[16384];
    Inflated outcome = Inflated::Damaged;
    for (int rc = Z_OK; rc == Z_OK;) {
        z.next_out = reinterpret_cast<Bytef*>(chunk);
        z.avail_out = sizeof chunk;
        rc = inflate(&z, Z_NO_FLUSH);
        const std::size_t got = sizeof chunk - z.avail_out;
        if (out.size() + got > limit) {
            outcome = Inflated::TooLarge;
            break;
        }
        out.append(chunk, got);
        if (rc == Z_STREAM_END && z.avail_in > 0) {
            rc = inflateReset(&z);  // another member follows
        } else if (rc == Z_STREAM_END) {
            outcome = Inflated::Whole;
        }
    }
    inflateEnd(&z);
    if (outcome != Inflated::Whole) out.clear();
    return outcome;
}

}  // namespace kestrelvue::detail
