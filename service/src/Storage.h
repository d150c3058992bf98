#pragma once
// What the service keeps, behind one interface: the handlers call only these operations, so that
// another database is a new implementation, not a change to them. SQLite, in one file, is the
// embedded default (SqliteStorage.cpp).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Rows.h"

namespace kestrelvue::service {

/// A registration's outcome: the account's identifier, or why there is none.
struct AddedUser {
    std::int64_t id = 0;
    bool referenceTaken = false;  // another account holds the reference
};

class Storage {
public:
    virtual ~Storage() = default;

    /// Stores a bulk at once or not at all. A bulk of the trip stored before (its reply was
    /// lost) stores nothing. The number of records stored, or nullopt when the store failed.
    virtual std::optional<std::size_t> addMotion(const MotionBulk& bulk) = 0;
    /// A trip's records in the order they arrived, each key (running number and record time)
    /// once: bulks that overlap keep their first copy. Fails, saying which bulk, when a stored
    /// bulk cannot be read back.
    virtual Result<std::vector<MotionRecord>> motion(const std::string& guid) = 0;

    /// Stores a trip record, replacing one of the same trip. False when the store failed.
    virtual bool saveDriving(const DrivingRow& row) = 0;
    /// A user's trips in the order they arrived.
    virtual std::vector<DrivingRow> drivings(std::int64_t userID) = 0;
    virtual SummaryRow summary(std::int64_t userID) = 0;

    /// The account of `mobile` when `token` is the one last issued to it; nullopt otherwise,
    /// whether the number is unknown or the token wrong.
    virtual std::optional<UserRow> login(const std::string& mobile, const std::string& token) = 0;
    /// Issues a fresh login token for `mobile` (creating a driver account on first issue) and
    /// stores only its salted hash. Empty when the store failed.
    virtual std::string issueToken(const std::string& mobile) = 0;
    /// Registers an account. A reference already held gives that account's identifier when the
    /// names are the same (a registration sent again) and is refused otherwise.
    virtual AddedUser addUser(const UserRow& user) = 0;
    /// False when either reference is unknown.
    virtual bool addFriend(const std::string& referenceId,
                           const std::string& friendReferenceId) = 0;
    virtual std::optional<UserRow> user(std::int64_t id) = 0;
    /// Drivers ranked by average score; scope 1 country, 2 city, 3 friends, else everyone.
    virtual std::vector<LeaderRow> leaders(const UserRow& me, int scope) = 0;

    /// True when the database answers a query.
    virtual bool healthy() = 0;
};

/// Opens (creating or upgrading when needed) a SQLite database in one file; ":memory:" keeps it
/// in memory. Null with `error` saying why when it cannot.
std::unique_ptr<Storage> openSqliteStorage(const std::string& path, std::string& error);

}  // namespace kestrelvue::service
