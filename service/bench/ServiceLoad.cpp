// kestrelvue_service_load: the reference service under load on loopback, in-process.
//   kestrelvue_service_load [--clients N] [--bulks N] [--db FILE] [--keep-alive] [--only bulks]
//                           [--gzip]
// Prints motion bulks per second and their latency (1000 records each, keyed ingestion on), the
// latency of a 1,000-trip history, and the service's resident memory before and after large
// uploads. --keep-alive: the clients keep their connections, as the library's HTTP client does
// (else each bulk comes on a new one); --only bulks: the first part alone, for a profile; --gzip:
// the bulks are sent with Content-Encoding: gzip, compressed before the clients start.

#include <httplib.h>
#include <kestrelvue/service/ReferenceService.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// A value in [-1, 1] for a record's field, as if measured: a text of the same few values
/// compresses far better than a real drive's, and the service stores bulks compressed.
double noise(int item, int field) {
    std::uint32_t h =
        static_cast<std::uint32_t>(item) * 2654435761u ^ static_cast<std::uint32_t>(field) * 40503u;
    h ^= h >> 15;
    h *= 2246822519u;
    h ^= h >> 13;
    return double(h % 2001) / 1000.0 - 1.0;
}

// One record in the library's motion text layout, 39 comma-terminated fields; its sensor values
// vary from record to record, and it compresses a little worse than the example drives do.
std::string record(int item, int second) {
    char buffer[512];
    const int minute = second / 60 % 60, speed = 40 + item / 50 % 20;
    std::snprintf(buffer, sizeof buffer,
                  "%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,-1.000, , , , "
                  ", %9.6f,%10.6f,FU,%4d,2026-11-16 14:%02d:%02d:250,%4d,%7d,2026-11-16 "
                  "14:%02d:%02d:731,  0.000,  0.000,  0.000,  0.000,  0.000,  0.000,%7.3f,  0.000,"
                  "  0.000,  0.000,  0.000,%7.3f,    5, %9.6f,FU,;",
                  noise(item, 0) * 0.2, noise(item, 1) * 0.2, noise(item, 2) * 0.1,
                  noise(item, 3) * 0.05, noise(item, 4) * 0.05, noise(item, 5) * 0.05,
                  noise(item, 6) * 0.01, noise(item, 7) * 0.01, 1.047 + item * 1e-4,
                  noise(item, 8) * 0.01, noise(item, 9) * 0.01, 41.0082 + item * 2e-6,
                  28.9784 + item * 3e-6, speed, minute, second % 60, speed, item, minute,
                  second % 60, 0.1 + (item % 97) * 1e-3, 87.4 + (item % 360) * 0.1, item * 0.0139);
    return buffer;
}

std::string motionText(int first, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += record(first + i, (first + i) / 2);
    return text;
}

/// A bulk's body, made in `body` (whose memory is reused from bulk to bulk).
std::string& bulk(std::string& body, const std::string& guid, const std::string& text) {
    body.clear();
    return body.append(R"({"UserID":5,"DrivingGuid":")")
        .append(guid)
        .append(R"(","MotionStr":")")
        .append(text)
        .append(R"(","AppVersion":"load"})");
}

std::string gzip(const std::string& plain) {
    z_stream z{};
    deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&z, plain.size()), '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
    z.avail_in = static_cast<uInt>(plain.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

/// Posts `body` from where it lies: httplib's string overload would copy it into the request.
httplib::Result post(httplib::Client& client, const std::string& body, bool gzipped = false) {
    httplib::Headers headers;
    if (gzipped) headers.emplace("Content-Encoding", "gzip");
    return client.Post(
        "/api/Driving/addMotionData", headers, body.size(),
        [&body](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
            return sink.write(body.data() + offset, length);
        },
        "application/json");
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<std::size_t>(p * double(v.size())))];
}

/// Processor time of the whole process (clients and service), in milliseconds: on a machine that
/// others share, a steadier measure of the work a bulk costs than the wall clock.
double cpuMillis() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto ms = [](const timeval& t) { return double(t.tv_sec) * 1e3 + double(t.tv_usec) / 1e3; };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

long residentKiB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

/// The database and the files beside it: its logs and its record files.
void removeDatabase(const std::string& path) {
    for (const std::string file : {"", ".motion-1", ".motion-2", ".motion-3"}) {
        for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + file + suffix).c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    int clients = 4, bulksPerClient = 150;
    bool keepAlive = false, bulksOnly = false, gzipped = false;
    kestrelvue::service::ServiceOptions options;
    options.databasePath = "/tmp/kestrelvue-load.db";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "";
        if (arg == "--keep-alive") keepAlive = true;
        if (arg == "--gzip") gzipped = true;
        if (arg == "--only") bulksOnly = std::string(value) == "bulks";
        if (arg == "--clients") clients = std::atoi(value);
        if (arg == "--bulks") bulksPerClient = std::atoi(value);
        if (arg == "--db") options.databasePath = value;
    }
    removeDatabase(options.databasePath);
    kestrelvue::service::ReferenceService service(options);
    if (!service.start()) {
        std::fprintf(stderr, "%s\n", service.error().c_str());
        return 1;
    }

    // Bulks: every client its own trips, 1000 records each. The texts are made beforehand, so
    // that the clients, which share the machine with the service, spend little time of their own.
    std::vector<std::string> texts;
    texts.reserve(10);
    for (int b = 0; b < 10; ++b) texts.push_back(motionText(b * 1000 + 1, 1000));
    auto guid = [](int c, int b) { return "C" + std::to_string(c) + "-" + std::to_string(b / 10); };
    std::vector<std::vector<std::string>> compressed(static_cast<std::size_t>(clients));
    std::size_t plainBytes = 0, sentBytes = 0;
    for (int c = 0; gzipped && c < clients; ++c) {
        std::string body;
        for (int b = 0; b < bulksPerClient; ++b) {
            plainBytes += bulk(body, guid(c, b), texts[std::size_t(b % 10)]).size();
            sentBytes += compressed[std::size_t(c)].emplace_back(gzip(body)).size();
        }
    }
    if (gzipped)
        std::printf("gzip: %.1f MB of bulks sent as %.1f MB\n", double(plainBytes) / 1e6,
                    double(sentBytes) / 1e6);
    std::vector<std::vector<double>> latencies(static_cast<std::size_t>(clients));
    std::atomic<int> failures{0};
    const auto started = Clock::now();
    const double cpuBefore = cpuMillis();
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(clients));
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            httplib::Client client("127.0.0.1", service.port());
            client.set_keep_alive(keepAlive);
            client.set_tcp_nodelay(true);  // as libcurl does
            std::string body;
            for (int b = 0; b < bulksPerClient; ++b) {
                if (!gzipped) bulk(body, guid(c, b), texts[std::size_t(b % 10)]);
                const auto t0 = Clock::now();
                auto res = post(client, gzipped ? compressed[std::size_t(c)][std::size_t(b)] : body,
                                gzipped);
                latencies[std::size_t(c)].push_back(
                    std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
                if (!res || res->status != 200) ++failures;
            }
        });
    }
    for (auto& t : threads) t.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    const double cpu = cpuMillis() - cpuBefore;
    std::vector<double> all;
    for (const auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
    std::printf(
        "motion bulks: %zu of 1000 records from %d clients%s%s in %.2f s: %.0f bulks/s, "
        "p50 %.1f ms, p99 %.1f ms, %.2f ms of processor time each, %d failed\n",
        all.size(), clients, keepAlive ? " (kept connections)" : "", gzipped ? " (gzip)" : "",
        seconds, double(all.size()) / seconds, percentile(all, 0.5), percentile(all, 0.99),
        cpu / double(all.size()), failures.load());

    if (bulksOnly) {
        service.stop();
        removeDatabase(options.databasePath);
        return failures.load() == 0 ? 0 : 1;
    }

    // History of a user with 1,000 trips.
    httplib::Client client("127.0.0.1", service.port());
    for (int t = 0; t < 1000; ++t) {
        client.Post("/api/Driving/addDrivingScore",
                    R"({"userID":9,"drivingGuid":"H-)" + std::to_string(t) +
                        R"(","startDateTime":"2026-11-16 14:05:09 +0000","endDateTime":)"
                        R"("2026-11-16 14:35:09 +0000","Score":87.5,"totalDistance":12437})",
                    "application/json");
    }
    std::vector<double> history;
    for (int i = 0; i < 200; ++i) {
        const auto t0 = Clock::now();
        auto res = client.Get("/api/Driving/getDriving/9");
        history.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        if (!res || res->status != 200) ++failures;
    }
    std::printf("history of 1000 trips: p50 %.1f ms, p99 %.1f ms\n", percentile(history, 0.5),
                percentile(history, 0.99));

    // Memory: sixteen large uploads, then idle.
    texts.clear();
    const std::string big = motionText(1, 40000);
    std::size_t bigBytes = 0;
    // One body, made before the first reading, so that the figures are the service's: a body
    // freed here would raise glibc's mmap threshold for the service's threads too.
    std::string body;
    body.reserve(big.size() + 100);
    const long before = residentKiB();
    for (int i = 0; i < 16; ++i) {
        bigBytes = bulk(body, "BIG-" + std::to_string(i), big).size();
        auto res = post(client, body);
        if (!res || res->status != 200) ++failures;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the last reply's clean-up
    const long after = residentKiB();
    malloc_trim(0);
    std::printf(
        "resident memory: %ld KiB before sixteen %.1f MB uploads, %ld KiB after (%ld KiB "
        "after a trim here)\n",
        before, double(bigBytes) / 1e6, after, residentKiB());
    service.stop();
    removeDatabase(options.databasePath);
    return failures.load() == 0 ? 0 : 1;
}
