#include <kestrelvue/posix/SqliteOutboxStore.h>
#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <system_error>

namespace kestrelvue::posix {
namespace {

// Marks the file as this store's: anything else under the name is set aside, never read.
constexpr int kApplicationId = 0x4b564f42;
constexpr int kVersion = 1;

bool exec(sqlite3* db, const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

int pragmaInt(sqlite3* db, const char* sql, bool& ok) {
    sqlite3_stmt* st = nullptr;
    int value = 0;
    ok = sqlite3_prepare_v2(db, sql, -1, &st, nullptr) == SQLITE_OK &&
         sqlite3_step(st) == SQLITE_ROW;
    if (ok) value = sqlite3_column_int(st, 0);
    sqlite3_finalize(st);
    return value;
}

bool quickCheckPasses(sqlite3* db) {
    sqlite3_stmt* st = nullptr;
    bool ok = sqlite3_prepare_v2(db, "PRAGMA quick_check", -1, &st, nullptr) == SQLITE_OK &&
              sqlite3_step(st) == SQLITE_ROW &&
              std::string_view(reinterpret_cast<const char*>(sqlite3_column_text(st, 0))) == "ok";
    sqlite3_finalize(st);
    return ok;
}

/// The id, kind and record count of the row `st` stands on (its first three columns).
platform::OutboxEntry entryHead(sqlite3_stmt* st) {
    platform::OutboxEntry e;
    e.id = sqlite3_column_int64(st, 0);
    e.kind =
        sqlite3_column_int(st, 1) == 1 ? platform::OutboxKind::trip : platform::OutboxKind::motion;
    e.records = sqlite3_column_int64(st, 2);
    return e;
}

}  // namespace

struct SqliteOutboxStore::Impl {
    sqlite3* db = nullptr;
    std::string report;

    ~Impl() { close(); }
    void close() {
        if (db) sqlite3_close_v2(db);
        db = nullptr;
    }

    // Opens the file as this store's, or says why it cannot be one.
    std::string open(const std::filesystem::path& file) {
        if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                            nullptr) != SQLITE_OK) {
            return db ? sqlite3_errmsg(db) : "cannot open";
        }
        sqlite3_busy_timeout(db, 2000);
        bool ok = false;
        const int pages = pragmaInt(db, "PRAGMA page_count", ok);
        if (!ok) return sqlite3_errmsg(db);
        if (pages == 0) {
            const std::string create =
                "PRAGMA application_id=" + std::to_string(kApplicationId) +
                ";PRAGMA user_version=" + std::to_string(kVersion) +
                ";CREATE TABLE entries(id INTEGER PRIMARY KEY AUTOINCREMENT, kind INTEGER NOT "
                "NULL, records INTEGER NOT NULL, url TEXT NOT NULL, body BLOB NOT NULL)";
            if (!exec(db, create.c_str())) return sqlite3_errmsg(db);
        } else {
            bool idOk = false, versionOk = false;
            if (pragmaInt(db, "PRAGMA application_id", idOk) != kApplicationId || !idOk) {
                return "not an outbox store";
            }
            if (pragmaInt(db, "PRAGMA user_version", versionOk) != kVersion || !versionOk) {
                return "an outbox store of another version";
            }
            if (!quickCheckPasses(db)) return "the store is damaged";
        }
        if (!exec(db, "PRAGMA journal_mode=WAL") || !exec(db, "PRAGMA synchronous=NORMAL")) {
            return sqlite3_errmsg(db);
        }
        return {};
    }
};

SqliteOutboxStore::SqliteOutboxStore(const std::string& directory) : impl_(new Impl) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::create_directories(directory, ec);
    const fs::path file = fs::path(directory) / "outbox.sqlite";
    std::string problem = impl_->open(file);
    if (problem.empty()) return;
    impl_->close();
    // Set aside, with its journal files, so that nothing of it is lost or read again.
    const auto stamp = std::to_string(std::chrono::duration_cast<std::chrono::seconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
    const fs::path aside = file.string() + ".damaged-" + stamp;
    fs::rename(file, aside, ec);
    for (const char* suffix : {"-wal", "-shm"}) {
        std::error_code ignored;
        fs::rename(file.string() + suffix, aside.string() + suffix, ignored);
    }
    impl_->report =
        "outbox store " + file.string() + " set aside as " + aside.string() + ": " + problem;
    if (std::string again = impl_->open(file); !again.empty()) {
        impl_->close();
        impl_->report += "; a new store cannot be made either: " + again;
    }
}

SqliteOutboxStore::~SqliteOutboxStore() = default;

bool SqliteOutboxStore::add(std::vector<platform::OutboxEntry>& entries) {
    sqlite3* db = impl_->db;
    if (!db || !exec(db, "BEGIN IMMEDIATE")) return false;
    sqlite3_stmt* st = nullptr;
    bool ok =
        sqlite3_prepare_v2(db, "INSERT INTO entries(kind, records, url, body) VALUES(?,?,?,?)", -1,
                           &st, nullptr) == SQLITE_OK;
    for (auto& e : entries) {
        if (!ok) break;
        sqlite3_bind_int(st, 1, static_cast<int>(e.kind));
        sqlite3_bind_int64(st, 2, e.records);
        sqlite3_bind_text(st, 3, e.url.data(), static_cast<int>(e.url.size()), SQLITE_STATIC);
        sqlite3_bind_blob(st, 4, e.body.data(), static_cast<int>(e.body.size()), SQLITE_STATIC);
        ok = sqlite3_step(st) == SQLITE_DONE;
        e.id = sqlite3_last_insert_rowid(db);
        sqlite3_reset(st);
    }
    sqlite3_finalize(st);
    if (ok && exec(db, "COMMIT")) return true;
    exec(db, "ROLLBACK");
    return false;
}

bool SqliteOutboxStore::remove(std::int64_t id) {
    sqlite3* db = impl_->db;
    if (!db) return false;
    sqlite3_stmt* st = nullptr;
    bool ok =
        sqlite3_prepare_v2(db, "DELETE FROM entries WHERE id=?", -1, &st, nullptr) == SQLITE_OK;
    if (ok) {
        sqlite3_bind_int64(st, 1, id);
        ok = sqlite3_step(st) == SQLITE_DONE;
    }
    sqlite3_finalize(st);
    return ok;
}

std::vector<platform::OutboxEntry> SqliteOutboxStore::peek(const std::string& directory) {
    std::vector<platform::OutboxEntry> out;
    const std::filesystem::path file = std::filesystem::path(directory) / "outbox.sqlite";
    std::error_code ec;
    if (!std::filesystem::is_regular_file(file, ec)) return out;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(db, 2000);
        bool ok = false;
        sqlite3_stmt* st = nullptr;
        if (pragmaInt(db, "PRAGMA application_id", ok) == kApplicationId && ok &&
            sqlite3_prepare_v2(db,
                               "SELECT id, kind, records FROM entries"
                               " WHERE typeof(id) = 'integer' AND id > 0 ORDER BY id",
                               -1, &st, nullptr) == SQLITE_OK) {
            while (sqlite3_step(st) == SQLITE_ROW) {
                out.push_back(entryHead(st));
            }
        }
        sqlite3_finalize(st);
    }
    sqlite3_close_v2(db);
    return out;
}

std::vector<platform::OutboxEntry> SqliteOutboxStore::load() {
    std::vector<platform::OutboxEntry> out;
    sqlite3* db = impl_->db;
    if (!db) return out;
    sqlite3_stmt* st = nullptr;
    // Only rows this store could have written: a damaged or foreign file may hold ids that are
    // not positive integers, and an entry is known by its id until the service confirms it.
    if (sqlite3_prepare_v2(db,
                           "SELECT id, kind, records, url, body FROM entries"
                           " WHERE typeof(id) = 'integer' AND id > 0 ORDER BY id",
                           -1, &st, nullptr) != SQLITE_OK) {
        return out;
    }
    while (sqlite3_step(st) == SQLITE_ROW) {
        platform::OutboxEntry e = entryHead(st);
        if (const auto* url = sqlite3_column_text(st, 3)) {
            e.url.assign(reinterpret_cast<const char*>(url),
                         static_cast<std::size_t>(sqlite3_column_bytes(st, 3)));
        }
        if (const void* body = sqlite3_column_blob(st, 4)) {
            e.body.assign(static_cast<const char*>(body),
                          static_cast<std::size_t>(sqlite3_column_bytes(st, 4)));
        }
        out.push_back(std::move(e));
    }
    sqlite3_finalize(st);
    return out;
}

std::string SqliteOutboxStore::openingReport() const {
    return impl_->report;
}

}  // namespace kestrelvue::posix
