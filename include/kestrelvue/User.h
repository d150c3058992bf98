#pragma once
// The user's account with the service: login with a token, registration, friends and the
// leaderboard. Requests go through RestfulCall; answers come back as notifications that only the
// handling account (User::sharedInstance() in a host) receives.

#include <kestrelvue/Export.h>
#include <kestrelvue/LeaderboardItem.h>
#include <kestrelvue/NotificationCenter.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrelvue {

struct Environment;
class RestfulCall;
class User;

/// Ordinals are the declaration order; the wire's "GenderId" numbers differ (genderWireId).
enum class GenderType { male, female, unknown };
/// Ordinals are the declaration order; the service's "UserTypeId" maps through userTypeFromWire.
enum class UserType { driver, observer, passenger };

/// "GenderId" on the wire: male 1, female 2, unknown 0.
constexpr int genderWireId(GenderType gender) {
    switch (gender) {
        case GenderType::male:
            return 1;
        case GenderType::female:
            return 2;
        case GenderType::unknown:
            break;
    }
    return 0;
}

/// "UserTypeId" from the service: 1 observer, 2 passenger, 4 driver, any other integer observer.
constexpr UserType userTypeFromWire(std::int64_t userTypeId) {
    switch (userTypeId) {
        case 2:
            return UserType::passenger;
        case 4:
            return UserType::driver;
        default:
            return UserType::observer;
    }
}

/// The host's receiver of account results. Every operation has an empty default. Calls arrive on
/// the HTTP client's worker threads (offline, bad-URL and similar failures found before a request
/// is sent arrive on the calling thread, before the call returns).
class KESTRELVUE_EXPORT UserDelegate {
public:
    virtual ~UserDelegate() = default;
    virtual void userDidLogin(User& user) { (void)user; }
    virtual void userLoginDidFail(std::int64_t errorCode, const std::string& errorTitle,
                                  const std::string& errorMessage) {
        (void)errorCode, (void)errorTitle, (void)errorMessage;
    }
    virtual void userDidAdd(User& user) { (void)user; }
    virtual void userAddDidFail(std::int64_t errorCode, const std::string& errorTitle,
                                const std::string& errorMessage) {
        (void)errorCode, (void)errorTitle, (void)errorMessage;
    }
    virtual void friendDidAdd(const std::string& friendReferenceId) { (void)friendReferenceId; }
    virtual void friendAddDidFail(std::int64_t errorCode, const std::string& errorTitle,
                                  const std::string& errorMessage) {
        (void)errorCode, (void)errorTitle, (void)errorMessage;
    }
    virtual void leadershipDidGet(const std::vector<LeaderboardItem>& leaderboard) {
        (void)leaderboard;
    }
    virtual void leadershipGetDidFail(std::int64_t errorCode, const std::string& errorTitle,
                                      const std::string& errorMessage) {
        (void)errorCode, (void)errorTitle, (void)errorMessage;
    }
};

// Titles of the account's failure reports (the code is always kUserErrorCode).
inline constexpr std::int64_t kUserErrorCode = 1000;
inline constexpr const char* kLoginFailedTitle = "Kullanıcı doğrulanamadı";
inline constexpr const char* kAddUserFailedTitle = "Kullanıcı eklenemedi";
inline constexpr const char* kAddFriendFailedTitle = "Arkadaş eklenemedi";
inline constexpr const char* kLeadershipFailedTitle = "Liderlik listesi alınamadı";
/// Message of leadershipGetDidFail when a reply arrived but is not a list of row objects.
inline constexpr const char* kLeadershipNotAListText =
    "Sunucunun yanıtı bir liderlik listesi değil.";

/// Thread safety: every member may be called from any thread; the account's fields are guarded by
/// one mutex, and the delegate is called with no lock held.
class KESTRELVUE_EXPORT User {
public:
    /// The process's account, created on first use over Environment::current() and
    /// RestfulCall::sharedInstance(). It handles the answers to every account's requests.
    static User& sharedInstance();

    /// An account filled for registration, sending through RestfulCall::sharedInstance(). It
    /// registers no handlers: the answers to its requests go to the shared account.
    User(std::string firstName, std::string lastName, std::string email, GenderType gender,
         std::string referenceId);

    /// Internal seam for tests and replays: the same kind of account over a given environment and
    /// call layer. Its answers go to whichever handling account listens on that call layer's
    /// notification centre (see makeDetachedShared).
    User(std::string firstName, std::string lastName, std::string email, GenderType gender,
         std::string referenceId, const Environment& environment, RestfulCall& restfulCall);

    /// Internal seam for tests and replays: a handling account, like sharedInstance(), but over
    /// `environment` and `restfulCall` instead of the process-wide ones. It registers for the four
    /// answer names on restfulCall.notificationCenter(). `restfulCall` must outlive it.
    static std::unique_ptr<User> makeDetachedShared(const Environment& environment,
                                                    RestfulCall& restfulCall);

    /// Stops handling answers and waits for any handler already running on another thread. Do not
    /// destroy an account from inside its own delegate call.
    ~User();
    User(const User&) = delete;
    User& operator=(const User&) = delete;

    // Service addresses and answer names; fixed at creation, the same for every account.
    const std::string loginURL;
    const std::string loginObserverName = "UserLogedIn";
    const std::string addUserURL;
    const std::string addUserObserverName = "UserAdded";
    const std::string addFriendURL;
    const std::string addFriendObserverName = "FriendAdded";
    const std::string getLeaderShipURL;  // ends with "/": the user's identifier follows
    const std::string getLeaderShipObserverName = "LeaderShipGot";

    RestfulCall& restfulCall() const;

    // ---- Fields ---------------------------------------------------------------------------
    std::string firstName() const;
    void setFirstName(std::string value);
    std::string lastName() const;
    void setLastName(std::string value);
    std::string email() const;
    void setEmail(std::string value);
    GenderType gender() const;
    void setGender(GenderType value);
    std::string referenceId() const;
    void setReferenceId(std::string value);
    std::shared_ptr<UserDelegate> delegate() const;
    void setDelegate(std::shared_ptr<UserDelegate> value);
    std::int64_t Id() const;
    void setId(std::int64_t value);
    UserType Type() const;

    // ---- Operations (each returns at once; results reach the handling account's delegate) ----
    /// POST {"Mobile", "Token"} to loginURL. The token travels only in that body: the account
    /// keeps no copy and no text the library produces contains it.
    void login(const std::string& userName, const std::string& password);
    /// POST the account's own fields to addUserURL.
    void addUser();
    /// POST {"ReferenceID", "FriendReferenceID", "LoginTypeID": 1} to addFriendURL.
    void addFriend(const std::string& friendReferenceId);
    /// GET getLeaderShipURL + Id + "?RankType=" + the scope's number.
    void getLeadership(RankTypes for_);

    // ---- Answer handlers ------------------------------------------------------------------
    void userLogedIn(const Notification& notification);
    void userAdded(const Notification& notification);
    void friendAdded(const Notification& notification);
    void leadershipGot(const Notification& notification);

private:
    User(std::string firstName, std::string lastName, std::string email, GenderType gender,
         std::string referenceId, const Environment& environment, RestfulCall& restfulCall,
         bool handlesAnswers);
    void registerHandlers();

    // The guarded fields live behind a pointer, so adding one does not change what hosts
    // compile against.
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kestrelvue
