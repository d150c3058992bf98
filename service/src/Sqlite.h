#pragma once
// Small helpers over SQLite's C interface.

#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrelvue::service {

/// Bytes bound or read as a BLOB, not as text.
struct Blob {
    std::string_view bytes;
};

/// A prepared statement that finalises itself, its parameters bound from `values` in order (an
/// array fills as many). Texts and blobs are not copied: they must outlive the statement.
class Statement {
public:
    template <class... Values>
    Statement(sqlite3* db, std::string_view sql, const Values&... values) {
        sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr);
        [[maybe_unused]] int i = 1;
        (bind(i, values), ...);
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// The current row's columns into `out`, in order, as the constructor binds them.
    template <class... Out>
    void read(Out&... out) {
        [[maybe_unused]] int c = 0;
        (get(c, out), ...);
    }
    bool step() { return stmt_ && sqlite3_step(stmt_) == SQLITE_ROW; }
    bool run() { return stmt_ && sqlite3_step(stmt_) == SQLITE_DONE; }
    std::int64_t integer(int c) { return sqlite3_column_int64(stmt_, c); }
    double real(int c) { return sqlite3_column_double(stmt_, c); }
    std::string text(int c) {
        const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, c));
        return p ? std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, c))) : "";
    }
    /// A BLOB column's bytes (empty for NULL), valid until the next step.
    Blob blob(int c) {
        const auto* p = static_cast<const char*>(sqlite3_column_blob(stmt_, c));
        return {p ? std::string_view(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, c)))
                  : std::string_view()};
    }

private:
    void bind(int& i, std::int64_t v) { sqlite3_bind_int64(stmt_, i++, v); }
    void bind(int& i, double v) { sqlite3_bind_double(stmt_, i++, v); }
    void bind(int& i, std::string_view v) {
        sqlite3_bind_text64(stmt_, i++, v.data(), v.size(), SQLITE_STATIC, SQLITE_UTF8);
    }
    void bind(int& i, Blob v) {
        sqlite3_bind_blob64(stmt_, i++, v.bytes.data(), v.bytes.size(), SQLITE_STATIC);
    }
    void get(int& c, std::int64_t& v) { v = integer(c++); }
    void get(int& c, double& v) { v = real(c++); }
    void get(int& c, std::string& v) { v = text(c++); }
    template <class T, std::size_t N>
    void bind(int& i, const std::array<T, N>& values) {
        for (const T& v : values) bind(i, v);
    }
    template <class T, std::size_t N>
    void get(int& c, std::array<T, N>& out) {
        for (T& v : out) get(c, v);
    }

    sqlite3_stmt* stmt_ = nullptr;
};

/// Runs `sql`; false with SQLite's message in `error` when it fails.
inline bool execute(sqlite3* db, const std::string& sql, std::string& error) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        error = message ? message : "SQLite error";
        sqlite3_free(message);
        return false;
    }
    return true;
}

/// Runs `sql` when it can (a clean-up, or a change that may have been made before).
inline void tryExecute(sqlite3* db, const std::string& sql) {
    std::string ignored;
    execute(db, sql, ignored);
}

/// Opens `path` for one thread at a time (the caller serialises its use). A lock another process
/// holds (a backup, say) is waited for up to five seconds.
inline bool openConnection(const std::string& path, sqlite3*& db, std::string& error) {
    if (sqlite3_open_v2(path.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        error = "cannot open database " + path + ": " + sqlite3_errmsg(db);
        return false;
    }
    sqlite3_busy_timeout(db, 5000);
    // Larger pages for a new file: a bulk writes a quarter as many to the log. With the log a
    // commit survives a crash of the service (a power loss may undo the last ones); copying it
    // back at 4 MB, twice as often as SQLite's default, halves each wait for the copy.
    if (!execute(
            db,
            "PRAGMA page_size = 16384; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; "
            "PRAGMA wal_autocheckpoint = 256",
            error)) {
        error = "cannot open database " + path + ": " + error;
        return false;
    }
    return true;
}

}  // namespace kestrelvue::service
