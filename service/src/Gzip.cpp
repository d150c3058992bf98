#include "Gzip.h"

#include <zlib.h>

#include <algorithm>

namespace kestrelvue::service {

Inflated gunzip(std::string_view compressed, std::size_t limit, std::string& out) {
    out.clear();
    z_stream z{};
    if (inflateInit2(&z, 16 + MAX_WBITS) != Z_OK) return Inflated::Damaged;  // 16: gzip only
    // zlib takes its lengths as 32-bit; request bodies are far smaller than that.
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
    z.avail_in = static_cast<uInt>(compressed.size());
    // Motion text deflates about sevenfold: start near that, grow by doubling.
    out.resize(std::min(limit + 1, std::max<std::size_t>(compressed.size() * 8, 4096)));
    std::size_t have = 0;
    Inflated outcome = Inflated::Damaged;
    for (;;) {
        if (have == out.size()) {
            if (out.size() > limit) {
                outcome = Inflated::TooLarge;
                break;
            }
            out.resize(std::min(limit + 1, out.size() * 2));
        }
        z.next_out = reinterpret_cast<Bytef*>(out.data() + have);
        z.avail_out = static_cast<uInt>(out.size() - have);
        const int status = inflate(&z, Z_NO_FLUSH);
        have = out.size() - z.avail_out;
        if (have > limit) {
            outcome = Inflated::TooLarge;
            break;
        }
        if (status == Z_STREAM_END) {
            if (z.avail_in == 0) {
                outcome = Inflated::Whole;
                break;
            }
            // Another member follows, as concatenated gzip files allow.
            if (inflateReset(&z) != Z_OK) break;
            continue;
        }
        // Out of input before the stream's end is a body cut short; out of room grows it.
        if ((status != Z_OK && status != Z_BUF_ERROR) || (z.avail_in == 0 && z.avail_out != 0))
            break;
    }
    inflateEnd(&z);
    out.resize(outcome == Inflated::Whole ? have : 0);
    return outcome;
}

}  // namespace kestrelvue::service
